// The decoder's rows: the buffers they pass through, Adam7's passes, and the routines that
// unfilter and expand them, chosen once per image.
#include <cstring>
#include <new>

#include "formatRoutines.h"
#include "kauCpu.h"
#include "kpng.h"
#include "rowRoutines.h"

namespace kpng {
namespace {

[[noreturn]] void Fail(int position) {
    kau::Error::Throw(kKpngFile, position);
}

// Adam7: column increment, first column, first row, row increment and the narrowest image
// that has a column in the pass.
struct Pass {
    uint32_t columnIncrement, firstColumn, firstRow, rowIncrement, minimumWidth;
};
constexpr Pass kPasses[7] = {{8, 0, 0, 8, 1}, {8, 4, 0, 8, 5}, {4, 0, 4, 8, 1}, {4, 2, 0, 4, 3},
                             {2, 0, 2, 4, 1}, {2, 1, 0, 2, 2}, {1, 0, 1, 2, 1}};

// Products of image sizes in 32 bits; false when the result would wrap.
bool Multiply32(uint32_t a, uint32_t b, uint32_t& product) {
    uint64_t wide = uint64_t{a} * b;
    product = uint32_t(wide);
    return wide <= UINT32_MAX;
}

uint32_t Pixel(uint8_t r, uint8_t g, uint8_t b, uint8_t a) {
    const unsigned char bytes[4] = {r, g, b, a};
    uint32_t pixel;
    memcpy(&pixel, bytes, 4);
    return pixel;
}

}  // namespace

void UseVectorRowPaths(bool enabled) {
    kau::cpu::UseVectorPaths(enabled);
}

// The pixels of palette indices and of grey samples up to 8 bits, and the image's routines.
// Palette entries beyond the PLTE count are black; a grey sample is transparent when it equals
// the key scaled the same way, kept to 16 bits, so that a key beyond the depth's range never
// matches. Palette pixels of a 4-byte output format are held in that format, so that they need
// no writing afterwards.
void Decoder::PrepareRows() {
    const bool paletteInOutputFormat = colourType == 3 && BytesPerPixel(outputFormat) == 4;
    if (colourType == 3) {
        for (unsigned i = 0; i < 256; ++i) {
            uint8_t alpha = int(i) < trnsCount ? paletteAlpha[i] : defaultAlpha;
            const unsigned char rgba[4] = {palette[3 * i], palette[3 * i + 1], palette[3 * i + 2],
                                           alpha};
            pixelTable[i] = FormatPixel(paletteInOutputFormat ? outputFormat : OutputFormat::kRgba,
                                        rgba);
        }
    } else if (colourType == 0 && bitDepth <= 8) {
        const unsigned scale = 255 / ((1u << bitDepth) - 1);
        const uint16_t scaledKey = uint16_t(keyGrey * scale);
        for (unsigned v = 0; v < (1u << bitDepth); ++v) {
            uint8_t grey = uint8_t(v * scale);
            bool transparent = trnsCount != 0 && scaledKey == grey;
            pixelTable[v] = Pixel(grey, grey, grey, transparent ? 0 : 255);
        }
    }
    const RowFormat format = {colourType, bitDepth, uint8_t(bytesPerPixel),
                              trnsCount != 0 && colourType != 3};
    const PixelKeys keys = {pixelTable, keyGrey, {keyColour[0], keyColour[1], keyColour[2]}};
    rowRoutines =
        new (heap.Allocate(sizeof(RowRoutines))) RowRoutines(ChooseRowRoutines(format, keys));
    rowRoutines->write = paletteInOutputFormat ? nullptr : ChooseFormatRoutine(outputFormat);
}

void Decoder::SetRowGeometry(uint32_t pixels) {
    pixelsPerRow = pixels;
    bytesPerRow = bitsPerPixel < 8 ? (pixels * bitsPerPixel + 7) / 8 : bitsPerPixel / 8 * pixels;
}

// Bytes of image data the rows take, filter bytes included.
uint64_t Decoder::ImageDataSize() {
    const uint32_t pixels = pixelsPerRow;
    uint64_t size = 0;
    if (!interlaceMethod) {
        SetRowGeometry(width);
        size = uint64_t{height} * (uint64_t{bytesPerRow} + 1);
    } else {
        for (const Pass& pass : kPasses) {
            if (width < pass.minimumWidth || height <= pass.firstRow) continue;
            SetRowGeometry((width - 1 + pass.columnIncrement - pass.firstColumn) /
                           pass.columnIncrement);
            const uint32_t rows = (height - 1 - pass.firstRow) / pass.rowIncrement + 1;
            size += uint64_t{rows} * (uint64_t{bytesPerRow} + 1);
        }
    }
    SetRowGeometry(pixels);
    return size;
}

// Where the output rows go: the caller's rows, or memory of the decoder's own of `size` bytes.
unsigned char* Decoder::TakeOutputRows(uint32_t size, int failure) {
    if (destination) return destination;
    unsigned char* output = static_cast<unsigned char*>(kau::mem::New(size));
    if (!output) Fail(failure);
    return output;
}

// No buffer is cleared beforehand: every byte is written before it is read, and the first row
// of an image or pass takes the routines that do not read the prior row. So memory is touched
// only as rows arrive. 8-bit RGBA rows kept as RGBA are unfiltered straight into the output
// rows, each the next one's prior row; other rows are unfiltered into the decoder's two rows,
// then expanded or written into output rows of 4-byte pixels, or through a row of the decoder's
// into narrower ones.
void Decoder::DecodeRows(unsigned char*& output) {
    SetRowGeometry(width);
    const uint32_t pixelBytes = BytesPerPixel(outputFormat);
    const uint32_t stride = destination ? destinationStride : width * pixelBytes;
    uint32_t size;
    if (!Multiply32(height, stride, size)) Fail(kErrOutputAllocate);
    output = TakeOutputRows(size, kErrOutputAllocate);
    const RowRoutines& routines = *rowRoutines;
    const bool inPlace = pixelBytes == 4;
    const bool unfilterIntoOutput = inPlace && !routines.expand && !routines.write;
    AllocateRows(bytesPerRow, inPlace ? 0 : width * 4, !unfilterIntoOutput);
    const unsigned char* prior = nullptr;
    for (uint32_t y = 0; y < height; ++y) {
        unsigned char* outputRow = output + size_t{y} * stride;
        unsigned char* row = unfilterIntoOutput ? outputRow : unfilteredRows[y & 1];
        const unsigned char* pixels = ReadRow(prior, row, inPlace ? outputRow : pixelRow);
        prior = row;
        if (routines.write) routines.write(pixels, outputRow, width);
    }
}

// Each pass row is unfiltered, expanded and written in the output format in the decoder's rows,
// then its pixels are placed in the output rows.
void Decoder::DecodeInterlacedRows(unsigned char*& output) {
    const uint32_t pixelBytes = BytesPerPixel(outputFormat);
    const uint32_t stride = destination ? destinationStride : width * pixelBytes;
    uint32_t size;
    if (!Multiply32(height, stride, size)) Fail(kErrInterlacedOutputAllocate);
    output = TakeOutputRows(size, kErrInterlacedOutputAllocate);
    const uint32_t roundedWidth = kau::RoundUp(width, 8);
    const uint32_t longestRow =
        bitsPerPixel >= 8 ? bitsPerPixel / 8 * roundedWidth : bitsPerPixel * roundedWidth / 8;
    AllocateRows(longestRow, 4 * roundedWidth, true);
    const auto write = rowRoutines->write;
    for (int p = 0; p < 7; ++p) {
        const Pass& pass = kPasses[p];
        SetRowGeometry((width - 1 + pass.columnIncrement - pass.firstColumn) /
                       pass.columnIncrement);
        if (width < pass.minimumWidth) continue;
        const unsigned char* prior = nullptr;
        for (uint32_t y = pass.firstRow; y < height; y += pass.rowIncrement) {
            unsigned char* outputRow = output + size_t{y} * stride;
            unsigned char* row = unfilteredRows[y / pass.rowIncrement & 1];
            const unsigned char* pixels = ReadRow(prior, row, pixelRow);
            prior = row;
            if (write) {
                write(pixels, pixelRow, pixelsPerRow);
                pixels = pixelRow;
            }
            if (p == 6)
                kau::mem::Copy8(outputRow, pixels, width * pixelBytes);
            else
                PlacePassPixels(outputRow, p, pixelBytes, pixels);
        }
    }
}

// The decoder's rows: the filtered row put together, the two unfiltered rows when they are
// wanted, and the row of output pixels when it has a size.
void Decoder::AllocateRows(uint32_t rowBytes, uint32_t pixelBytes, bool unfilteredToo) {
    rawRow = static_cast<unsigned char*>(heap.Allocate(rowBytes));
    if (unfilteredToo) {
        for (unsigned char*& row : unfilteredRows)
            row = static_cast<unsigned char*>(heap.Allocate(rowBytes));
    }
    if (pixelBytes) pixelRow = static_cast<unsigned char*>(heap.Allocate(pixelBytes));
}

void Decoder::PlacePassPixels(unsigned char* outputRow, int pass, uint32_t pixelBytes,
                              const unsigned char* source) {
    const uint32_t increment = kPasses[pass].columnIncrement;
    for (uint32_t x = kPasses[pass].firstColumn; x < width; x += increment, source += pixelBytes)
        memcpy(outputRow + size_t{x} * pixelBytes, source, pixelBytes);
}

// Inflates, unfilters and expands the next row. Its filtered bytes and `prior`, the row before
// it unfiltered (null for the first row of an image or pass), give the unfiltered row in `row`;
// its pixels as 8-bit RGBA are that row, or its expansion into `expanded`, which is returned.
// Filter types 5 to 255 are taken as None.
const unsigned char* Decoder::ReadRow(const unsigned char* prior, unsigned char* row,
                                      unsigned char* expanded) {
    unsigned char filterType = 0;
    InflateInto(&filterType, 1);
    const unsigned char* raw = InflateRow(rawRow, bytesPerRow);
    const RowRoutines& routines = *rowRoutines;
    const unsigned type = filterType < kFilterTypes ? filterType : unsigned{kFilterNone};
    // The first row's routines do not read the prior row.
    if (prior)
        routines.unfilter[type](raw, prior, row, bytesPerRow);
    else
        routines.unfilterFirst[type](raw, raw, row, bytesPerRow);
    if (!routines.expand) return row;
    routines.expand(row, expanded, pixelsPerRow, routines.keys);
    return expanded;
}

}  // namespace kpng
