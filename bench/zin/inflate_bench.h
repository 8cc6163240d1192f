// The inflate comparison over PNG files: zin one-shot and row-driven (as the PNG decoder drives
// it) against zlib, libdeflate and isa-l's streaming inflate. Header-only so that other
// benchmarks can print the same table.
#pragma once

#include <isa-l/igzip_lib.h>
#include <libdeflate.h>
#include <zlib.h>
#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "zin.h"

namespace zinbench {

// The image data of one PNG: its IDAT chunks and what the header says about rows.
struct PngData {
    std::string name;
    std::vector<unsigned char> zlib;   // the IDAT data, concatenated
    std::vector<uint32_t> chunkSizes;  // the sizes of the IDAT chunks, in order
    // Rows of every pass (one pass unless interlaced) and their bytes, without filter byte.
    std::vector<std::pair<uint32_t, uint32_t>> passes;  // (rows, row bytes)
    uint64_t inflatedSize = 0;                          // filter bytes included
    uint64_t rowBytesTotal = 0;                         // filter bytes excluded
};

inline uint32_t BigEndian32(const unsigned char* p) {
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

// Walks the chunks of a PNG file; false when it is not one or has no image data.
inline bool LoadPng(const std::string& path, PngData& png) {
    std::ifstream file(path, std::ios::binary);
    std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(file)),
                                     std::istreambuf_iterator<char>());
    static const unsigned char kSignature[8] = {137, 80, 78, 71, 13, 10, 26, 10};
    if (bytes.size() < 8 || std::memcmp(bytes.data(), kSignature, 8) != 0) return false;
    uint32_t width = 0, height = 0, depth = 0, colour = 0, interlace = 0;
    size_t pos = 8;
    while (pos + 12 <= bytes.size()) {
        const uint32_t length = BigEndian32(&bytes[pos]);
        const unsigned char* type = &bytes[pos + 4];
        const unsigned char* data = &bytes[pos + 8];
        if (length > bytes.size() - pos - 12) return false;
        if (std::memcmp(type, "IHDR", 4) == 0 && length >= 13) {
            width = BigEndian32(data);
            height = BigEndian32(data + 4);
            depth = data[8];
            colour = data[9];
            interlace = data[12];
        } else if (std::memcmp(type, "IDAT", 4) == 0) {
            png.zlib.insert(png.zlib.end(), data, data + length);
            png.chunkSizes.push_back(length);
        } else if (std::memcmp(type, "IEND", 4) == 0) {
            break;
        }
        pos += 12 + size_t{length};
    }
    static const uint32_t kChannels[7] = {1, 0, 3, 1, 2, 0, 4};
    const uint32_t bitsPerPixel = kChannels[colour > 6 ? 1 : colour] * depth;
    if (png.zlib.empty() || bitsPerPixel == 0) return false;
    auto addPass = [&](uint32_t w, uint32_t h) {
        if (w == 0 || h == 0) return;
        const uint32_t rowBytes = static_cast<uint32_t>((uint64_t{w} * bitsPerPixel + 7) / 8);
        png.passes.push_back({h, rowBytes});
        png.inflatedSize += uint64_t{h} * (rowBytes + 1);
        png.rowBytesTotal += uint64_t{h} * rowBytes;
    };
    if (interlace) {
        static const uint32_t kStart[7][2] = {{0, 0}, {4, 0}, {0, 4}, {2, 0},
                                              {0, 2}, {1, 0}, {0, 1}};
        static const uint32_t kStep[7][2] = {{8, 8}, {8, 8}, {4, 8}, {4, 4},
                                             {2, 4}, {2, 2}, {1, 2}};
        for (int p = 0; p < 7; ++p) {
            const uint32_t w =
                width > kStart[p][0] ? (width - kStart[p][0] + kStep[p][0] - 1) / kStep[p][0] : 0;
            const uint32_t h =
                height > kStart[p][1] ? (height - kStart[p][1] + kStep[p][1] - 1) / kStep[p][1] : 0;
            addPass(w, h);
        }
    } else {
        addPass(width, height);
    }
    const size_t slash = path.find_last_of('/');
    png.name = slash == std::string::npos ? path : path.substr(slash + 1);
    return true;
}

