// The routines that write expanded R, G, B, A rows in the output format the caller asked for.
// Each image chooses its routine once, the portable one or a vector form that gives the same
// bytes.
#pragma once

#include <cstdint>

#include "kpng.h"

namespace kpng {

// Writes n pixels of the output format to `out` from n R, G, B, A pixels at `in`. `out` may be
// `in` itself: every pixel is read before its bytes are written, front to back, and no output
// pixel is wider than its input.
using FormatRoutine = void (*)(const unsigned char* in, unsigned char* out, uint32_t n);

// Null for R, G, B, A, which needs no writing.
FormatRoutine ChooseFormatRoutine(OutputFormat format);

// For each format of 4 bytes per pixel, the R, G, B, A byte that each output byte takes, in
// memory order; 4 is the constant 255 of an unused byte.
inline constexpr uint8_t kUnusedByte = 4;
inline constexpr uint8_t kByteOrder[8][4] = {{0, 1, 2, 3}, {2, 1, 0, 3}, {3, 0, 1, 2},
                                             {3, 2, 1, 0}, {0, 1, 2, 4}, {2, 1, 0, 4},
                                             {4, 0, 1, 2}, {4, 2, 1, 0}};

// One pixel of a 4-byte format from its R, G, B, A bytes.
uint32_t FormatPixel(OutputFormat format, const unsigned char rgba[4]);

}  // namespace kpng
