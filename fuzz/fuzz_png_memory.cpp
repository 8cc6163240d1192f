// DecodePNG on a PNG held in memory. Input: one options byte (bit 3 picks the overload
// without alphaDepth), then the PNG.
#include "fuzz_png.h"

namespace {

void DecodeInMemory(const fuzz::PngOptions& options, const std::vector<unsigned char>& png) {
    const bool withAlphaDepth = (options.variant & 1) == 0;
    const STImageSimple untouched = fuzz::UntouchedRecord();
    STImageSimple image = untouched;
    constexpr int kNotWritten = 1000;
    int alphaDepth = kNotWritten;
    int ok = withAlphaDepth
                 ? DecodePNG(png.data(), png.size(), options.defaultAlpha, &image, alphaDepth)
                 : DecodePNG(png.data(), png.size(), options.defaultAlpha, &image);
    if (alphaDepth != kNotWritten)
        fuzz::Check(alphaDepth == -1 || (alphaDepth >= 1 && alphaDepth <= 8),
                    "alpha depth out of range");
    if (!ok) {
        fuzz::Check(fuzz::SameRecord(image, untouched), "failed decode changed the record");
        return;
    }
    fuzz::Check(!withAlphaDepth || alphaDepth != kNotWritten, "alphaDepth not written");
    fuzz::CheckDecoded(image, !withAlphaDepth);
    kau::mem::Delete(image.data);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return fuzz::TestOnePng(data, size, DecodeInMemory);
}
