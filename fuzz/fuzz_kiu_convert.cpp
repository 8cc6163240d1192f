// Whole-image conversion (Image::ConvertTo, CopyDataTo) between formats on sizes up to 64 x 64,
// and the row conversion routines on rows of up to 300 pixels, each in buffers of exactly the
// size the routine may touch. Between the RGB byte orders a round trip through a format that
// keeps every channel must give the pixels back.
#include "fuzz_kiu.h"

#include <memory>

namespace {

bool IsRgbOrder(kiu::Format f) {
    return f == kiu::RGBA || f == kiu::BGRA || f == kiu::ARGB || f == kiu::ABGR || f == kiu::RGB ||
           f == kiu::BGR;
}

bool Lossless(kiu::Format from, kiu::Format through) {
    return IsRgbOrder(from) && IsRgbOrder(through) &&
           (kiu::BytesPerPixel(through) == 4 || kiu::BytesPerPixel(from) == 3);
}

// The pixel bytes of a row, without its padding.
bool SameRows(const kiu::Image& a, const kiu::Image& b) {
    const size_t rowBytes = size_t{a.width} * kiu::BytesPerPixel(a.format);
    for (uint32_t y = 0; y < a.height; ++y)
        if (memcmp(a.data + size_t{y} * a.stride, b.data + size_t{y} * b.stride, rowBytes) != 0)
            return false;
    return true;
}

void WholeImages(FuzzedDataProvider& in) {
    const kiu::Format from = fuzz::PickFormat(in), through = fuzz::PickFormat(in);
    const uint32_t width = in.ConsumeIntegralInRange(0, 64);
    const uint32_t height = in.ConsumeIntegralInRange(0, 64);
    const bool sameSize = in.ConsumeBool();
    const uint32_t targetWidth = sameSize ? width : in.ConsumeIntegralInRange(0, 64);
    const uint32_t targetHeight = sameSize ? height : in.ConsumeIntegralInRange(0, 64);
    const bool copy = in.ConsumeBool();

    kau::mem::Heap heap;
    kiu::Image source, middle, back;
    if (!fuzz::MakeImage(source, width, height, from, heap, in)) return;
    if (!fuzz::MakeImage(middle, targetWidth, targetHeight, through, heap, in)) return;
    const std::vector<unsigned char> before = fuzz::Pixels(middle);
    try {
        if (copy)
            source.CopyDataTo(middle);
        else
            source.ConvertTo(middle);
    } catch (const kau::Error&) {
        fuzz::Check(fuzz::Pixels(middle) == before, "a refused conversion wrote pixels");
        return;
    }
    if (!Lossless(from, through)) return;
    if (!fuzz::MakeImage(back, width, height, from, heap, in)) return;
    middle.ConvertTo(back);
    fuzz::Check(SameRows(source, back), "round trip through a lossless format changed pixels");
}

// A buffer of exactly n bytes filled from the input, so that any overrun is caught.
std::unique_ptr<unsigned char[]> Buffer(size_t n, FuzzedDataProvider& in) {
    std::unique_ptr<unsigned char[]> buffer(new unsigned char[n ? n : 1]);
    fuzz::Fill(buffer.get(), n, in);
    return buffer;
}

// Row-pointer arrays for four components, each `rows` rows of `width` bytes.
class Planes {
  public:
    Planes(size_t rows, size_t lumaWidth, size_t chromaWidth, FuzzedDataProvider& in) {
        for (int c = 0; c < 4; ++c) {
            rows_[c].resize(rows);
            for (size_t r = 0; r < rows; ++r) {
                storage_.push_back(Buffer(c == 0 || c == 3 ? lumaWidth : chromaWidth, in));
                rows_[c][r] = storage_.back().get();
            }
            pointers_[c] = rows_[c].data();
        }
    }
    unsigned char*** Get() { return pointers_; }

  private:
    std::vector<std::unique_ptr<unsigned char[]>> storage_;
    std::vector<unsigned char*> rows_[4];
    unsigned char** pointers_[4];
};

// Output bytes per pixel of each row routine below, by its number.
constexpr size_t kOutputBytes[16] = {3, 3, 3, 3, 3, 6, 4, 4, 4, 4, 4, 4, 4, 4, 4, 8};

void Rows(FuzzedDataProvider& in) {
    const int routine = in.ConsumeIntegralInRange(0, 15);
    const size_t count = in.ConsumeIntegralInRange(0, 300);
    const size_t row = in.ConsumeIntegralInRange(0, 3);
    const unsigned char alpha = in.ConsumeIntegral<unsigned char>();
    const bool halved = (routine >= 3 && routine <= 5) || routine >= 13;
    // Luma row `row` + 1 exists for the two-row routines.
    Planes planes(row + 2, count, halved ? (count + 1) / 2 : count, in);
    auto out = Buffer(kOutputBytes[routine] * count, in);
    unsigned char*** p = planes.Get();
    switch (routine) {
        case 0: {
            auto rgbx = Buffer(4 * count, in);
            return kiu::ConvertRGBtoYUV(count, rgbx.get(), out.get());
        }
        case 1:
            return kiu::ConvertGrayToYUV(count, p, row, out.get());
        case 2:
            return kiu::ConvertYUVtoYUV(count, p, row, out.get());
        case 3:
            return kiu::ConvertYUV211toYUV(count, p, row, out.get());
        case 4:
            return kiu::ConvertYUV420toYUV(count, p, row, out.get());
        case 5:
            return kiu::ConvertYUV420toYUV2(count, p, row, out.get());
        case 6:
            return kiu::ConvertCMYKtoRGB(count, p, row, out.get());
        case 7:
            return kiu::ConvertYCCKtoRGB(count, p, row, out.get());
        case 8:
            return kiu::ConvertYUVtoRGB(count, p, row, out.get());
        case 9: {
            auto yuv = Buffer(3 * count, in);
            return kiu::ConvertYUVtoRGB(count, yuv.get(), out.get());
        }
        case 10:
            return kiu::ConvertRGBtoRGB(count, p, row, out.get());
        case 11:
            return kiu::ConvertGrayToRGB(count, p, row, out.get());
        case 12:
            return kiu::ConvertYUV111toRGBA(count, p, alpha, out.get());
        case 13:
            return kiu::ConvertYUV211toRGBA(count, p, alpha, out.get());
        case 14:
            return kiu::ConvertYUV420toRGBA(count, p, alpha, out.get());
        default:
            return kiu::ConvertYUV420toRGBA2(count, p, alpha, out.get());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider in(data, size);
    if (in.ConsumeBool())
        WholeImages(in);
    else
        Rows(in);
    return 0;
}
