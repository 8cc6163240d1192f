// zin::Decompress checked against zlib: a stream that zlib inflates to its end must give the
// same bytes (or -1 when the destination is one byte short), a stream that zlib finds corrupt
// must fail with -2, and a stream cut short yields a prefix of what zlib produced from it (or
// -2 for a corruption found early). The input also goes through zio::crc32 in two parts, which
// must agree with zlib's CRC-32.
#include "fuzz_common.h"

#include "zin.h"

#include <zlib.h>

#include <cstring>
#include <memory>
#include <vector>

namespace {

// Streams that inflate to more than this are only checked not to crash.
constexpr size_t kLargestOutput = 4u << 20;

enum class Outcome { End, Corrupt, CutShort, TooLarge };

struct Reference {
    Outcome outcome;
    const unsigned char* bytes;
    size_t size;
};

Reference InflateWithZlib(const uint8_t* data, size_t size) {
    // One buffer for every run: filling a fresh 4 MiB buffer each time would dominate the run.
    static std::vector<unsigned char> output(kLargestOutput);
    z_stream z{};
    fuzz::Check(inflateInit(&z) == Z_OK, "zlib did not start");
    z.next_in = const_cast<Bytef*>(data);
    z.avail_in = static_cast<uInt>(size);
    z.next_out = output.data();
    z.avail_out = static_cast<uInt>(kLargestOutput);
    int result = inflate(&z, Z_NO_FLUSH);
    Outcome outcome = Outcome::CutShort;
    if (result == Z_STREAM_END)
        outcome = Outcome::End;
    else if (result == Z_DATA_ERROR || result == Z_NEED_DICT)
        outcome = Outcome::Corrupt;
    else if (z.avail_out == 0)
        outcome = Outcome::TooLarge;
    inflateEnd(&z);
    return {outcome, output.data(), kLargestOutput - z.avail_out};
}

void CheckCrc(const uint8_t* data, size_t size) {
    size_t split = size ? data[0] % (size + 1) : 0;
    unsigned long crc = zio::crc32(0, data, split);
    crc = zio::crc32(crc, data + split, size - split);
    fuzz::Check(crc == ::crc32(0, data, static_cast<uInt>(size)), "CRC-32 differs from zlib's");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    CheckCrc(data, size);
    const Reference reference = InflateWithZlib(data, size);
    const size_t produced = reference.size;

    // For a complete stream the destination is exact, one byte short or roomy, chosen by the
    // input's length.
    size_t capacity = reference.outcome == Outcome::TooLarge ? kLargestOutput : produced + 100;
    if (reference.outcome == Outcome::End && size % 3 == 0) capacity = produced;
    if (reference.outcome == Outcome::End && size % 3 == 1 && produced > 0) capacity = produced - 1;
    std::unique_ptr<unsigned char[]> destination(new unsigned char[capacity + 1]);
    const unsigned int untouchedLength = static_cast<unsigned int>(capacity);
    unsigned int length = untouchedLength;
    int result = zin::Decompress(destination.get(), length, data, static_cast<unsigned int>(size));

    if (size == 0) {
        // No input at all: the inflater cannot progress, which is a data error here.
        fuzz::Check(result == zin::kDataError, "an empty source was not refused");
        return 0;
    }
    switch (reference.outcome) {
        case Outcome::End:
            if (capacity < produced) {
                fuzz::Check(result == zin::kNoProgress, "too small a destination not refused");
                fuzz::Check(length == untouchedLength, "refusal changed the length");
                break;
            }
            fuzz::Check(result == zin::kOk, "a stream zlib inflates was refused");
            fuzz::Check(length == produced, "decompressed size differs from zlib's");
            fuzz::Check(memcmp(destination.get(), reference.bytes, produced) == 0,
                        "decompressed bytes differ from zlib's");
            break;
        case Outcome::CutShort:
            // The inflater may see that a stream is corrupt before zlib, which defers some checks
            // (an empty code-length code, for one) until more input arrives.
            if (result == zin::kDataError) break;
            // Collection stops once the input is used up, so output that needs no more input (the
            // rest of a long match) is not fetched when a page fills at that moment.
            fuzz::Check(result == zin::kOk, "a stream cut short yielded no bytes");
            fuzz::Check(length <= produced, "more bytes than zlib from a stream cut short");
            fuzz::Check(memcmp(destination.get(), reference.bytes, length) == 0,
                        "decompressed bytes differ from zlib's");
            break;
        case Outcome::Corrupt:
            fuzz::Check(result == zin::kDataError, "a stream zlib finds corrupt was not refused");
            fuzz::Check(length == untouchedLength, "refusal changed the length");
            break;
        case Outcome::TooLarge:
            break;
    }
    return 0;
}
