// Helpers of the fuzz targets that decode PNGs: the options byte in front of the PNG, CRC
// repair, an allocation ceiling and the checks on a decoded record.
#pragma once

#include "fuzz_common.h"

#include "CPNG.h"
#include "kau.h"
#include "mmstream.h"

#include <zlib.h>

#include <cstring>
#include <vector>

namespace fuzz {

// The largest single allocation granted, as on a device with little memory. Without it a
// header could ask for gigabytes and end the run on libFuzzer's memory limit instead of
// exercising the decoder's allocation failures. 64 MiB holds a 4096 x 4096 RGBA image.
inline constexpr unsigned long kAllocationLimit = 64ul << 20;

// Every block also comes filled with a pattern that changes from one block to the next, so that
// two decodes of one PNG that compare equal cannot both be showing memory they never wrote.
inline void* LimitedNew(unsigned long size) {
    static unsigned char pattern = 0;
    void* p = size > kAllocationLimit ? nullptr : MMAllocate(size);
    if (p) memset(p, ++pattern, size);
    return p;
}

// The stream framework's load-time initialiser has already routed the foundation's hooks to
// MMAllocate and MMFree, so blocks made before this call are still released correctly.
inline void LimitAllocations() {
    kau::mem::SetExternalNewAndDelete(LimitedNew, MMFree);
}

// The options byte that leads the input of a PNG target.
struct PngOptions {
    bool repairCrcs;             // bit 0
    unsigned long defaultAlpha;  // bits 1-2
    unsigned variant;            // bits 3-7, the target's own choice
};

inline PngOptions ReadOptions(unsigned char byte) {
    static constexpr unsigned long kAlphas[] = {255, 0, 77, 255};
    return {(byte & 1) != 0, kAlphas[(byte >> 1) & 3], static_cast<unsigned>(byte >> 3)};
}

// Rewrites the CRC of every complete chunk, with zlib's CRC-32 rather than the decoder's own,
// so that mutated chunks reach the code behind the CRC test. A PNG signature standing where a
// chunk would start is stepped over, so that concatenated PNGs are repaired as a whole. The
// walk stops at the first chunk that does not fit.
inline void RepairCrcs(std::vector<unsigned char>& bytes) {
    static constexpr unsigned char kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    size_t pos = 0;
    while (bytes.size() - pos >= 8) {
        if (memcmp(bytes.data() + pos, kSignature, 8) == 0) {
            pos += 8;
            continue;
        }
        if (bytes.size() - pos < 12) return;
        size_t length = ReadBig32(bytes.data() + pos);
        if (length > bytes.size() - pos - 12) return;
        unsigned char* type = bytes.data() + pos + 4;
        WriteBig32(type + 4 + length, static_cast<uint32_t>(::crc32(0, type, length + 4)));
        pos += 12 + length;
    }
}

// A record as a caller passes it: a failed decode must leave it exactly so.
inline STImageSimple UntouchedRecord() {
    STImageSimple record;
    memset(&record, 0x5A, sizeof record);
    return record;
}

inline bool SameRecord(const STImageSimple& a, const STImageSimple& b) {
    return memcmp(&a, &b, sizeof a) == 0;
}

// Checks the record of a successful decode and reads every pixel byte it claims.
// `withDataSize` is false for the overload that leaves dataSize 0.
inline void CheckDecoded(const STImageSimple& image, bool withDataSize) {
    Check(image.width >= 1 && image.height >= 1, "decoded image has no pixels");
    Check(image.width <= 536870851u, "decoded width beyond the PNG limit");
    uint64_t bytes = uint64_t{image.width} * 4 * image.height;
    Check(bytes <= UINT32_MAX, "decoded size does not fit in 32 bits");
    Check(image.stride == image.width * 4, "stride is not width x 4");
    Check(image.dataSize == (withDataSize ? bytes : 0), "wrong dataSize");
    Check(image.bpp == 32 && image.reserved == 0, "wrong bpp or reserved");
    Check(image.data != nullptr, "decoded image without data");
    Touch(image.data, static_cast<size_t>(bytes));
}

inline bool SamePixels(const STImageSimple& a, const STImageSimple& b) {
    return a.width == b.width && a.height == b.height &&
           memcmp(a.data, b.data, size_t{a.stride} * a.height) == 0;
}

// The input of a target that takes one PNG: the options byte, then the PNG, whose CRCs are
// repaired when the options ask for it before `test` runs on it.
inline int TestOnePng(const uint8_t* data, size_t size,
                      void (*test)(const PngOptions& options,
                                   const std::vector<unsigned char>& png)) {
    if (size < 1) return 0;
    const PngOptions options = ReadOptions(data[0]);
    std::vector<unsigned char> png(data + 1, data + size);
    if (options.repairCrcs) RepairCrcs(png);
    test(options, png);
    return 0;
}

}  // namespace fuzz

// Every PNG target caps allocations before its first input. Each target is a single source
// file, so this is defined once per program.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::LimitAllocations();
    return 0;
}
