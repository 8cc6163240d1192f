// Makers of test input for the inflater: sample data, zlib-compressed streams and a small
// hand encoder for streams that zlib never writes (longest distance, broken headers, codes).
#pragma once

#include <zlib.h>

#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace zintest {

using Bytes = std::vector<unsigned char>;

enum class Content { Random, Text, Runs };

inline const char* ContentName(Content c) {
    return c == Content::Random ? "random" : c == Content::Text ? "text" : "runs";
}

// Deterministic sample data of each kind.
inline Bytes MakeData(Content content, size_t size, uint32_t seed = 1) {
    std::mt19937 rng(seed);
    Bytes data(size);
    static const char* const kWords[] = {"the ",    "inflate ", "window ", "of ",     "a ",
                                         "stream ", "png ",     "row ",    "filter ", "\n"};
    size_t i = 0;
    while (i < size) {
        switch (content) {
            case Content::Random:
                data[i++] = static_cast<unsigned char>(rng());
                break;
            case Content::Text:
                for (const char* w = kWords[rng() % 10]; *w && i < size; ++w)
                    data[i++] = *w;
                break;
            case Content::Runs: {
                // Runs and short repeated patterns, like rows of a flat image.
                size_t run = 1 + rng() % 300;
                unsigned period = 1 + rng() % 5;
                unsigned char base = static_cast<unsigned char>(rng());
                for (size_t k = 0; k < run && i < size; ++k, ++i)
                    data[i] = static_cast<unsigned char>(base + k % period);
                break;
            }
        }
    }
    return data;
}

inline Bytes ZlibCompress(const Bytes& data, int level, int strategy = Z_DEFAULT_STRATEGY,
                          int windowBits = 15) {
    z_stream z{};
    if (deflateInit2(&z, level, Z_DEFLATED, windowBits, 8, strategy) != Z_OK)
        throw std::runtime_error("deflateInit2");
    Bytes out(deflateBound(&z, data.size()) + 16);
    z.next_in = const_cast<unsigned char*>(data.data());
    z.avail_in = static_cast<uInt>(data.size());
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(out.size());
    if (deflate(&z, Z_FINISH) != Z_STREAM_END) throw std::runtime_error("deflate");
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
}

// zlib's answer for a stream: Z_OK with the output, or its error.
struct ZlibResult {
    int code;
    Bytes output;
};

inline ZlibResult ZlibInflate(const Bytes& stream) {
    z_stream z{};
    inflateInit(&z);
    z.next_in = const_cast<unsigned char*>(stream.data());
    z.avail_in = static_cast<uInt>(stream.size());
    ZlibResult r{Z_OK, {}};
    unsigned char buffer[16384];
    for (;;) {
        z.next_out = buffer;
        z.avail_out = sizeof buffer;
        int ret = inflate(&z, Z_NO_FLUSH);
        r.output.insert(r.output.end(), buffer, buffer + (sizeof buffer - z.avail_out));
        if (ret == Z_STREAM_END) break;
        if (ret != Z_OK) {
            r.code = ret;
            break;
        }
    }
    inflateEnd(&z);
    return r;
}

// Writes DEFLATE bits least significant first, Huffman codes most significant first.
class BitWriter {
  public:
    void Bits(uint32_t value, int count) {
        for (int i = 0; i < count; ++i)
            Bit((value >> i) & 1);
    }
    void Code(uint32_t code, int length) {
        for (int i = length - 1; i >= 0; --i)
            Bit((code >> i) & 1);
    }
    void AlignToByte() {
        while (used_ != 0)
            Bit(0);
    }
    void Byte(unsigned char b) {
        AlignToByte();
        bytes_.push_back(b);
    }
    Bytes Take() {
        AlignToByte();
        return bytes_;
    }

  private:
    void Bit(uint32_t b) {
        if (used_ == 0) bytes_.push_back(0);
        bytes_.back() |= static_cast<unsigned char>(b << used_);
        used_ = (used_ + 1) & 7;
    }
    Bytes bytes_;
    int used_ = 0;
};

// Canonical Huffman codes of RFC 1951 section 3.2.2 for the given lengths.
inline std::vector<uint32_t> CanonicalCodes(const std::vector<int>& lengths) {
    int count[16] = {};
    for (int l : lengths)
        ++count[l];
    count[0] = 0;
    uint32_t next[16] = {};
    uint32_t code = 0;
    for (int bits = 1; bits < 16; ++bits) {
        code = (code + count[bits - 1]) << 1;
        next[bits] = code;
    }
    std::vector<uint32_t> codes(lengths.size());
    for (size_t s = 0; s < lengths.size(); ++s)
        if (lengths[s]) codes[s] = next[lengths[s]]++;
    return codes;
}

