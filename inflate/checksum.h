// The inflater's Adler-32 (RFC 1950). The CRC-32 is zio::crc32 in zin.h.
#pragma once

#include <cstdint>

namespace zin {

// Updates an Adler-32 value (1 for none yet) over `n` bytes.
uint32_t Adler32(uint32_t adler, const unsigned char* p, uint32_t n);

}  // namespace zin
