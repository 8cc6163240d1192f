// The checksums: CRC-32 of PNG chunks and zlib, Adler-32 of zlib streams. Each has a portable
// form, the reference, and vector forms taken where the processor has them.
#include <cstring>

#include "checksum.h"
#include "kauCpu.h"
#include "littleEndian.h"
#include "zin.h"

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define ZIN_X86_VECTOR 1
#endif
#if defined(__arm__) || defined(__aarch64__)
#include <arm_neon.h>
#endif

#if defined(__aarch64__)
#define ZIN_NEON_TARGET
#define ZIN_CRC_TARGET __attribute__((target("+crc")))
#elif defined(__arm__)
// Built for whichever ARM processor the target names and run only where the probe finds them.
#define ZIN_NEON_TARGET __attribute__((target("fpu=neon")))
#define ZIN_CRC_TARGET __attribute__((target("arch=armv8-a+crc,fpu=vfpv3-d16")))
#endif

namespace {

using zin::LoadLittleEndian;

// ---------------------------------------------------------------------------------------------
// CRC-32 (reflected polynomial 0xEDB88320), eight table lookups per eight bytes.

constexpr uint32_t kCrcPolynomial = 0xEDB88320u;

struct CrcTables {
    uint32_t t[8][256];
};

constexpr CrcTables MakeCrcTables() {
    CrcTables tables{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int k = 0; k < 8; ++k)
            c = (c & 1) ? (c >> 1) ^ kCrcPolynomial : c >> 1;
        tables.t[0][i] = c;
    }
    for (uint32_t i = 0; i < 256; ++i) {
        for (int k = 1; k < 8; ++k) {
            uint32_t prev = tables.t[k - 1][i];
            tables.t[k][i] = (prev >> 8) ^ tables.t[0][prev & 0xff];
        }
    }
    return tables;
}

constexpr CrcTables kCrc = MakeCrcTables();
static_assert(kCrc.t[0][1] == 0x77073096u, "CRC-32 table");

// Updates a raw (not inverted) CRC register over `n` bytes.
uint32_t CrcScalar(uint32_t c, const unsigned char* p, uint32_t n) {
    while (n >= 8) {
        uint32_t lo = c ^ LoadLittleEndian<uint32_t>(p);
        uint32_t hi = LoadLittleEndian<uint32_t>(p + 4);
        c = kCrc.t[7][lo & 0xff] ^ kCrc.t[6][(lo >> 8) & 0xff] ^ kCrc.t[5][(lo >> 16) & 0xff] ^
            kCrc.t[4][lo >> 24] ^ kCrc.t[3][hi & 0xff] ^ kCrc.t[2][(hi >> 8) & 0xff] ^
            kCrc.t[1][(hi >> 16) & 0xff] ^ kCrc.t[0][hi >> 24];
        p += 8;
        n -= 8;
    }
    while (n--)
        c = kCrc.t[0][(c ^ *p++) & 0xff] ^ (c >> 8);
    return c;
}

#if defined(ZIN_X86_VECTOR)
// Carry-less multiplication folding for x86-64 processors that have PCLMULQDQ. In the
// bit-reflected domain, a 128-bit lane times x^(n+64) and x^n mod P (the two halves of a
// constant pair) equals the lane moved n bits further on, so the input folds 64 bytes at a time
// over four lanes, then the lanes fold into one, that one into 64 bits, and a Barrett reduction
// leaves the 32-bit register.
#define ZIN_CLMUL_TARGET __attribute__((target("pclmul,sse2")))

ZIN_CLMUL_TARGET inline __m128i Fold(__m128i lane, __m128i constants, __m128i next) {
    const __m128i low = _mm_clmulepi64_si128(lane, constants, 0x00);
    const __m128i high = _mm_clmulepi64_si128(lane, constants, 0x11);
    return _mm_xor_si128(_mm_xor_si128(low, high), next);
}

ZIN_CLMUL_TARGET inline __m128i Load128(const unsigned char* p) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

