// Helpers shared by every fuzz target.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace fuzz {

// Stops the process so that libFuzzer keeps the input as a crash.
[[noreturn]] inline void Fail(const char* what) {
    fprintf(stderr, "kalpng fuzz check failed: %s\n", what);
    abort();
}

inline void Check(bool ok, const char* what) {
    if (!ok) Fail(what);
}

inline uint32_t ReadBig32(const unsigned char* p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

inline void WriteBig32(unsigned char* p, uint32_t v) {
    p[0] = static_cast<unsigned char>(v >> 24);
    p[1] = static_cast<unsigned char>(v >> 16);
    p[2] = static_cast<unsigned char>(v >> 8);
    p[3] = static_cast<unsigned char>(v);
}

inline volatile unsigned touchedSum;

// Reads every byte, so that AddressSanitizer checks the whole range.
inline void Touch(const unsigned char* p, size_t n) {
    unsigned sum = 0;
    for (size_t i = 0; i < n; ++i)
        sum += p[i];
    touchedSum = sum;
}

}  // namespace fuzz
