// Whole-image conversion. Every source row is read into R, G, B, A bytes with the row
// routines and written from there into the target format; I420 targets take two rows at a
// time so that each chroma sample averages its 2x2 block.
#include "kiu.h"

namespace kiu {
namespace {

constexpr uint8_t kNoAlpha = 0xFF;

// Byte positions of R, G, B and alpha within a pixel of the interleaved RGB family.
struct ByteOrder {
    uint8_t r, g, b, a, size;
};

bool OrderOf(Format format, ByteOrder& order) {
    switch (format) {
        case RGBA:
            order = {0, 1, 2, 3, 4};
            return true;
        case BGRA:
            order = {2, 1, 0, 3, 4};
            return true;
        case ARGB:
            order = {1, 2, 3, 0, 4};
            return true;
        case ABGR:
            order = {3, 2, 1, 0, 4};
            return true;
        case RGB:
            order = {0, 1, 2, kNoAlpha, 3};
            return true;
        case BGR:
            order = {2, 1, 0, kNoAlpha, 3};
            return true;
        default:
            return false;
    }
}

bool Converts(Format format) {
    ByteOrder order;
    return OrderOf(format, order) || format == Gray8 || format == YUV || format == I420;
}

// Where the chroma planes of an I420 image start; the Y plane is read and written like the
// rows of any other image.
struct I420Planes {
    unsigned char* u;
    unsigned char* v;
    uint32_t chromaStride;