// Updates a raw CRC register over `n` bytes, `n` a multiple of 16 and at least 64.
ZIN_CLMUL_TARGET uint32_t CrcClmul(uint32_t c, const unsigned char* p, uint32_t n) {
    // The constant pairs that move a lane 64 and 16 bytes on, the one that folds 64 bits into
    // 32, and for the reduction the quotient x^64 / P with P itself (33 bits each).
    const __m128i by64 = _mm_set_epi64x(0x1c6e41596, 0x154442bd4);
    const __m128i by16 = _mm_set_epi64x(0x0ccaa009e, 0x1751997d0);
    const __m128i by4 = _mm_set_epi64x(0, 0x163cd6124);
    const __m128i barrett = _mm_set_epi64x(0x1f7011641, 0x1db710641);
    const __m128i low32 = _mm_set_epi32(0, 0, 0, -1);
    __m128i x0 = _mm_xor_si128(Load128(p), _mm_cvtsi32_si128(static_cast<int>(c)));
    __m128i x1 = Load128(p + 16), x2 = Load128(p + 32), x3 = Load128(p + 48);
    for (p += 64, n -= 64; n >= 64; p += 64, n -= 64) {
        x0 = Fold(x0, by64, Load128(p));
        x1 = Fold(x1, by64, Load128(p + 16));
        x2 = Fold(x2, by64, Load128(p + 32));
        x3 = Fold(x3, by64, Load128(p + 48));
    }
    __m128i x = Fold(Fold(Fold(x0, by16, x1), by16, x2), by16, x3);
    for (; n >= 16; p += 16, n -= 16)
        x = Fold(x, by16, Load128(p));
    // 128 bits to 64, 64 to 32, then the Barrett reduction.
    x = _mm_xor_si128(_mm_clmulepi64_si128(x, by16, 0x10), _mm_srli_si128(x, 8));
    x = _mm_xor_si128(_mm_clmulepi64_si128(_mm_and_si128(x, low32), by4, 0x00),
                      _mm_srli_si128(x, 4));
    __m128i t = _mm_clmulepi64_si128(_mm_and_si128(x, low32), barrett, 0x10);
    t = _mm_clmulepi64_si128(_mm_and_si128(t, low32), barrett, 0x00);
    return static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_srli_si128(_mm_xor_si128(x, t), 4)));
}
#endif

#if defined(ZIN_CRC_TARGET)
// The ARMv8 CRC-32 instructions, whose polynomial is PNG's and zlib's.
ZIN_CRC_TARGET uint32_t CrcArm(uint32_t c, const unsigned char* p, uint32_t n) {
    for (; n >= 4; n -= 4, p += 4) {
#if defined(__aarch64__)
        c = __builtin_aarch64_crc32w(c, LoadLittleEndian<uint32_t>(p));
#else
        c = __builtin_arm_crc32w(c, LoadLittleEndian<uint32_t>(p));
#endif
    }
    for (; n > 0; --n, ++p) {
#if defined(__aarch64__)
        c = __builtin_aarch64_crc32b(c, *p);
#else
        c = __builtin_arm_crc32b(c, *p);
#endif
    }
    return c;
}
#endif

// ---------------------------------------------------------------------------------------------
// Adler-32: the modulo is deferred over runs of at most 5552 bytes, the longest run whose sums
// cannot overflow 32 bits.

constexpr uint32_t kAdlerBase = 65521;
constexpr uint32_t kAdlerRun = 5552;

// 64 bytes as 16 words of four byte columns, the even and the odd columns as two 16-bit lanes
// of one word each: `sums` gains each word's columns and `before`, ahead of that, the sums of
// the words before it, few enough that no lane passes 16 bits. Then a gains the four columns,
// and b 64 copies of a, four times the sums before each word and the columns weighted 4, 3, 2, 1
// by how often each byte of a word is summed.
void Adler64Bytes(uint32_t& a, uint32_t& b, const unsigned char* p) {
    uint32_t sumsEven = 0, sumsOdd = 0, beforeEven = 0, beforeOdd = 0;
    for (int k = 0; k < 16; ++k, p += 4) {
        const uint32_t word = LoadLittleEndian<uint32_t>(p);
        beforeEven += sumsEven;
        beforeOdd += sumsOdd;
        sumsEven += word & 0x00FF00FF;
        sumsOdd += (word >> 8) & 0x00FF00FF;
    }
    const uint32_t column0 = sumsEven & 0xFFFF, column1 = sumsOdd & 0xFFFF;
    const uint32_t column2 = sumsEven >> 16, column3 = sumsOdd >> 16;
    const uint32_t before =
        (beforeEven & 0xFFFF) + (beforeEven >> 16) + (beforeOdd & 0xFFFF) + (beforeOdd >> 16);
    b += 64 * a + 4 * before + 4 * column0 + 3 * column1 + 2 * column2 + column3;
    a += column0 + column1 + column2 + column3;
}

uint32_t Adler32Scalar(uint32_t adler, const unsigned char* p, uint32_t n) {
    uint32_t a = adler & 0xffff;
    uint32_t b = adler >> 16;
    while (n > 0) {
        uint32_t run = n < kAdlerRun ? n : kAdlerRun;
        n -= run;
        for (; run >= 64; run -= 64, p += 64)
            Adler64Bytes(a, b, p);
        for (; run > 0; --run) {
            a += *p++;
            b += a;
        }
        a %= kAdlerBase;
        b %= kAdlerBase;
    }
    return (b << 16) | a;
}

#if defined(ZIN_X86_VECTOR)
#define ZIN_SSSE3_TARGET __attribute__((target("ssse3")))

ZIN_SSSE3_TARGET uint32_t SumLanes(__m128i v) {
    v = _mm_add_epi32(v, _mm_shuffle_epi32(v, 0x4e));
    return static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_add_epi32(v, _mm_shuffle_epi32(v, 0xb1))));
}

