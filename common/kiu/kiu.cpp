// The image object, its formats and sizes, colour-space names, the conversion tables and box
// drawing.
#include "kiu.h"

namespace kiu {
namespace {

// The tables are built by the compiler, so they are complete before any initialiser of any
// program that links them runs.

constexpr YccTables MakeYccTables() {
    YccTables t{};
    for (int32_t c = 0; c < 256; ++c) {
        int32_t x = c - 128;
        t.cr[c].toR = (91881 * x + 32768) >> 16;
        t.cr[c].toG = -46802 * x;
        t.cb[c].toB = (116130 * x + 32768) >> 16;
        t.cb[c].toG = -22554 * x + 32768;
    }
    return t;
}

constexpr RgbToYccTable MakeRgbToYccTable() {
    RgbToYccTable t{};
    for (uint32_t i = 0; i < 256; ++i) {
        t.rToY[i] = 19595u * i;
        t.gToY[i] = 38470u * i;
        t.bToY[i] = 7471u * i + 32768u;
        t.rToCb[i] = 0u - 11059u * i;
        t.gToCb[i] = 0u - 21709u * i;
        t.bToCb[i] = 32768u * i + 0x807FFFu;
        t.gToCr[i] = 0u - 27439u * i;
        t.bToCr[i] = 0u - 5329u * i;
    }
    return t;
}

constexpr uint32_t kRangeLimitBytes = 1408;

// The clamping table followed by its completion byte.
struct RangeLimitStorage {
    unsigned char bytes[kRangeLimitBytes + 1];
};

constexpr RangeLimitStorage MakeRangeLimit() {
    RangeLimitStorage t{};
    for (uint32_t i = 0; i < 256; ++i)
        t.bytes[256 + i] = static_cast<unsigned char>(i);
    for (uint32_t i = 512; i < 896; ++i)
        t.bytes[i] = 255;
    // Bytes 896..1279 stay 0 and the last 128 bytes repeat 0..127.
    for (uint32_t i = 0; i < 128; ++i)
        t.bytes[1280 + i] = static_cast<unsigned char>(i);
    t.bytes[kRangeLimitBytes] = 1;
    return t;
}

constexpr RangeLimitStorage rangeLimit = MakeRangeLimit();

struct ColorSpaceName {
    char name[5];
    uint32_t value;
};

// Values without an enumerator name orders of YUV bytes: 17-21 the three-letter ones after
// YUV, 32-55 the four-letter ones with a filler byte z.
constexpr ColorSpaceName kColorSpaceNames[] = {
    {"bgr", BGR},   {"rgb", RGB},   {"yuv", YUV},   {"yvu", 17},    {"uvy", 18},    {"uyv", 19},
    {"vuy", 20},    {"vyu", 21},    {"abgr", ABGR}, {"argb", ARGB}, {"bgra", BGRA}, {"rgba", RGBA},
    {"yzuv", 32},   {"yzvu", 33},   {"yuvz", 34},   {"yuzv", 35},   {"yvuz", 36},   {"yvzu", 37},
    {"zyuv", 38},   {"zyvu", 39},   {"zuvy", 40},   {"zuyv", 41},   {"zvuy", 42},   {"zvyu", 43},
    {"uyzv", 44},   {"uyvz", 45},   {"uzvy", 46},   {"uzyv", 47},   {"uvzy", 48},   {"uvyz", 49},
    {"vyuz", 50},   {"vyzu", 51},   {"vuzy", 52},   {"vuyz", 53},   {"vzuy", 54},   {"vzyu", 55},
    {"i420", I420}, {"cmyk", CMYK}, {"ycck", YCCK},
};

bool SameName(const char* a, const char* b) {
    while (*a && *a == *b) {
        ++a;
        ++b;
    }
    return *a == *b;
}

// A size past 32 bits fails the way a rounding past 32 bits does.
uint32_t Fit32(uint64_t size) {
    if (size > UINT32_MAX) kau::Error::Throw(kau::kKauFile, kau::kErrRoundUpOverflow);
    return static_cast<uint32_t>(size);
}

// Width times bytes per pixel rounded up to whole words.
uint32_t RowBytes(uint32_t width, uint32_t bytesPerPixel) {
    return kau::RoundUp(Fit32(uint64_t{width} * bytesPerPixel), 4);
}

// Clamps one box coordinate into 0..limit-1 (0 for an empty axis).
int64_t ClampToImage(int64_t v, uint32_t limit) {
    if (v < 0) return 0;
    if (v >= limit) return limit ? limit - 1 : 0;
    return v;
}

// DrawBox draws three-byte pixels only. Format 0 and the formats of another pixel size are
// turned away before the box is looked at; those without a pixel size fail for want of one.
bool RefusedByDrawBox(Format format) {
    const uint32_t size = PixelSizeOrZero(format);
    return format == Format{} || (size != 0 && size != 3);
}

}  // namespace

constexpr YccTables yccTables = MakeYccTables();
constexpr RgbToYccTable rgbToYccTable = MakeRgbToYccTable();
constexpr const unsigned char* ubyteRangeLimit = rangeLimit.bytes + 256;

PlaneLayout I420Layout(uint32_t width, uint32_t height) {
    int heightCode = static_cast<int>(height);
    return PlaneLayout{kau::RoundUp(height, 2, heightCode), kau::RoundUp(width, 8) / 2,
                       kau::RoundUp(height, 2, heightCode) / 2};
}

Format ColorSpaceFrom(const char* name) {
    if (!name) kau::Error::Throw(kKiuFile, kErrColorSpaceNull);
    // Shorter names are looked up as three-letter ones and found in no table.
    uint32_t length = 0;
    while (length < 5 && name[length])
        ++length;
    if (length == 5) kau::Error::Throw(kKiuFile, kErrColorSpaceTooLong);
    char lowered[5] = {};
    for (uint32_t i = 0; i < length; ++i) {
        char c = name[i];
        lowered[i] = (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c;
    }
    for (const ColorSpaceName& entry : kColorSpaceNames)
        if (SameName(entry.name, lowered)) return static_cast<Format>(entry.value);
    kau::Error::Throw(kKiuFile, length == 4 ? kErrColorSpaceUnknown4 : kErrColorSpaceUnknown3);
}

void Image::Create(unsigned long newWidth, unsigned long newHeight, Format newFormat,
                   kau::mem::Heap* heap, unsigned char* buffer) {
    *this = Image{};
    format = newFormat;
    width = static_cast<uint32_t>(newWidth);
    height = static_cast<uint32_t>(newHeight);
    stride = format == I420 ? kau::RoundUp(width, 4) : RowBytes(width, BytesPerPixel(format));
    if (heap && buffer) kau::Error::Throw(kKiuFile, kErrCreateHeapAndBuffer);
    data = heap ? static_cast<unsigned char*>(heap->Allocate(ImageDataSize())) : buffer;
}

uint32_t Image::ImageDataSize() const {
    if (format != I420) return Fit32(uint64_t{stride} * height);
    PlaneLayout planes = I420Layout(width, height);
    uint64_t luma = uint64_t{kau::RoundUp(width, 4)} * planes.lumaRows;
    uint64_t chroma = uint64_t{planes.chromaStride} * planes.chromaRows;
    return Fit32(luma + 2 * chroma);
}

void Image::CopyDataTo(Image& target) const {
    if (!data || !target.data) kau::Error::Throw(kKiuFile, kErrCopyNoData);
    if (width != target.width || height != target.height) kau::Error::Throw(kKiuFile, kErrCopySize);
    if (format != target.format) kau::Error::Throw(kKiuFile, kErrCopyFormat);
    kau::mem::Copy8(target.data, data, ImageDataSize());
}

void Image::DrawBox(xy::Box& box, const unsigned char* colour) {
    if (RefusedByDrawBox(format) || !data) kau::Error::Throw(kKiuFile, kErrDrawBoxFormat);
    int64_t x0 = ClampToImage(box.x, width);
    int64_t y0 = ClampToImage(box.y, height);
    int64_t x1 = ClampToImage(int64_t{box.x} + box.width, width);
    int64_t y1 = ClampToImage(int64_t{box.y} + box.height, height);
    if (y0 >= height || x0 >= width) kau::Error::Throw(kKiuFile, kErrOutsideImage);
    uint32_t bytesPerPixel = BytesPerPixel(format);

    auto plot = [&](int64_t x, int64_t y) {
        unsigned char* p = data + PixelOffset(x, y, bytesPerPixel);
        p[0] = colour[2];
        p[1] = colour[1];
        p[2] = colour[0];
    };
    auto row = [&](int64_t y) {
        for (int64_t x = x0; x <= x1; ++x)
            plot(x, y);
    };
    row(y0);
    for (int64_t y = y0 + 1; y <= y1; ++y) {
        plot(x0, y);
        if (x1 != x0) plot(x1, y);
    }
    // A box that ends above its start draws its bottom edge over the top one.
    row(y1 > y0 ? y1 : y0);
}

}  // namespace kiu
