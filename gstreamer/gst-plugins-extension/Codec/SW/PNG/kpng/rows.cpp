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
// only as rows arrive. Rows of 4-byte pixels are inflated and expanded where they end up,
// unless a caller's row is too short for the filtered row; other rows pass through a row of
// the decoder's.
void Decoder::DecodeRows(unsigned char*& output) {
    SetRowGeometry(width);
    const uint32_t pixelBytes = BytesPerPixel(outputFormat);
    const uint32_t stride = destination ? destinationStride : width * pixelBytes;
    const uint32_t expandedBytes = width * 4;
    uint32_t size;
    if (!Multiply32(height, stride, size)) Fail(kErrOutputAllocate);
    const bool inPlace = pixelBytes == 4 && (!destination || bytesPerRow <= expandedBytes);
    // 16-bit RGB and RGBA rows are longer filtered than expanded: the last one needs room.
    if (inPlace && bytesPerRow > stride) {
        if (bytesPerRow - stride > UINT32_MAX - size) Fail(kErrOutputAllocate);
        size += bytesPerRow - stride;
    }
    output = TakeOutputRows(size, kErrOutputAllocate);
    previousRow = static_cast<unsigned char*>(heap.Allocate(bytesPerRow));
    if (!inPlace)
        currentRow = static_cast<unsigned char*>(
            heap.Allocate(bytesPerRow > expandedBytes ? bytesPerRow : expandedBytes));
    const auto write = rowRoutines->write;
    for (uint32_t y = 0; y < height; ++y) {
        unsigned char* outputRow = output + size_t{y} * stride;
        if (inPlace) currentRow = outputRow;
        ReadRow(y == 0);
        if (write)
            write(currentRow, outputRow, width);
        else if (!inPlace)
            kau::mem::Copy8(outputRow, currentRow, expandedBytes);
    }
}

// Each pass row is expanded and written in the output format in the decoder's row, then its
// pixels are placed in the output rows.
void Decoder::DecodeInterlacedRows(unsigned char*& output) {
    const uint32_t pixelBytes = BytesPerPixel(outputFormat);
    const uint32_t stride = destination ? destinationStride : width * pixelBytes;
    uint32_t size;
    if (!Multiply32(height, stride, size)) Fail(kErrInterlacedOutputAllocate);
    output = TakeOutputRows(size, kErrInterlacedOutputAllocate);
    const uint32_t roundedWidth = kau::RoundUp(width, 8);
    const uint32_t priorBytes =
        bitsPerPixel >= 8 ? bitsPerPixel / 8 * roundedWidth : bitsPerPixel * roundedWidth / 8;
    previousRow = static_cast<unsigned char*>(heap.Allocate(priorBytes));
    const uint32_t rowBytes = (bitsPerPixel > 32 ? bitsPerPixel : 32) / 8 * roundedWidth;
    currentRow = static_cast<unsigned char*>(heap.Allocate(rowBytes));
    const auto write = rowRoutines->write;
    for (int p = 0; p < 7; ++p) {
        const Pass& pass = kPasses[p];
        SetRowGeometry((width - 1 + pass.columnIncrement - pass.firstColumn) /
                       pass.columnIncrement);
        if (width < pass.minimumWidth) continue;
        for (uint32_t y = pass.firstRow; y < height; y += pass.rowIncrement) {
            unsigned char* outputRow = output + size_t{y} * stride;
            ReadRow(y == pass.firstRow);
            if (write) write(currentRow, currentRow, pixelsPerRow);
            if (p == 6)
                kau::mem::Copy8(outputRow, currentRow, width * pixelBytes);
            else
                PlacePassPixels(outputRow, p, pixelBytes);
        }
    }
}

void Decoder::PlacePassPixels(unsigned char* outputRow, int pass, uint32_t pixelBytes) {
    const uint32_t increment = kPasses[pass].columnIncrement;
    const unsigned char* source = currentRow;
    for (uint32_t x = kPasses[pass].firstColumn; x < width; x += increment, source += pixelBytes)
        memcpy(outputRow + size_t{x} * pixelBytes, source, pixelBytes);
}

// Unfilters the row in place, leaving a copy in previousRow, and expands that copy into the
// row, front to back, without overwriting unread input. Filter types 5 to 255 are taken as None.
void Decoder::ReadRow(bool firstRow) {
    unsigned char filterType = 0;
    InflateInto(&filterType, 1);
    InflateInto(currentRow, bytesPerRow);
    const RowRoutines& routines = *rowRoutines;
    const UnfilterRoutine* unfilter = firstRow ? routines.unfilterFirst : routines.unfilter;
    const unsigned type = filterType < kFilterTypes ? filterType : unsigned{kFilterNone};
    unfilter[type](currentRow, previousRow, bytesPerRow);
    if (routines.expand) routines.expand(previousRow, currentRow, pixelsPerRow, routines.keys);
}

}  // namespace kpng
