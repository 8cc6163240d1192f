// DecodePNG on a PNG held in memory. Input: one options byte (bit 3 picks the overload
// without alphaDepth), then the PNG.
#include "fuzz_png.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::LimitAllocations();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const fuzz::PngOptions options = fuzz::ReadOptions(data[0]);
    std::vector<unsigned char> png(data + 1, data + size);
    if (options.repairCrcs) fuzz::RepairCrcs(png);

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
        return 0;
    }
    fuzz::Check(!withAlphaDepth || alphaDepth != kNotWritten, "alphaDepth not written");
    fuzz::CheckDecoded(image, !withAlphaDepth);
    kau::mem::Delete(image.data);
    return 0;
}