    explicit I420Planes(const Image& image) {
        PlaneLayout layout = I420Layout(image.width, image.height);
        chromaStride = layout.chromaStride;
        u = image.data + size_t{image.stride} * layout.lumaRows;
        v = u + size_t{chromaStride} * layout.chromaRows;
    }
};

unsigned char* RowOf(const Image& image, uint32_t row) {
    return image.data + size_t{image.stride} * row;
}

void SetOpaque(uint32_t count, unsigned char* rgba) {
    for (uint32_t i = 0; i < count; ++i)
        rgba[4 * i + 3] = 255;
}

// Row `row` of `image` as R, G, B, A.
void ReadRow(const Image& image, uint32_t row, unsigned char* rgba) {
    uint32_t n = image.width;
    ByteOrder order;
    if (OrderOf(image.format, order)) {
        const unsigned char* p = RowOf(image, row);
        for (uint32_t i = 0; i < n; ++i, p += order.size) {
            rgba[4 * i] = p[order.r];
            rgba[4 * i + 1] = p[order.g];
            rgba[4 * i + 2] = p[order.b];
            rgba[4 * i + 3] = order.a == kNoAlpha ? 255 : p[order.a];
        }
        return;
    }
    unsigned char* rows[3] = {RowOf(image, row), nullptr, nullptr};
    unsigned char** planes[3] = {&rows[0], &rows[1], &rows[2]};
    switch (image.format) {
        case Gray8:
            ConvertGrayToRGB(n, planes, 0, rgba);
            SetOpaque(n, rgba);
            break;
        case YUV:
            ConvertYUVtoRGB(n, rows[0], rgba);
            SetOpaque(n, rgba);
            break;
        default: {
            I420Planes source(image);
            rows[1] = source.u + size_t{source.chromaStride} * (row / 2);
            rows[2] = source.v + size_t{source.chromaStride} * (row / 2);
            ConvertYUV420toRGBA(n, planes, 255, rgba);
        }
    }
}

void WriteRow(Image& image, uint32_t row, const unsigned char* rgba) {
    uint32_t n = image.width;
    unsigned char* p = RowOf(image, row);
    ByteOrder order;
    if (OrderOf(image.format, order)) {
        for (uint32_t i = 0; i < n; ++i, p += order.size) {
            p[order.r] = rgba[4 * i];
            p[order.g] = rgba[4 * i + 1];
            p[order.b] = rgba[4 * i + 2];
            if (order.a != kNoAlpha) p[order.a] = rgba[4 * i + 3];
        }
    } else if (image.format == Gray8) {
        for (uint32_t i = 0; i < n; ++i)
            ConvertRGBtoY(rgba[4 * i], rgba[4 * i + 1], rgba[4 * i + 2], p[i]);
    } else {
        ConvertRGBtoYUV(n, rgba, p);
    }
}

// Rows `row` and, when `rows` is 2, `row` + 1 of an I420 image; `row` is even. Each chroma
// sample is the rounded mean of the chroma of the pixels of its block.
void WriteI420Rows(Image& image, uint32_t row, uint32_t rows, const unsigned char* rgba) {
    uint32_t n = image.width;
    I420Planes target(image);
    unsigned char* luma[2] = {RowOf(image, row), rows == 2 ? RowOf(image, row + 1) : nullptr};
    unsigned char* u = target.u + size_t{target.chromaStride} * (row / 2);
    unsigned char* v = target.v + size_t{target.chromaStride} * (row / 2);
    for (uint32_t k = 0; 2 * size_t{k} < n; ++k) {
        uint32_t sumU = 0, sumV = 0, pixels = 0;
        for (uint32_t r = 0; r < rows; ++r) {
            for (uint32_t i = 2 * k; i < n && i < 2 * k + 2; ++i) {
                const unsigned char* px = rgba + 4 * (size_t{r} * n + i);
                unsigned char cb, cr;
                ConvertRGBtoYUV(px[0], px[1], px[2], luma[r][i], cb, cr);
                sumU += cb;
                sumV += cr;
                ++pixels;
            }
        }
        u[k] = static_cast<unsigned char>((sumU + pixels / 2) / pixels);
        v[k] = static_cast<unsigned char>((sumV + pixels / 2) / pixels);
    }
}

// Gray from YUV or I420 keeps the luma as it is.
void CopyLuma(const Image& source, Image& target) {
    for (uint32_t row = 0; row < source.height; ++row) {
        const unsigned char* in = RowOf(source, row);
        unsigned char* out = RowOf(target, row);
        if (source.format == I420) {
            kau::mem::Copy8(out, in, source.width);
        } else {
            for (uint32_t i = 0; i < source.width; ++i)
                out[i] = in[3 * i];
        }
    }
}

// Room for `rows` rows of R, G, B, A; a size past 32 bits fails as the allocation would.
unsigned char* AllocateRgbaRows(kau::mem::Heap& heap, uint32_t width, uint32_t rows) {
    uint64_t bytes = uint64_t{width} * 4 * rows;
    if (bytes > UINT32_MAX) kau::Error::Throw(kau::kKauFile, kau::kErrHeapAllocate);
    return static_cast<unsigned char*>(heap.Allocate(static_cast<uint32_t>(bytes)));
}

}  // namespace

void Image::ConvertTo(Image& target) const {
    if (!data || !target.data) kau::Error::Throw(kKiuFile, kErrConvertNoData);
    if (!Converts(format) || !Converts(target.format)) kau::Error::Throw(kKiuFile, kErrConvertPair);
    if (width != target.width || height != target.height)
        kau::Error::Throw(kKiuFile, kErrConvertSize);
    if (format == target.format) return CopyDataTo(target);
    if (target.format == Gray8 && (format == YUV || format == I420)) return CopyLuma(*this, target);

    uint32_t rowsPerStep = target.format == I420 ? 2 : 1;
    kau::mem::Heap heap;
    unsigned char* rgba = AllocateRgbaRows(heap, width, rowsPerStep);
    for (uint64_t row = 0; row < height; row += rowsPerStep) {
        uint32_t first = static_cast<uint32_t>(row);
        uint32_t rows = height - first < rowsPerStep ? height - first : rowsPerStep;
        for (uint32_t r = 0; r < rows; ++r)
            ReadRow(*this, first + r, rgba + 4 * size_t{width} * r);
        if (target.format == I420) {
            WriteI420Rows(target, first, rows, rgba);
        } else {
            WriteRow(target, first, rgba);
        }
    }
}

}  // namespace kiu
