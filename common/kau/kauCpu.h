// What the processor offers beyond the target's baseline, probed once per process, and the
// one switch between vector code and the portable code, which is the reference.
#pragma once

#if defined(__arm__) || defined(__aarch64__)
#include <sys/auxv.h>
#endif

namespace kau::cpu {

struct Features {
    bool ssse3 = false;   // x86: byte shuffles
    bool sse41 = false;   // x86: byte blends
    bool pclmul = false;  // x86: carry-less multiply
    bool bmi2 = false;    // x86: shifts by a count in any register, masks of any width
    bool neon = false;    // ARM: Advanced SIMD (always there on 64-bit ARM)
    bool crc32 = false;   // ARM: the ARMv8 CRC-32 instructions
};

namespace detail {

inline Features ProbeOnce() {
    Features f;
#if defined(__x86_64__) || defined(__i386__)
    __builtin_cpu_init();
    f.ssse3 = __builtin_cpu_supports("ssse3") != 0;
    f.sse41 = __builtin_cpu_supports("sse4.1") != 0;
    f.pclmul = __builtin_cpu_supports("pclmul") != 0;
    f.bmi2 = __builtin_cpu_supports("bmi2") != 0;
#elif defined(__aarch64__)
    f.neon = true;
    f.crc32 = (getauxval(AT_HWCAP) & (1ul << 7)) != 0;  // HWCAP_CRC32
#elif defined(__arm__)
    f.neon = (getauxval(AT_HWCAP) & (1ul << 12)) != 0;   // HWCAP_NEON
    f.crc32 = (getauxval(AT_HWCAP2) & (1ul << 4)) != 0;  // HWCAP2_CRC32
#endif
    return f;
}

inline const Features& Probed() {
    static const Features probed = ProbeOnce();
    return probed;
}

// Process-wide and unsynchronised, like the allocator hooks: set them while no decode runs.
inline bool vectorPaths = true;
inline Features& Shown() {
    static Features shown = Probed();
    return shown;
}

}  // namespace detail

// The features vector code may use: what the processor has, or none while vector paths are off.
inline Features Available() {
    return detail::vectorPaths ? detail::Shown() : Features{};
}

// Disabled, code runs as on a processor without `feature` (a member of Features); enabled, as
// the probe found it. Tests and benchmarks reach with it the code an older processor runs.
inline void UseFeature(bool Features::*feature, bool enabled) {
    detail::Shown().*feature = enabled && detail::Probed().*feature;
}

// False makes every routine that has a vector form take its portable form, so that tests and
// benchmarks can compare the two and measure a processor without the features.
inline void UseVectorPaths(bool enabled) {
    detail::vectorPaths = enabled;
}

inline bool VectorPathsEnabled() {
    return detail::vectorPaths;
}

}  // namespace kau::cpu
