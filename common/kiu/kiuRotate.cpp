// Rotation by quarter, half and three-quarter turns clockwise.
#include "kiu.h"

namespace kiu {
namespace {

// Size-check positions of one worker, per angle.
struct RotationErrors {
    int quarter;
    int half;
    int threeQuarters;
};

constexpr RotationErrors k32bppErrors{kErrRotate32Size90, kErrRotate32Size180, kErrRotate32Size270};
constexpr RotationErrors k24bppErrors{kErrRotate24Size90, kErrRotate24Size180, kErrRotate24Size270};

void RequireSize(const Image& target, uint32_t width, uint32_t height, int error) {
    if (target.width != width || target.height != height) kau::Error::Throw(kKiuFile, error);
}

// The workers copy a fixed pixel size whatever the formats say, so both images must have
// pixels and rows that hold `width` pixels of that size.
void RequireLayout(const Image& image, uint32_t pixelBytes) {
    if (!image.data || uint64_t{image.width} * pixelBytes > image.stride)
        kau::Error::Throw(kKiuFile, kErrRotateLayout);
}

void CopyPixel(unsigned char* out, const unsigned char* in, uint32_t pixelBytes) {
    for (uint32_t i = 0; i < pixelBytes; ++i)
        out[i] = in[i];
}

size_t OffsetOf(const Image& image, uint32_t x, uint32_t y, uint32_t pixelBytes) {
    return size_t{y} * image.stride + size_t{x} * pixelBytes;
}

// T[H-1-y][W-1-x] = S[y][x].
void HalfTurn(const Image& source, Image& target, uint32_t p) {
    uint32_t w = source.width, h = source.height;
    for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x)
            CopyPixel(target.data + OffsetOf(target, w - 1 - x, h - 1 - y, p),
                      source.data + OffsetOf(source, x, y, p), p);
}

// Anticlockwise quarter turn: T[W-1-x][y] = S[y][x].
void ThreeQuarterTurn(const Image& source, Image& target, uint32_t p) {
    uint32_t w = source.width, h = source.height;
    for (uint32_t x = 0; x < w; ++x)
        for (uint32_t y = 0; y < h; ++y)
            CopyPixel(target.data + OffsetOf(target, y, w - 1 - x, p),
                      source.data + OffsetOf(source, x, y, p), p);
}

// Each source column, read from the bottom up, becomes a target row through one running
// output position that skips the row padding after each column. The walk up a column ends
// once the read position is no longer past the start of the data, so the top-left source
// pixel is never copied and every row after the first lands one pixel early; the last
// target pixel stays as it was.
void QuarterTurn(const Image& source, Image& target, uint32_t p) {
    uint32_t w = source.width, h = source.height;
    size_t padding = target.stride - size_t{h} * p;
    size_t out = 0;
    for (uint32_t x = 0; x < w; ++x) {
        for (uint32_t y = h; y-- > 0;) {
            size_t in = OffsetOf(source, x, y, p);
            if (in == 0) break;
            CopyPixel(target.data + out, source.data + in, p);
            out += p;
        }
        out += padding;
    }
}

void RotatePixels(const Image& source, Image& target, unsigned int angle, uint32_t p,
                  const RotationErrors& errors) {
    // Formats without a pixel size and sizes past 32 bits are refused, although the copy
    // itself only knows p.
    BytesPerPixel(source.format);
    BytesPerPixel(target.format);
    source.ImageDataSize();
    void (*turn)(const Image&, Image&, uint32_t);
    switch (angle) {
        case 90:
            RequireSize(target, source.height, source.width, errors.quarter);
            turn = QuarterTurn;
            break;
        case 180:
            RequireSize(target, source.width, source.height, errors.half);
            turn = HalfTurn;
            break;
        case 270:
            RequireSize(target, source.height, source.width, errors.threeQuarters);
            turn = ThreeQuarterTurn;
            break;
        default:
            return;
    }
    RequireLayout(source, p);
    RequireLayout(target, p);
    turn(source, target, p);
}

// I420 turns through two RGBA images of the source's size (not exchanged, so a quarter turn
// works only for square images).
void RotateThroughRgba(const Image& source, Image& target, unsigned int angle) {
    kau::mem::Heap heap;
    Image unrotated, rotated;
    unrotated.Create(source.width, source.height, RGBA, &heap, nullptr);
    rotated.Create(source.width, source.height, RGBA, &heap, nullptr);
    // The pixel a quarter turn leaves unwritten comes out black rather than arbitrary.
    kau::mem::Zero8(rotated.data, rotated.ImageDataSize());
    source.ConvertTo(unrotated);
    unrotated.Rotate32bpp(rotated, angle);
    rotated.ConvertTo(target);
}

}  // namespace

void Image::Rotate(Image& target, unsigned int angle) const {
    if (!data || width == 0 || height == 0 || !target.data ||
        (angle != 90 && angle != 180 && angle != 270))
        kau::Error::Throw(kKiuFile, kErrRotateRequest);
    if (format != target.format) kau::Error::Throw(kKiuFile, kErrRotateFormatMismatch);
    switch (format) {
        // The three-byte RGB and BGR go to the four-byte worker too, which suits only an
        // image one pixel wide: the row padding then holds the fourth byte. Rows of two or
        // three such pixels are padded to four bytes a pixel as well, yet refused all the same.
        case ABGR:
        case ARGB:
        case BGR:
        case BGRA:
        case RGB:
        case RGBA:
            if (uint64_t{width} * 4 > stride || (BytesPerPixel(format) == 3 && width > 1))
                kau::Error::Throw(kKiuFile, kErrRotateStride);
            return Rotate32bpp(target, angle);
        case I420:
            return RotateThroughRgba(*this, target, angle);
        default:
            kau::Error::Throw(kKiuFile, kErrRotateFormat);
    }
}

void Image::Rotate32bpp(Image& target, unsigned int angle) const {
    RotatePixels(*this, target, angle, 4, k32bppErrors);
}

void Image::Rotate24bpp(Image& target, unsigned int angle) const {
    RotatePixels(*this, target, angle, 3, k24bppErrors);
}

}  // namespace kiu