// Thirty-two bytes per step, in two vectors. A sum of absolute differences against zero gives
// the byte sums. A multiply-add of the bytes by the weights 32..1 gives weighted sums of byte
// pairs, whose two vectors' sum stays below 255 * 94 in 16 bits, and a multiply-add by ones
// widens them. Over a run of k steps, b gains 32 * (k * a0 + the sum of the running byte sums
// before each step) + the weighted sums.
ZIN_SSSE3_TARGET uint32_t Adler32Ssse3(uint32_t adler, const unsigned char* p, uint32_t n) {
    uint32_t a = adler & 0xffff;
    uint32_t b = adler >> 16;
    const __m128i zero = _mm_setzero_si128(), ones = _mm_set1_epi16(1);
    const __m128i weightsFirst =
        _mm_setr_epi8(32, 31, 30, 29, 28, 27, 26, 25, 24, 23, 22, 21, 20, 19, 18, 17);
    const __m128i weightsSecond =
        _mm_setr_epi8(16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1);
    while (n >= 32) {
        const uint32_t steps = (n < kAdlerRun ? n : kAdlerRun) / 32;
        n -= steps * 32;
        __m128i sums = zero, weighted = zero, before = zero;
        for (uint32_t k = steps; k > 0; --k, p += 32) {
            const __m128i first = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
            const __m128i second = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16));
            before = _mm_add_epi32(before, sums);
            sums = _mm_add_epi32(
                sums, _mm_add_epi32(_mm_sad_epu8(first, zero), _mm_sad_epu8(second, zero)));
            const __m128i pairs = _mm_add_epi16(_mm_maddubs_epi16(first, weightsFirst),
                                                _mm_maddubs_epi16(second, weightsSecond));
            weighted = _mm_add_epi32(weighted, _mm_madd_epi16(pairs, ones));
        }
        const uint32_t sumBefore = SumLanes(before) % kAdlerBase;
        b = (b + 32 * steps * a + 32 * sumBefore + SumLanes(weighted)) % kAdlerBase;
        a = (a + SumLanes(sums)) % kAdlerBase;
    }
    return Adler32Scalar((b << 16) | a, p, n);
}
#endif

#if defined(ZIN_NEON_TARGET)
// Sixteen bytes per step, in the same scheme: pairwise widening adds give the byte sums, a
// widening multiply by the weights 16..1 the weighted sums.
ZIN_NEON_TARGET uint32_t SumLanes(uint32x4_t v) {
    const uint32x2_t pairs = vadd_u32(vget_low_u32(v), vget_high_u32(v));
    return vget_lane_u32(vpadd_u32(pairs, pairs), 0);
}

ZIN_NEON_TARGET uint32_t Adler32Neon(uint32_t adler, const unsigned char* p, uint32_t n) {
    uint32_t a = adler & 0xffff;
    uint32_t b = adler >> 16;
    static const uint8_t kWeights[16] = {16, 15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1};
    const uint8x8_t weightsFirst = vld1_u8(kWeights), weightsSecond = vld1_u8(kWeights + 8);
    while (n >= 16) {
        const uint32_t blocks = (n < kAdlerRun ? n : kAdlerRun) / 16;
        n -= blocks * 16;
        uint32x4_t sums = vdupq_n_u32(0), weighted = sums, before = sums;
        for (uint32_t k = blocks; k > 0; --k, p += 16) {
            const uint8x16_t bytes = vld1q_u8(p);
            before = vaddq_u32(before, sums);
            sums = vpadalq_u16(sums, vpaddlq_u8(bytes));
            uint16x8_t products = vmull_u8(vget_low_u8(bytes), weightsFirst);
            products = vmlal_u8(products, vget_high_u8(bytes), weightsSecond);
            weighted = vpadalq_u16(weighted, products);
        }
        const uint32_t sumBefore = SumLanes(before) % kAdlerBase;
        b = (b + 16 * blocks * a + 16 * sumBefore + SumLanes(weighted)) % kAdlerBase;
        a = (a + SumLanes(sums)) % kAdlerBase;
    }
    return Adler32Scalar((b << 16) | a, p, n);
}
#endif

}  // namespace

namespace zin {

uint32_t Adler32(uint32_t adler, const unsigned char* p, uint32_t n) {
#if defined(ZIN_X86_VECTOR)
    if (kau::cpu::Available().ssse3) return Adler32Ssse3(adler, p, n);
#elif defined(ZIN_NEON_TARGET)
    if (kau::cpu::Available().neon) return Adler32Neon(adler, p, n);
#endif
    return Adler32Scalar(adler, p, n);
}

}  // namespace zin

namespace zio {

unsigned long crc32(unsigned long crc, unsigned char const* data, unsigned long length) {
    if (!data) return crc;
    uint32_t c = ~static_cast<uint32_t>(crc);
    uint32_t n = static_cast<uint32_t>(length);
#if defined(ZIN_X86_VECTOR)
    // Short runs stay with the tables, which also take the tail of a long one.
    if (n >= 64 && kau::cpu::Available().pclmul) {
        const uint32_t bulk = n & ~uint32_t{15};
        c = CrcClmul(c, data, bulk);
        data += bulk;
        n -= bulk;
    }
#elif defined(ZIN_CRC_TARGET)
    if (kau::cpu::Available().crc32) return ~CrcArm(c, data, n);
#endif
    return ~CrcScalar(c, data, n);
}

}  // namespace zio
