// Image utilities of the media service: a plain image object over a closed set of pixel
// formats, fixed-point colour conversion of pixel rows, B-spline scaling, rotation, lighting
// compensation, histogram equalisation and box drawing.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kau.h"

namespace xy {

// A rectangle; where boxes are drawn, the right column x + width and the bottom row
// y + height belong to it.
struct Box {
    int32_t x;
    int32_t y;
    int32_t width;
    int32_t height;
};

}  // namespace xy

namespace kiu {

// Module text carried by every error raised in this header or in the kiu sources.
inline constexpr const char kKiuFile[] =
    "middleware/multimedia-framework/media-service/common/kiu/kiu";

// Error positions of the image utilities (all in kKiuFile).
inline constexpr int kErrColorSpaceNull = 9;
inline constexpr int kErrColorSpaceTooLong = 11;
inline constexpr int kErrColorSpaceUnknown3 = 26;
inline constexpr int kErrColorSpaceUnknown4 = 64;
inline constexpr int kErrBoxLightingNoData = 72;
inline constexpr int kErrBoxLightingSize = 73;
inline constexpr int kErrBoxLightingFormat = 74;
inline constexpr int kErrLightingNoData = 110;
inline constexpr int kErrLightingSize = 111;
inline constexpr int kErrLightingFormat = 112;
inline constexpr int kErrCopyNoData = 315;
inline constexpr int kErrCopySize = 316;
inline constexpr int kErrCopyFormat = 317;
inline constexpr int kErrCreateHeapAndBuffer = 332;
inline constexpr int kErrDrawBoxFormat = 340;
inline constexpr int kErrEqualizeNoData = 374;
inline constexpr int kErrEqualizeFormat = 375;
inline constexpr int kErrBytesPerPixel = 390;
inline constexpr int kErrRotateRequest = 400;
inline constexpr int kErrRotateFormatMismatch = 401;
inline constexpr int kErrRotateStride = 404;
inline constexpr int kErrRotateFormat = 418;
inline constexpr int kErrRotate24Size90 = 429;
inline constexpr int kErrOutsideImage = 433;
inline constexpr int kErrRotate24Size180 = 442;
inline constexpr int kErrRotate24Size270 = 451;
inline constexpr int kErrRotate32Size90 = 473;
inline constexpr int kErrRotate32Size180 = 486;
inline constexpr int kErrRotate32Size270 = 495;
inline constexpr int kCatchScaleComponent = 1412;
inline constexpr int kErrScaleRGBOutput = 1465;
inline constexpr int kCatchScaleImageRGB = 1556;
inline constexpr int kErrScale24bppOutput = 1609;
inline constexpr int kCatchScaleImage24bpp = 1700;
// Whole-image conversion: an image without pixels, a pair of formats it does not convert,
// images of different sizes.
inline constexpr int kErrConvertNoData = 2001;
inline constexpr int kErrConvertPair = 2002;
inline constexpr int kErrConvertSize = 2003;
// Scaling from a source without pixels (null, or a width or height of 0) to a non-empty size.
inline constexpr int kErrScaleNoSource = 2011;
// A rotation worker given an image without pixels or whose rows cannot hold its pixel size.
inline constexpr int kErrRotateLayout = 2021;

// Pixel formats. Values 17-21 and 32-55 name orders of YUV bytes (see ColorSpaceFrom); they
// have no enumerator because no image can be made of them.
enum Format : uint32_t {
    Gray8 = 1,
    Packed16A = 2,
    Packed16B = 3,
    Packed32A = 4,
    Packed32B = 5,
    Packed64 = 6,
    ABGR = 8,
    ARGB = 9,
    BGR = 10,
    BGRA = 11,
    RGB = 12,
    RGBA = 13,
    YUV = 16,
    I420 = 64,
    CMYK = 128,
    YCCK = 256,
};

// Bytes of one pixel of an interleaved format; 0 for planar I420 and the named-only values,
// which have none.
inline uint32_t PixelSizeOrZero(Format format) {
    switch (format) {
        case Gray8:
            return 1;
        case Packed16A:
        case Packed16B:
            return 2;
        case BGR:
        case RGB:
        case YUV:
            return 3;
        case Packed32A:
        case Packed32B:
        case ABGR:
        case ARGB:
        case BGRA:
        case RGBA:
        case CMYK:
        case YCCK:
            return 4;
        case Packed64:
            return 8;
        default:
            return 0;
    }
}

// The same, raising kErrBytesPerPixel for a format without a pixel size.
inline uint32_t BytesPerPixel(Format format) {
    const uint32_t size = PixelSizeOrZero(format);
    if (size == 0) kau::Error::Throw(kKiuFile, kErrBytesPerPixel);
    return size;
}

// Plane geometry of an I420 image: the Y plane (the image's stride by lumaRows) is followed
// without a gap by the U plane and the V plane, each chromaStride by chromaRows bytes.
struct PlaneLayout {
    uint32_t lumaRows;
    uint32_t chromaStride;
    uint32_t chromaRows;
};

// Raises the kau rounding-overflow error (with the height as its code for the rows) when a
// dimension cannot be rounded within 32 bits.
PlaneLayout I420Layout(uint32_t width, uint32_t height);

// The format named by a three- or four-letter colour-space name, in either case.
Format ColorSpaceFrom(const char* name);

// A plain image: a format, a size and pixels that it does not own (they belong to the heap
// they came from or to whoever supplied the buffer). Rows are padded to multiples of 4 bytes.
class Image {
  public:
    Format format = Format{};
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t stride = 0;  // bytes from one row to the next; of the Y plane for I420
    unsigned char* data = nullptr;

