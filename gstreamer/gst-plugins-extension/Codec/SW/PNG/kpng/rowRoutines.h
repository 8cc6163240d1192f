// The routines that turn one filtered row into output pixels: an unfilter routine per filter
// type and an expansion per colour type and depth. Each image chooses its routines once, from
// the portable set, which is the reference, and then from the vector sets the processor offers
// (kau::cpu::Available). Every vector routine gives the same bytes as the portable one it
// replaces.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "kauCpu.h"

namespace kpng {

// Undoes one filter: writes to `row` the unfiltered bytes of the filtered bytes `raw` (read
// where the image data was inflated), given `prior`, the previous row unfiltered. The left
// neighbour of the first pixel is zero. Rows of whole-byte pixels are a whole number of pixels
// long.
using UnfilterRoutine = void (*)(const unsigned char* __restrict raw,
                                 const unsigned char* __restrict prior,
                                 unsigned char* __restrict row, uint32_t n);

// What expansions need besides the row: the pixel of every palette index or low-depth grey
// sample, and the transparent key of 16-bit grey and of truecolour.
struct PixelKeys {
    const uint32_t* table;
    uint16_t grey;
    uint16_t colour[3];
};

// Writes n pixels R, G, B, A to `out` from the unfiltered row `in`.
using ExpandRoutine = void (*)(const unsigned char* __restrict in, unsigned char* __restrict out,
                               uint32_t n, const PixelKeys& keys);

struct RowFormat {
    uint8_t colourType;
    uint8_t bitDepth;
    uint8_t bytesPerPixel;
    bool keyed;  // a tRNS key for grey or truecolour
};

enum FilterType { kFilterNone, kFilterSub, kFilterUp, kFilterAverage, kFilterPaeth, kFilterTypes };

struct RowRoutines {
    // By filter type; types 5 to 255 are taken as None.
    UnfilterRoutine unfilter[kFilterTypes];
    // The same for the first row of an image or pass, whose prior row is all zero and is never
    // read: Up is then None, Paeth is Sub, and Average halves the left neighbour only.
    UnfilterRoutine unfilterFirst[kFilterTypes];
    // Null where the unfiltered row is already the output (8-bit RGBA).
    ExpandRoutine expand;
    PixelKeys keys;
    // Writes the expanded row in the output format; null where it is already in that format.
    void (*write)(const unsigned char* in, unsigned char* out, uint32_t n);
};

RowRoutines ChooseRowRoutines(const RowFormat& format, const PixelKeys& keys);

// The vector sets, each replacing the entries of the portable set it has a routine for.
void UseSseRowRoutines(RowRoutines& routines, const RowFormat& format,
                       const kau::cpu::Features& cpu);
void UseNeonRowRoutines(RowRoutines& routines, const RowFormat& format);

// Calls `set` with the image's bytes per pixel as a compile-time constant (std::integral_constant),
// so that each set instantiates its per-pixel filters once per pixel size PNG has.
template <typename Set>
void ForBytesPerPixel(int bytesPerPixel, Set&& set) {
    switch (bytesPerPixel) {
        case 1:
            return set(std::integral_constant<int, 1>{});
        case 2:
            return set(std::integral_constant<int, 2>{});
        case 3:
            return set(std::integral_constant<int, 3>{});
        case 4:
            return set(std::integral_constant<int, 4>{});
        case 6:
            return set(std::integral_constant<int, 6>{});
        default:
            return set(std::integral_constant<int, 8>{});
    }
}

// ---- Portable filters, shared with the vector sets for the ends of their rows ----

inline void UnfilterNone(const unsigned char* __restrict raw, const unsigned char* __restrict,
                         unsigned char* __restrict row, uint32_t n) {
    memcpy(row, raw, n);
}

inline void UnfilterUp(const unsigned char* __restrict raw, const unsigned char* __restrict prior,
                       unsigned char* __restrict row, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i)
        row[i] = uint8_t(raw[i] + prior[i]);
}

template <int Bpp>
void UnfilterSub(const unsigned char* __restrict raw, const unsigned char* __restrict,
                 unsigned char* __restrict row, uint32_t n) {
    uint8_t left[Bpp] = {};
    for (uint32_t i = 0; i < n; i += Bpp) {
        for (int k = 0; k < Bpp; ++k)
            row[i + k] = left[k] = uint8_t(raw[i + k] + left[k]);
    }
}

template <int Bpp>
void UnfilterAverage(const unsigned char* __restrict raw, const unsigned char* __restrict prior,
                     unsigned char* __restrict row, uint32_t n) {
    uint8_t left[Bpp] = {};
    for (uint32_t i = 0; i < n; i += Bpp) {
        for (int k = 0; k < Bpp; ++k)
            row[i + k] = left[k] = uint8_t(raw[i + k] + ((unsigned{left[k]} + prior[i + k]) >> 1));
    }
}

// Average against an all-zero prior row, which is not read.
template <int Bpp>
void UnfilterAverageFirst(const unsigned char* __restrict raw, const unsigned char* __restrict,
                          unsigned char* __restrict row, uint32_t n) {
    uint8_t left[Bpp] = {};
    for (uint32_t i = 0; i < n; i += Bpp) {
        for (int k = 0; k < Bpp; ++k)
            row[i + k] = left[k] = uint8_t(raw[i + k] + (left[k] >> 1));
    }
}

// Written without branches: the choice depends on the data and would defeat branch prediction.
// The distances are compared squared, which keeps their order and ties: a multiplication each,
// where an absolute value costs a compare and a negate on cores without a vector unit.
inline unsigned PaethPredictor(int a, int b, int c) {
    const int toA = b - c, toB = a - c, toC = toA + toB;
    const int pa = toA * toA, pb = toB * toB, pc = toC * toC;
    int nearerOfBAndC = c, nearestOfBAndC = pc;
    if (pb <= pc) {
        nearerOfBAndC = b;
        nearestOfBAndC = pb;
    }
    return pa <= nearestOfBAndC ? a : nearerOfBAndC;
}

// Continues a Paeth row at byte `i`, at least one pixel in. The upper-left bytes are loaded
// again from the prior row instead of being carried from the pixel before: carried, they
// outnumber a 32-bit core's registers and spill (61 instead of 76 ARM instructions a
// 3-byte pixel).
template <int Bpp>
void UnfilterPaethFrom(const unsigned char* __restrict raw, const unsigned char* __restrict prior,
                       unsigned char* __restrict row, uint32_t i, uint32_t n) {
    unsigned left[Bpp];
    for (int k = 0; k < Bpp; ++k)
        left[k] = row[i - Bpp + k];
    const unsigned char* const end = raw + n;
    for (raw += i, prior += i, row += i; raw != end; raw += Bpp, prior += Bpp, row += Bpp) {
        for (int k = 0; k < Bpp; ++k) {
            left[k] = (raw[k] + PaethPredictor(left[k], prior[k], prior[k - Bpp])) & 0xFF;
            row[k] = uint8_t(left[k]);
        }
    }
}

// The first pixel has neither left nor upper-left neighbours: its predictor is the byte above.
template <int Bpp>
void UnfilterPaeth(const unsigned char* __restrict raw, const unsigned char* __restrict prior,
                   unsigned char* __restrict row, uint32_t n) {
    for (int k = 0; k < Bpp; ++k)
        row[k] = uint8_t(raw[k] + prior[k]);
    UnfilterPaethFrom<Bpp>(raw, prior, row, Bpp, n);
}

}  // namespace kpng
