// zin::Stream fed one input byte per call, into output memory that changes from call to call,
// must give the same bytes and the same result as one call with all the input.
//
// Input: an options byte (bits 0-2 pick the output piece size, bit 3 makes the single call ask
// for the end with FlushFinish), then the zlib stream.
#include "fuzz_common.h"

#include "zin.h"

#include <algorithm>
#include <memory>
#include <vector>

namespace {

constexpr uint32_t kOutputPieces[8] = {1, 2, 3, 7, 258, 259, 4096, 65536};
// Output beyond this is not compared.
constexpr uint32_t kLargestOutput = 256u << 10;

struct Run {
    int result;
    std::vector<unsigned char> bytes;
};

std::unique_ptr<zin::Stream> NewStream() {
    auto stream = std::make_unique<zin::Stream>();  // zero-filled, as owners provide it
    stream->Reset();
    return stream;
}

Run InflateAtOnce(const uint8_t* data, size_t size, zio::FlushMode flush) {
    static unsigned char output[kLargestOutput];
    auto stream = NewStream();
    stream->nextIn = data;
    stream->availIn = static_cast<uint32_t>(size);
    stream->nextOut = output;
    stream->availOut = kLargestOutput;
    Run run{stream->Inflate(flush), {}};
    run.bytes.assign(output, output + kLargestOutput - stream->availOut);
    fuzz::Check(stream->totalOut == run.bytes.size(), "totalOut differs from the bytes written");
    return run;
}

Run InflateByteByByte(const uint8_t* data, size_t size, uint32_t piece) {
    Run run{0, {}};
    auto stream = NewStream();
    for (size_t i = 0; i < size && run.bytes.size() < kLargestOutput; ++i) {
        // A copy of its own, so that a read past the one byte offered is caught.
        std::unique_ptr<unsigned char[]> byte(new unsigned char[1]{data[i]});
        stream->nextIn = byte.get();
        stream->availIn = 1;
        do {
            std::unique_ptr<unsigned char[]> out(new unsigned char[piece]);
            stream->nextOut = out.get();
            stream->availOut = piece;
            run.result = stream->Inflate(zio::FlushPartial);
            run.bytes.insert(run.bytes.end(), out.get(), out.get() + piece - stream->availOut);
            if (run.result != zin::kOk && run.result != zin::kNoProgress) return run;
            fuzz::Check(run.result == zin::kOk || stream->availIn == 0,
                        "no progress with input and output available");
        } while (stream->availOut == 0 && run.bytes.size() < kLargestOutput);
        fuzz::Check(stream->availIn == 0 || run.bytes.size() >= kLargestOutput,
                    "the byte offered was not taken");
    }
    fuzz::Check(stream->totalOut == run.bytes.size(), "totalOut differs from the bytes written");
    return run;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const uint32_t piece = kOutputPieces[data[0] & 7];
    const bool finish = (data[0] & 8) != 0;
    ++data;
    --size;

    Run once = InflateAtOnce(data, size, finish ? zio::FlushFinish : zio::FlushPartial);
    Run pieces = InflateByteByByte(data, size, piece);

    if (once.bytes.size() == kLargestOutput) {
        pieces.bytes.resize(std::min(pieces.bytes.size(), once.bytes.size()));
        fuzz::Check(pieces.bytes == once.bytes, "bytes differ from one call with everything");
        return 0;
    }
    // Asking for the end of a stream that is cut short answers -1 instead of 0.
    fuzz::Check(!finish || once.result != zin::kOk, "FlushFinish before the end did not answer -1");
    // Running out of input after progress answers 0, without any (an empty input) -1.
    auto normalised = [](int result) { return result == zin::kNoProgress ? zin::kOk : result; };
    fuzz::Check(normalised(pieces.result) == normalised(once.result),
                "result differs from one call with everything");
    fuzz::Check(pieces.bytes == once.bytes, "bytes differ from one call with everything");
    return 0;
}