    // Sets the format, size and stride, then takes pixels from `heap` or uses `buffer`
    // (possibly null); giving both is an error.
    void Create(unsigned long newWidth, unsigned long newHeight, Format newFormat,
                kau::mem::Heap* heap, unsigned char* buffer);
    // Bytes of pixel data; raises the kau rounding-overflow error when it passes 32 bits.
    uint32_t ImageDataSize() const;
    void CopyDataTo(Image& target) const;
    // Converts into an image of the same size between RGBA, BGRA, ARGB, ABGR, RGB, BGR,
    // Gray8, YUV and I420. Alpha is 255 where the source has none; gray from colour is its
    // luminance (YUV and I420 give their Y as it is); each I420 chroma sample is the mean of
    // its 2x2 block.
    void ConvertTo(Image& target) const;

    // Rotates clockwise by 90, 180 or 270 degrees into a target created with the right size.
    void Rotate(Image& target, unsigned int angle) const;
    // The workers: copy 4 or 3 bytes a pixel. Other angles write nothing. A quarter turn
    // lands every pixel after the first target row one position early and never copies the
    // top-left source pixel.
    void Rotate32bpp(Image& target, unsigned int angle) const;
    void Rotate24bpp(Image& target, unsigned int angle) const;

    // Stretches each channel of a BGR image so that its bright pixels (luminance above
    // `threshold`) become white; false, with `target` untouched, when there are fewer than 100.
    bool CompensateLighting(Image& target, unsigned int threshold) const;
    // The same, with statistics and output limited to the pixels of `box`.
    bool CompensateLighting(const xy::Box& box, Image& target, unsigned int threshold) const;
    // Equalises the luminance of a Gray8 or YUV image in place; 0 stays 0.
    void EqualizeHistogram();
    // Draws the clipped one-pixel outline of `box` into a 3-byte image, the colour bytes
    // reversed into each pixel.
    void DrawBox(xy::Box& box, const unsigned char* colour);