// Length and distance symbols with their extra bits.
struct Coded {
    int symbol, extraBits;
    uint32_t extra;
};

inline Coded LengthSymbol(int length) {
    static const int base[] = {3,  4,  5,  6,  7,  8,  9,  10, 11,  13,  15,  17,  19,  23, 27,
                               31, 35, 43, 51, 59, 67, 83, 99, 115, 131, 163, 195, 227, 258};
    static const int extra[] = {0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2,
                                2, 3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5, 0};
    int i = 28;
    while (base[i] > length)
        --i;
    return {257 + i, extra[i], static_cast<uint32_t>(length - base[i])};
}

inline Coded DistanceSymbol(int distance) {
    int i = 0;
    int base = 1;
    for (;; ++i) {
        int extra = i < 4 ? 0 : i / 2 - 1;
        if (distance < base + (1 << extra))
            return {i, extra, static_cast<uint32_t>(distance - base)};
        base += 1 << extra;
    }
}

// A DEFLATE block writer over given literal/length and distance code lengths.
class BlockWriter {
  public:
    BlockWriter(BitWriter& w, std::vector<int> lengthLens, std::vector<int> distanceLens)
        : w_(w),
          lengthLens_(std::move(lengthLens)),
          distanceLens_(std::move(distanceLens)),
          lengthCodes_(CanonicalCodes(lengthLens_)),
          distanceCodes_(CanonicalCodes(distanceLens_)) {}

    // The fixed code of RFC 1951 section 3.2.6.
    static BlockWriter Fixed(BitWriter& w) {
        std::vector<int> l(288);
        for (int s = 0; s < 288; ++s)
            l[s] = s < 144 ? 8 : s < 256 ? 9 : s < 280 ? 7 : 8;
        return BlockWriter(w, l, std::vector<int>(32, 5));
    }

    void Symbol(int s) { w_.Code(lengthCodes_[s], lengthLens_[s]); }
    void Literal(unsigned char c) { Symbol(c); }
    void Literals(const Bytes& data) {
        for (unsigned char c : data)
            Literal(c);
    }
    void End() { Symbol(256); }
    void DistanceSymbolCode(int d) { w_.Code(distanceCodes_[d], distanceLens_[d]); }
    void Match(int length, int distance) {
        Coded l = LengthSymbol(length);
        Symbol(l.symbol);
        w_.Bits(l.extra, l.extraBits);
        Coded d = DistanceSymbol(distance);
        DistanceSymbolCode(d.symbol);
        w_.Bits(d.extra, d.extraBits);
    }

  private:
    BitWriter& w_;
    std::vector<int> lengthLens_, distanceLens_;
    std::vector<uint32_t> lengthCodes_, distanceCodes_;
};

// A dynamic block header that sends every code length with a flat 4-bit code-length code
// (symbols 0-15), so that any lengths, valid or not, can be written.
inline void DynamicHeader(BitWriter& w, bool final, const std::vector<int>& lengthLens,
                          const std::vector<int>& distanceLens) {
    w.Bits(final ? 1 : 0, 1);
    w.Bits(2, 2);
    w.Bits(static_cast<uint32_t>(lengthLens.size() - 257), 5);
    w.Bits(static_cast<uint32_t>(distanceLens.size() - 1), 5);
    w.Bits(15, 4);
    static const int order[19] = {16, 17, 18, 0, 8, 7, 9, 6, 10, 5, 11, 4, 12, 3, 13, 2, 14, 1, 15};
    for (int s : order)
        w.Bits(s < 16 ? 4 : 0, 3);
    for (int l : lengthLens)
        w.Code(static_cast<uint32_t>(l), 4);
    for (int l : distanceLens)
        w.Code(static_cast<uint32_t>(l), 4);
}

inline void ZlibHeader(BitWriter& w) {
    w.Byte(0x78);
    w.Byte(0x01);
}

inline void ZlibTrailer(BitWriter& w, const Bytes& data) {
    uLong a = adler32(1, data.data(), static_cast<uInt>(data.size()));
    for (int shift = 24; shift >= 0; shift -= 8)
        w.Byte(static_cast<unsigned char>(a >> shift));
}

}  // namespace zintest
