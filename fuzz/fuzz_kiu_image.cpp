// The in-place image operations on images of any format up to 64 x 64: lighting compensation
// (whole image and box), histogram equalisation and box drawing with boxes anywhere in the
// 32-bit range, and colour-space names. A refusal must leave the pixels untouched; box drawing
// must not write outside the clamped box; equalisation must map each value one way, keep 0
// at 0 and keep the order of values.
#include "fuzz_kiu.h"

#include <algorithm>

namespace {

void Lighting(FuzzedDataProvider& in, kiu::Image& source, kiu::Image& target) {
    const unsigned threshold = in.ConsumeIntegralInRange(0, 300);
    const bool withBox = in.ConsumeBool();
    xy::Box box{in.ConsumeIntegral<int32_t>(), in.ConsumeIntegral<int32_t>(),
                in.ConsumeIntegral<int32_t>(), in.ConsumeIntegral<int32_t>()};
    if (in.ConsumeBool()) {  // a box inside the image, the common case
        box.x = in.ConsumeIntegralInRange<int32_t>(0, 64);
        box.y = in.ConsumeIntegralInRange<int32_t>(0, 64);
        box.width = in.ConsumeIntegralInRange<int32_t>(0, 64);
        box.height = in.ConsumeIntegralInRange<int32_t>(0, 64);
    }
    const std::vector<unsigned char> before = fuzz::Pixels(target);
    bool compensated = false;
    try {
        compensated = withBox ? source.CompensateLighting(box, target, threshold)
                              : source.CompensateLighting(target, threshold);
    } catch (const kau::Error&) {
        // A box reaching outside the image may fail part-way; the other refusals come first.
        if (!withBox) fuzz::Check(fuzz::Pixels(target) == before, "a refusal wrote pixels");
        return;
    }
    if (!compensated)
        fuzz::Check(fuzz::Pixels(target) == before, "no compensation, yet pixels changed");
}

void Equalize(kiu::Image& image) {
    const std::vector<unsigned char> before = fuzz::Pixels(image);
    try {
        image.EqualizeHistogram();
    } catch (const kau::Error&) {
        fuzz::Check(fuzz::Pixels(image) == before, "a refusal wrote pixels");
        return;
    }
    const size_t step = image.format == kiu::YUV ? 3 : 1;
    int mapping[256];
    std::fill(mapping, mapping + 256, -1);
    for (uint32_t y = 0; y < image.height; ++y)
        for (uint32_t x = 0; x < image.width; ++x) {
            const size_t at = size_t{y} * image.stride + x * step;
            const unsigned char old = before[at], now = image.data[at];
            fuzz::Check(mapping[old] == -1 || mapping[old] == now, "one value mapped two ways");
            mapping[old] = now;
            if (step == 3)
                fuzz::Check(
                    before[at + 1] == image.data[at + 1] && before[at + 2] == image.data[at + 2],
                    "equalisation changed chroma");
        }
    fuzz::Check(mapping[0] <= 0, "0 did not stay 0");
    int last = 0;
    for (int v = 0; v < 256; ++v)
        if (mapping[v] >= 0) {
            fuzz::Check(mapping[v] >= last, "equalisation changed the order of values");
            last = mapping[v];
        }
}

int64_t Clamp(int64_t v, uint32_t limit) {
    return v < 0 ? 0 : v >= limit ? (limit ? limit - 1 : 0) : v;
}

void Box(FuzzedDataProvider& in, kiu::Image& image) {
    xy::Box box{in.ConsumeIntegral<int32_t>(), in.ConsumeIntegral<int32_t>(),
                in.ConsumeIntegral<int32_t>(), in.ConsumeIntegral<int32_t>()};
    if (in.ConsumeBool()) {
        box.x = in.ConsumeIntegralInRange<int32_t>(-80, 80);
        box.y = in.ConsumeIntegralInRange<int32_t>(-80, 80);
        box.width = in.ConsumeIntegralInRange<int32_t>(-80, 80);
        box.height = in.ConsumeIntegralInRange<int32_t>(-80, 80);
    }
    unsigned char colour[3];
    fuzz::Fill(colour, 3, in);
    const std::vector<unsigned char> before = fuzz::Pixels(image);
    try {
        image.DrawBox(box, colour);
    } catch (const kau::Error&) {
        fuzz::Check(fuzz::Pixels(image) == before, "a refused box wrote pixels");
        return;
    }
    const int64_t x0 = Clamp(box.x, image.width),
                  x1 = Clamp(int64_t{box.x} + box.width, image.width);
    const int64_t y0 = Clamp(box.y, image.height),
                  y1 = Clamp(int64_t{box.y} + box.height, image.height);
    const size_t pixelBytes = kiu::BytesPerPixel(image.format);
    for (uint32_t y = 0; y < image.height; ++y)
        for (uint32_t x = 0; x < image.width; ++x) {
            const bool inside = x >= std::min(x0, x1) && x <= std::max(x0, x1) &&
                                y >= std::min(y0, y1) && y <= std::max(y0, y1);
            const size_t at = size_t{y} * image.stride + x * pixelBytes;
            if (!inside)
                fuzz::Check(memcmp(&before[at], image.data + at, pixelBytes) == 0,
                            "box drawn outside its clamped rectangle");
        }
}

void ColourSpaceName(FuzzedDataProvider& in) {
    // The lookup may read five bytes whatever the name's length.
    char name[6] = {};
    for (int i = 0; i < 5; ++i)
        name[i] = in.ConsumeIntegral<char>();
    try {
        kiu::ColorSpaceFrom(name);
    } catch (const kau::Error&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    const int operation = in.ConsumeIntegralInRange(0, 3);
    if (operation == 3) return ColourSpaceName(in), 0;
    const kiu::Format format = fuzz::PickFormat(in);
    const uint32_t width = in.ConsumeIntegralInRange(0, 64);
    const uint32_t height = in.ConsumeIntegralInRange(0, 64);
    kau::mem::Heap heap;
    kiu::Image image;
    if (!fuzz::MakeImage(image, width, height, format, heap, in)) return 0;
    if (operation == 0) {
        kiu::Image target;
        const bool same = in.ConsumeBool();
        const kiu::Format targetFormat = same ? format : fuzz::PickFormat(in);
        const uint32_t targetWidth = same ? width : in.ConsumeIntegralInRange(0, 64);
        const uint32_t targetHeight = same ? height : in.ConsumeIntegralInRange(0, 64);
        if (!fuzz::MakeImage(target, targetWidth, targetHeight, targetFormat, heap, in)) return 0;
        Lighting(in, image, target);
    } else if (operation == 1) {
        Equalize(image);
    } else {
        Box(in, image);
    }
    return 0;
}
