// Image::Rotate and its two workers on images of any format up to 64 x 64, with targets of the
// right size or of a fuzzer-chosen one. A refusal must leave the target untouched; a worker's
// result is checked pixel by pixel, its quarter turn with the one-pixel slip included.
#include "fuzz_kiu.h"

namespace {

enum Entry { kRotate, kWorker32, kWorker24 };
constexpr unsigned kAngles[] = {90, 180, 270, 0, 45};

// Where the pixel of column x, row y of the source lands in the target, in bytes.
size_t Destination(const kiu::Image& source, const kiu::Image& target, unsigned angle, uint32_t x,
                   uint32_t y, uint32_t p) {
    const uint32_t w = source.width, h = source.height;
    switch (angle) {
        case 180:
            return size_t{h - 1 - y} * target.stride + size_t{w - 1 - x} * p;
        case 270:
            return size_t{w - 1 - x} * target.stride + size_t{y} * p;
        default:  // 90: row x, column h - 1 - y, one pixel early after the first row
            return size_t{x} * target.stride + size_t{h - 1 - y} * p - (x >= 1 ? p : 0);
    }
}

void CheckTurn(const kiu::Image& source, const kiu::Image& target, unsigned angle, uint32_t p) {
    for (uint32_t y = 0; y < source.height; ++y)
        for (uint32_t x = 0; x < source.width; ++x) {
            if (angle == 90 && x == 0 && y == 0) continue;  // never copied
            const unsigned char* in = source.data + size_t{y} * source.stride + size_t{x} * p;
            const unsigned char* out = target.data + Destination(source, target, angle, x, y, p);
            fuzz::Check(memcmp(in, out, p) == 0, "pixel not where the turn puts it");
        }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const Entry entry = static_cast<Entry>(in.ConsumeIntegralInRange(0, 2));
    const unsigned angle = in.PickValueInArray(kAngles);
    const kiu::Format format = fuzz::PickFormat(in);
    const kiu::Format targetFormat = in.ConsumeBool() ? format : fuzz::PickFormat(in);
    const uint32_t width = in.ConsumeIntegralInRange(0, 64);
    const uint32_t height = in.ConsumeIntegralInRange(0, 64);
    const bool quarter = angle == 90 || angle == 270;
    uint32_t targetWidth = quarter ? height : width, targetHeight = quarter ? width : height;
    if (in.ConsumeBool()) {
        targetWidth = in.ConsumeIntegralInRange(0, 64);
        targetHeight = in.ConsumeIntegralInRange(0, 64);
    }

    kau::mem::Heap heap;
    kiu::Image source, target;
    if (!fuzz::MakeImage(source, width, height, format, heap, in)) return 0;
    if (!fuzz::MakeImage(target, targetWidth, targetHeight, targetFormat, heap, in)) return 0;
    const std::vector<unsigned char> before = fuzz::Pixels(target);
    try {
        if (entry == kRotate)
            source.Rotate(target, angle);
        else if (entry == kWorker32)
            source.Rotate32bpp(target, angle);
        else
            source.Rotate24bpp(target, angle);
    } catch (const kau::Error&) {
        fuzz::Check(fuzz::Pixels(target) == before, "a refused rotation wrote pixels");
        return 0;
    }
    const bool known = angle == 90 || angle == 180 || angle == 270;
    if (!known) {
        fuzz::Check(fuzz::Pixels(target) == before, "a rotation by another angle wrote pixels");
        return 0;
    }
    if (entry != kRotate)
        CheckTurn(source, target, angle, entry == kWorker32 ? 4 : 3);
    else if (format != kiu::I420)
        CheckTurn(source, target, angle, 4);
    return 0;
}