    // Byte offset of the pixel in column x, row y of an interleaved image, or the
    // outside-image error when the pixel is not in the image.
    size_t PixelOffset(int64_t x, int64_t y, uint32_t bytesPerPixel) const {
        if (x < 0 || y < 0 || x >= width || y >= height)
            kau::Error::Throw(kKiuFile, kErrOutsideImage);
        return static_cast<size_t>(y) * stride + static_cast<size_t>(x) * bytesPerPixel;
    }
};

// Load-time conversion tables, complete before any code runs.

// YCbCr to RGB terms indexed by a chroma byte c, with x = c - 128: to R and to B rounded to
// integers, the two terms of G kept scaled by 65536 (the rounding half is in the Cb term).
struct YccTables {
    struct CrTerms {
        int32_t toR;
        int32_t toG;
    };
    struct CbTerms {
        int32_t toB;
        int32_t toG;
    };
    CrTerms cr[256];
    CbTerms cb[256];
};

// RGB to YCbCr products scaled by 65536, indexed by a colour byte, with the rounding
// offsets built in; sums of three entries are taken modulo 2^32 and shifted right by 16.
// bToCb doubles as the red term of Cr.
struct RgbToYccTable {
    uint32_t rToY[256];
    uint32_t gToY[256];
    uint32_t bToY[256];
    uint32_t rToCb[256];
    uint32_t gToCb[256];
    uint32_t bToCb[256];
    uint32_t gToCr[256];
    uint32_t bToCr[256];
};

extern const YccTables yccTables;
extern const RgbToYccTable rgbToYccTable;

// Clamping table: indexed with v in -256..1151 it gives 0 below 0, v in 0..255 and 255 in
// 256..639 (a luminance plus a chroma term always lies in -256..639). ubyteRangeLimit[1152],
// the byte just behind the table, is 1 once the tables are complete.
extern const unsigned char* const ubyteRangeLimit;

// Pixel conversions. Planar inputs are arrays of row pointers per component (Y, U, V, K;
// R, G, B; or C, M, Y, K); routines with a `row` read row `row` of each, the others row 0.
// Four-byte outputs without an `alpha` argument never write their fourth byte.
void ConvertRGBtoY(unsigned char r, unsigned char g, unsigned char b, unsigned char& y);
void ConvertRGBtoYUV(unsigned char r, unsigned char g, unsigned char b, unsigned char& y,
                     unsigned char& u, unsigned char& v);
// Input R, G, B and an ignored byte per pixel; output Y, U, V.
void ConvertRGBtoYUV(unsigned long count, const unsigned char* in, unsigned char* out);
void ConvertGrayToYUV(unsigned long count, unsigned char*** planes, unsigned long row,
                      unsigned char* out);
void ConvertYUVtoYUV(unsigned long count, unsigned char*** planes, unsigned long row,
                     unsigned char* out);
// Chroma halved horizontally: pixel i takes chroma sample i / 2.
void ConvertYUV211toYUV(unsigned long count, unsigned char*** planes, unsigned long row,
                        unsigned char* out);
void ConvertYUV420toYUV(unsigned long count, unsigned char*** planes, unsigned long row,
                        unsigned char* out);
// Luma rows `row` and `row` + 1 over chroma row `row`; the second output row starts at
// out + 3 * count.
void ConvertYUV420toYUV2(unsigned long count, unsigned char*** planes, unsigned long row,
                         unsigned char* out);
// Cuts the product (255 - c) * (255 - k) to its low byte before dividing by 255, which turns
// nearly every pixel black.
void ConvertCMYKtoRGB(unsigned long count, unsigned char*** planes, unsigned long row,
                      unsigned char* out);
// The inverted YCbCr colour scaled by k as stored (not inverted).
void ConvertYCCKtoRGB(unsigned long count, unsigned char*** planes, unsigned long row,
                      unsigned char* out);
void ConvertYUVtoRGB(unsigned long count, unsigned char*** planes, unsigned long row,
                     unsigned char* out);
// Input Y, U, V per pixel.
void ConvertYUVtoRGB(unsigned long count, const unsigned char* in, unsigned char* out);
void ConvertRGBtoRGB(unsigned long count, unsigned char*** planes, unsigned long row,
                     unsigned char* out);
void ConvertGrayToRGB(unsigned long count, unsigned char*** planes, unsigned long row,
                      unsigned char* out);
void ConvertYUV111toRGBA(unsigned long count, unsigned char*** planes, unsigned char alpha,
                         unsigned char* out);
void ConvertYUV211toRGBA(unsigned long count, unsigned char*** planes, unsigned char alpha,
                         unsigned char* out);
void ConvertYUV420toRGBA(unsigned long count, unsigned char*** planes, unsigned char alpha,
                         unsigned char* out);
// Luma rows 0 and 1 over chroma row 0; the second output row starts at out + 4 * count.
void ConvertYUV420toRGBA2(unsigned long count, unsigned char*** planes, unsigned char alpha,
                          unsigned char* out);

// Scaling with a quadratic B-spline over packed rows (no padding). Working memory comes from
// `heap` and stays there.
// One 8-bit plane into a new dstWidth x dstHeight buffer from `heap`, stored in `data` and
// returned; the old buffer is kept. Null, with `data` null, when the output cannot be had.
unsigned char* ScaleComponent(unsigned char*& data, unsigned long srcWidth, unsigned long srcHeight,
                              unsigned long dstWidth, unsigned long dstHeight,
                              kau::mem::Heap& heap);
// Four-byte pixels (bytes 0-2 filtered, byte 3 of the output never written) and three-byte
// pixels. The output comes from kau::mem::New; on success the old `data`, which must come
// from there too, is deleted and `data`, `width` and `height` describe the new image.
void ScaleImageRGB(unsigned char*& data, unsigned long& width, unsigned long& height,
                   unsigned long newWidth, unsigned long newHeight, kau::mem::Heap& heap);
void ScaleImage24bpp(unsigned char*& data, unsigned long& width, unsigned long& height,
                     unsigned long newWidth, unsigned long newHeight, kau::mem::Heap& heap);

}  // namespace kiu