// zin as the PNG decoder drives it: input one IDAT chunk at a time, inflated up to 64 KiB ahead
// of the rows into a buffer that keeps the 32 KiB before it in place; per row, the filter byte
// copied into a local, and the row read where it was inflated, or copied out when it runs past
// the end of what the buffer holds. With `out`, every row is also copied there, to be checked.
inline bool ZinRows(const PngData& png, unsigned char* out, zin::Stream& s) {
    constexpr uint32_t kAhead = 65536;
    s.Reset();
    s.KeepHistoryInOutput();
    std::vector<unsigned char> ahead(
        static_cast<size_t>(std::min<uint64_t>(png.inflatedSize, zin::kWindowSize + kAhead)));
    size_t next = 0, end = 0, chunk = 0;
    uint64_t left = png.inflatedSize;
    const unsigned char* in = png.zlib.data();
    auto fill = [&]() {
        if (end == ahead.size()) {
            std::memmove(ahead.data(), ahead.data() + end - zin::kWindowSize, zin::kWindowSize);
            next = end = zin::kWindowSize;
        }
        s.nextOut = ahead.data() + end;
        s.availOut = static_cast<uint32_t>(std::min<uint64_t>(ahead.size() - end, left));
        const uint32_t room = s.availOut;
        int result = zin::kOk;
        while (s.availOut > 0 && result == zin::kOk) {
            if (s.availIn == 0) {
                if (chunk == png.chunkSizes.size()) return false;
                s.nextIn = in;
                s.availIn = png.chunkSizes[chunk];
                in += png.chunkSizes[chunk++];
            }
            result = s.Inflate(zio::FlushPartial);
        }
        end += room - s.availOut;
        left -= room - s.availOut;
        return result == zin::kOk || (result == zin::kStreamEnd && s.availOut == 0);
    };
    auto pull = [&](uint32_t n, unsigned char* to) {
        while (n > 0) {
            if (next == end && !fill()) return false;
            const size_t take = std::min<size_t>(n, end - next);
            std::memcpy(to, ahead.data() + next, take);
            to += take;
            n -= static_cast<uint32_t>(take);
            next += take;
        }
        return true;
    };
    std::vector<unsigned char> copy;
    for (const auto& pass : png.passes) {
        copy.resize(pass.second);
        for (uint32_t row = 0; row < pass.first; ++row) {
            unsigned char filter;
            if (!pull(1, &filter)) return false;
            const unsigned char* bytes = ahead.data() + next;
            if (end - next >= pass.second) {
                next += pass.second;
            } else if (pull(pass.second, copy.data())) {
                bytes = copy.data();
            } else {
                return false;
            }
            if (out) out = std::copy_n(bytes, pass.second, out);
        }
    }
    return true;
}

// zlib's inflate driven the same way, each row copied into `out`.
inline bool ZlibRows(const PngData& png, unsigned char* out) {
    z_stream z{};
    inflateInit(&z);
    size_t chunk = 0;
    const unsigned char* next = png.zlib.data();
    auto pull = [&](uint32_t n, unsigned char* to) {
        z.next_out = to;
        z.avail_out = n;
        while (z.avail_out > 0) {
            if (z.avail_in == 0) {
                if (chunk == png.chunkSizes.size()) return false;
                z.next_in = const_cast<unsigned char*>(next);
                z.avail_in = png.chunkSizes[chunk];
                next += png.chunkSizes[chunk++];
            }
            const int ret = inflate(&z, Z_PARTIAL_FLUSH);
            if (ret != Z_OK && !(ret == Z_STREAM_END && z.avail_out == 0)) return false;
        }
        return true;
    };
    bool ok = true;
    for (const auto& pass : png.passes) {
        for (uint32_t row = 0; ok && row < pass.first; ++row) {
            unsigned char filter;
            ok = pull(1, &filter) && pull(pass.second, out);
            out += pass.second;
        }
    }
    inflateEnd(&z);
    return ok;
}

#if defined(__x86_64__)
__attribute__((target("avx"))) inline void ClearUpperVectorHalves() {
    _mm256_zeroupper();
}
#endif

// isa-l's inflate returns with the upper halves of the AVX registers still in use, and every
// SSE instruction that runs after it then pays to merge them: zin's row-driven inflate measured
// 40 % slower on a large image once isa-l had run in the same process. Clearing them after each
// isa-l call keeps that cost out of the other inflaters' times.
inline void AfterIsal() {
#if defined(__x86_64__)
    if (__builtin_cpu_supports("avx")) ClearUpperVectorHalves();
#endif
}

// isa-l's streaming inflate: input one IDAT chunk at a time, all output into one buffer.
inline bool IsalStream(const PngData& png, unsigned char* out, inflate_state& state) {
    isal_inflate_init(&state);
    state.crc_flag = ISAL_ZLIB;
    state.next_out = out;
    state.avail_out = static_cast<uint32_t>(png.inflatedSize);
    const unsigned char* next = png.zlib.data();
    for (uint32_t size : png.chunkSizes) {
        state.next_in = const_cast<unsigned char*>(next);
        state.avail_in = size;
        next += size;
        const int result = isal_inflate(&state);
        AfterIsal();
        if (result != ISAL_DECOMP_OK) return false;
    }
    return state.block_state == ISAL_BLOCK_FINISH && state.avail_out == 0;
}

// Best time of five rounds, each repeating `run` for at least 20 ms; seconds per run.
template <typename Run>
double BestSeconds(Run run) {
    using Clock = std::chrono::steady_clock;
    double best = 1e30;
    for (int round = 0; round < 5; ++round) {
        int runs = 0;
        const auto start = Clock::now();
        double elapsed;
        do {
            run();
            ++runs;
            elapsed = std::chrono::duration<double>(Clock::now() - start).count();
        } while (elapsed < 0.02);
        best = std::min(best, elapsed / runs);
    }
    return best;
}

