// DecodePNG over a page-array stream, checked against DecodePNG of the same bytes in memory:
// both must agree on success and on the pixels. Input: one options byte (bits 3-5 pick the
// stream's page size), then the PNG.
#include "fuzz_png.h"

namespace {

// Small pages make the decoder's reads cross many page boundaries; 0 leaves the stream's default.
constexpr unsigned long kPageSizes[8] = {0, 1, 3, 16, 17, 64, 1000, 65536};
// The page table grows by a constant 16 entries, so filling it costs time quadratic in the
// number of pages: the tiniest pages are kept to short inputs.
constexpr unsigned long kSmallestPageForLongInput = 16;
constexpr size_t kLongInput = 4096;

MMStream* NewPageArrayStream(unsigned long pageSize) {
    MMAttri attributes[2];
    MMAttriFromTag(&attributes[0], mmIdData, MMAttriTagAny);
    if (pageSize)
        MMAttriFromU32(&attributes[1], mmIdPageSize, pageSize);
    else
        MMAttriFromTag(&attributes[1], mmIdPageSize, MMAttriTagU32);
    return MMStreamNew(attributes, 2);
}

void DecodeFromStream(const fuzz::PngOptions& options, const std::vector<unsigned char>& png) {
    unsigned long pageSize = kPageSizes[options.variant & 7];
    if (pageSize && pageSize < kSmallestPageForLongInput && png.size() > kLongInput)
        pageSize = kSmallestPageForLongInput;
    MMStream* stream = NewPageArrayStream(pageSize);
    fuzz::Check(stream != nullptr, "no page-array stream");
    fuzz::Check(MMStreamReady(stream) != 0, "stream not ready");
    if (!png.empty())
        fuzz::Check(
            MMStreamPut(stream, png.data(), static_cast<unsigned>(png.size())) == png.size(),
            "stream kept fewer bytes than put");
    fuzz::Check(MMStreamReady(stream) != 0, "stream did not rewind");

    const STImageSimple untouched = fuzz::UntouchedRecord();
    STImageSimple fromStream = untouched;
    int ok = DecodePNG(stream, options.defaultAlpha, &fromStream);
    MMStreamDelete(&stream);
    fuzz::Check(stream == nullptr, "MMStreamDelete left the handle set");

    STImageSimple fromMemory = untouched;
    int okMemory = DecodePNG(png.data(), png.size(), options.defaultAlpha, &fromMemory);
    fuzz::Check(ok == okMemory, "stream and memory decoding disagree on success");
    if (!ok) {
        fuzz::Check(fuzz::SameRecord(fromStream, untouched), "failed decode changed the record");
        return;
    }
    fuzz::CheckDecoded(fromStream, true);
    fuzz::Check(fuzz::SamePixels(fromStream, fromMemory), "stream and memory pixels differ");
    kau::mem::Delete(fromStream.data);
    kau::mem::Delete(fromMemory.data);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return fuzz::TestOnePng(data, size, DecodeFromStream);
}
