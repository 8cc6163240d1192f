// Little-endian words at any address: one load or store each where the processor reads and
// writes unaligned words, as every target of the inflater does.
#pragma once

#include <cstdint>
#include <cstring>

namespace zin {

template <typename Word>
inline Word ByteSwapOnBigEndian(Word v) {
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    if constexpr (sizeof(Word) == 8) return __builtin_bswap64(v);
    if constexpr (sizeof(Word) == 4) return __builtin_bswap32(v);
#endif
    return v;
}

template <typename Word>
inline Word LoadLittleEndian(const unsigned char* p) {
    Word v;
    std::memcpy(&v, p, sizeof v);
    return ByteSwapOnBigEndian(v);
}

template <typename Word>
inline void StoreLittleEndian(unsigned char* p, Word v) {
    v = ByteSwapOnBigEndian(v);
    std::memcpy(p, &v, sizeof v);
}

}  // namespace zin