// Times every inflater on every file and prints the table: MB/s of output (filter bytes
// included) and, per peer, its time over zin's row-driven time (and zlib's uncompress over
// zin::Decompress). Returns false when an output differed or a file failed.
inline bool RunInflateComparison(const std::vector<std::string>& files, FILE* out = stdout) {
    enum { kZinRows, kZinDecompress, kZlibRows, kZlibUncompress, kLibdeflate, kIsal, kPeers };
    static const char* const kNames[kPeers] = {"zin-rows",        "zin-oneshot", "zlib-rows",
                                               "zlib-uncompress", "libdeflate",  "isal-stream"};
    auto stream = std::make_unique<zin::Stream>();
    libdeflate_decompressor* deflater = libdeflate_alloc_decompressor();
    auto isal = std::make_unique<inflate_state>();
    double totals[kPeers] = {};
    uint64_t totalBytes = 0;
    bool allGood = true;
    std::fprintf(out, "%-32s %9s", "image", "KiB out");
    for (const char* n : kNames)
        std::fprintf(out, " %15s", n);
    std::fprintf(
        out, "   zlib-rows/zin  uncompress/zin  libdeflate/zin  isal/zin  uncompress/oneshot\n");
    for (const std::string& path : files) {
        PngData png;
        if (!LoadPng(path, png)) {
            std::fprintf(out, "%s: not a PNG with image data\n", path.c_str());
            allGood = false;
            continue;
        }
        const size_t size = static_cast<size_t>(png.inflatedSize);
        std::vector<unsigned char> reference(size), rows(static_cast<size_t>(png.rowBytesTotal)),
            zlibRows(rows.size()), result(size);
        uLongf referenceLength = static_cast<uLongf>(size);
        bool good = uncompress(reference.data(), &referenceLength, png.zlib.data(),
                               static_cast<uLong>(png.zlib.size())) == Z_OK &&
                    referenceLength == size;
        good = good && ZinRows(png, rows.data(), *stream) && ZlibRows(png, zlibRows.data()) &&
               rows == zlibRows;
        unsigned int length = static_cast<unsigned int>(size);
        good = good &&
               zin::Decompress(result.data(), length, png.zlib.data(),
                               static_cast<unsigned int>(png.zlib.size())) == zin::kOk &&
               length == size && result == reference;
        good = good && IsalStream(png, result.data(), *isal) && result == reference;
        if (!good) {
            std::fprintf(out, "%s: outputs differ or a decoder failed\n", png.name.c_str());
            allGood = false;
            continue;
        }
        double t[kPeers];
        t[kZinRows] = BestSeconds([&] { ZinRows(png, nullptr, *stream); });
        t[kZinDecompress] = BestSeconds([&] {
            unsigned int n = static_cast<unsigned int>(size);
            zin::Decompress(result.data(), n, png.zlib.data(),
                            static_cast<unsigned int>(png.zlib.size()));
        });
        t[kZlibRows] = BestSeconds([&] { ZlibRows(png, zlibRows.data()); });
        t[kZlibUncompress] = BestSeconds([&] {
            uLongf n = static_cast<uLongf>(size);
            uncompress(result.data(), &n, png.zlib.data(), static_cast<uLong>(png.zlib.size()));
        });
        t[kLibdeflate] = BestSeconds([&] {
            libdeflate_zlib_decompress(deflater, png.zlib.data(), png.zlib.size(), result.data(),
                                       size, nullptr);
        });
        t[kIsal] = BestSeconds([&] { IsalStream(png, result.data(), *isal); });
        std::fprintf(out, "%-32s %9.1f", png.name.c_str(), size / 1024.0);
        for (int p = 0; p < kPeers; ++p) {
            std::fprintf(out, " %15.1f", size / t[p] / 1e6);
            totals[p] += t[p];
        }
        std::fprintf(out, "   %13.2f  %14.2f  %14.2f  %8.2f  %18.2f\n", t[kZlibRows] / t[kZinRows],
                     t[kZlibUncompress] / t[kZinRows], t[kLibdeflate] / t[kZinRows],
                     t[kIsal] / t[kZinRows], t[kZlibUncompress] / t[kZinDecompress]);
        totalBytes += size;
    }
    if (totalBytes > 0) {
        std::fprintf(out, "%-32s %9.1f", "total", totalBytes / 1024.0);
        for (int p = 0; p < kPeers; ++p)
            std::fprintf(out, " %15.1f", totalBytes / totals[p] / 1e6);
        std::fprintf(
            out, "   %13.2f  %14.2f  %14.2f  %8.2f  %18.2f\n", totals[kZlibRows] / totals[kZinRows],
            totals[kZlibUncompress] / totals[kZinRows], totals[kLibdeflate] / totals[kZinRows],
            totals[kIsal] / totals[kZinRows], totals[kZlibUncompress] / totals[kZinDecompress]);
        std::fprintf(out,
                     "inflate: zin row-driven is %.2fx isa-l's streaming inflate, one-shot %.2fx "
                     "the row-driven path\n",
                     totals[kIsal] / totals[kZinRows], totals[kZinRows] / totals[kZinDecompress]);
    }
    libdeflate_free_decompressor(deflater);
    return allGood;
}

}  // namespace zinbench
