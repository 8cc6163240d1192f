// The three B-spline scalers on sizes up to 256 x 256. When both axes keep their size or grow,
// every output sample is the same exact blend of its neighbours, so a flat image stays flat.
#include "fuzz_kiu.h"

namespace {

enum Routine { kComponent, kFourBytes, kThreeBytes };

// Whether every pixel of `data` holds `pixel` in its first `channels` bytes.
bool IsFlat(const unsigned char* data, size_t pixels, size_t pixelBytes, const unsigned char* pixel,
            size_t channels) {
    for (size_t i = 0; i < pixels; ++i)
        if (memcmp(data + i * pixelBytes, pixel, channels) != 0) return false;
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const int routine = in.ConsumeIntegralInRange(0, 2);
    const unsigned long srcWidth = in.ConsumeIntegralInRange(0, 256);
    const unsigned long srcHeight = in.ConsumeIntegralInRange(0, 256);
    const unsigned long dstWidth = in.ConsumeIntegralInRange(0, 256);
    const unsigned long dstHeight = in.ConsumeIntegralInRange(0, 256);
    const bool flat = in.ConsumeBool();
    const size_t pixelBytes = routine == kComponent ? 1 : routine == kFourBytes ? 4 : 3;
    const size_t srcPixels = srcWidth * srcHeight, dstPixels = dstWidth * dstHeight;

    kau::mem::Heap heap;
    auto* source =
        static_cast<unsigned char*>(routine == kComponent ? heap.Allocate(srcPixels * pixelBytes)
                                                          : kau::mem::New(srcPixels * pixelBytes));
    fuzz::Check(source != nullptr, "no memory for the source");
    unsigned char pixel[4] = {};
    fuzz::Fill(pixel, sizeof pixel, in);
    if (flat) {
        for (size_t i = 0; i < srcPixels; ++i)
            memcpy(source + i * pixelBytes, pixel, pixelBytes);
    } else {
        fuzz::Fill(source, srcPixels * pixelBytes, in);
    }
    const bool expectFlat = flat && srcPixels > 0 && dstWidth >= srcWidth && dstHeight >= srcHeight;
    const size_t channels = routine == kFourBytes ? 3 : pixelBytes;

    unsigned char* pixels = source;
    unsigned long width = srcWidth, height = srcHeight;
    try {
        if (routine == kComponent) {
            unsigned char* result =
                kiu::ScaleComponent(pixels, srcWidth, srcHeight, dstWidth, dstHeight, heap);
            fuzz::Check(result == pixels, "ScaleComponent returned another buffer than it stored");
        } else if (routine == kFourBytes) {
            kiu::ScaleImageRGB(pixels, width, height, dstWidth, dstHeight, heap);
        } else {
            kiu::ScaleImage24bpp(pixels, width, height, dstWidth, dstHeight, heap);
        }
    } catch (const kau::Error&) {
        fuzz::Check(pixels == source, "a raised error changed the buffer");
    }

    if (pixels != nullptr && pixels != source) {
        if (routine != kComponent)
            fuzz::Check(width == dstWidth && height == dstHeight, "size not updated");
        fuzz::Touch(pixels, dstPixels * pixelBytes);
        if (expectFlat)
            fuzz::Check(IsFlat(pixels, dstPixels, pixelBytes, pixel, channels),
                        "a flat image did not stay flat");
    }
    if (routine != kComponent) {
        // After a failure the source is still the caller's; after success the scaler deleted it.
        if (pixels == source || pixels == nullptr)
            kau::mem::Delete(source);
        else
            kau::mem::Delete(pixels);
    }
    return 0;
}
