#include "zin.h"

#include <cstring>

#include "checksum.h"
#include "kau.h"
#include "kauCpu.h"
#include "littleEndian.h"

namespace {

inline void Copy16(unsigned char* dst, const unsigned char* src) {
    std::memcpy(dst, src, 16);
}

}  // namespace

namespace zin {
namespace {

// States of Stream::Inflate.
enum Mode : uint32_t {
    kModeHeader = 0,
    kModeDictionary = 1,
    kModeBlock = 2,
    kModeStored = 3,
    kModeCopy = 4,
    kModeTable = 5,
    kModeCodeLengthCode = 6,
    kModeCodeLengths = 7,
    kModeLength = 8,
    kModeLengthExtra = 9,
    kModeDistance = 10,
    kModeDistanceExtra = 11,
    kModeMatch = 12,
    kModeLiteral = 13,
    kModeTrailer = 14,
    kModeError = 15,
    kModeDone = 16,
};

// A decoding table entry, 32 bits:
//   bits 0-7    bits of input the symbol takes: its code and the extra bits that follow a
//               length or distance code (for a subtable link: the root width)
//   bits 8-11   bits of the code alone (for a link: the subtable width)
//   bits 12-14  kind: subtable link, end of block, invalid code (none: length or distance)
//   bits 16-30  literal byte, length or distance base, code-length symbol, subtable offset
//   bit 31      literal
// With the code and its extra bits counted together, the fast loop takes a length or distance
// in one step: the input bits below bits 0-7, shifted past the code, are the extra value.
// In the fast loop's root table a literal may be followed by a second one, whose code then
// fits in the root after the first's: bits 0-7 count both codes, bits 8-15 hold the second
// literal and bit 24 says it is there. Bits 12-14 of a literal entry are then no kind, so a
// literal is told by bit 31 before any kind is read.
constexpr uint32_t kSubtable = 0x1000;
constexpr uint32_t kEndOfBlock = 0x2000;
constexpr uint32_t kInvalid = 0x4000;
constexpr uint32_t kLiteral = 0x80000000u;
constexpr uint32_t kSecondLiteral = 0x1000000;

constexpr uint32_t InputBits(uint32_t e) {
    return e & 0xff;
}
constexpr uint32_t CodeBits(uint32_t e) {
    return (e >> 8) & 15;
}
constexpr uint32_t ExtraBits(uint32_t e) {
    return InputBits(e) - CodeBits(e);
}
constexpr uint32_t SubtableBits(uint32_t link) {
    return (link >> 8) & 15;
}
// The bit counts of a symbol whose code has `code` bits and is followed by `extra` bits.
constexpr uint32_t SymbolBits(uint32_t code, uint32_t extra) {
    return (code + extra) | (code << 8);
}
constexpr uint32_t Value(uint32_t e) {
    return (e >> 16) & 0x7fff;
}
constexpr uint64_t LowMask(uint32_t n) {
    return (uint64_t{1} << n) - 1;
}

constexpr uint16_t kLengthBase[29] = {3,  4,  5,  6,   7,   8,   9,   10,  11, 13,
                                      15, 17, 19, 23,  27,  31,  35,  43,  51, 59,
                                      67, 83, 99, 115, 131, 163, 195, 227, 258};
constexpr uint8_t kLengthExtra[29] = {0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2,
                                      2, 3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5, 0};
constexpr uint16_t kDistanceBase[30] = {
    1,   2,   3,   4,   5,   7,    9,    13,   17,   25,   33,   49,   65,    97,    129,
    193, 257, 385, 513, 769, 1025, 1537, 2049, 3073, 4097, 6145, 8193, 12289, 16385, 24577};
constexpr uint8_t kDistanceExtra[30] = {0, 0, 0, 0, 1, 1, 2, 2,  3,  3,  4,  4,  5,  5,  6,
                                        6, 7, 7, 8, 8, 9, 9, 10, 10, 11, 11, 12, 12, 13, 13};
// Order in which a dynamic block sends the code-length code's lengths.
constexpr uint8_t kCodeLengthOrder[19] = {16, 17, 18, 0, 8,  7, 9,  6, 10, 5,
                                          11, 4,  12, 3, 13, 2, 14, 1, 15};

constexpr uint32_t kMaxCodeBits = 15;
constexpr uint32_t kLengthRoot = 9;

// The fast loop's bit buffer is one machine word: a 32-bit core refills a 32-bit word more
// often, but shifts it in one step where a 64-bit buffer takes a pair of registers and several
// steps per shift, and keeps the loop's state in registers.
#if UINTPTR_MAX == 0xffffffffu
using FastWord = uint32_t;
#else
using FastWord = uint64_t;
#endif
// A 64-bit loop decodes from tables of its own, built for each block: roots wide enough that
// few codes need a subtable, literals in pairs. With the fewer literals a 32-bit word holds per
// refill, building them costs more than they save (measured on 32-bit ARM), and a 32-bit loop
// reads the state machine's tables.
constexpr bool kFastTables = sizeof(FastWord) == 8;
constexpr uint32_t kFastLengthRoot = 10;
constexpr uint32_t kFastDistanceRoot = 9;
static_assert(kFastLengthSpace == (kFastTables ? 1u << kFastLengthRoot : 1u) &&
                  kFastDistanceSpace == (kFastTables ? 1u << kFastDistanceRoot : 1u),
              "the header sizes the fast tables for the same processors");

// What one pass of the fast loop may need: three refills of up to 7 bytes read 8 at a time
// (or four of 3 bytes read 4 at a time), and up to three literals (two from the root table, one
// from a subtable), or nine where the root table pairs them.
constexpr uint32_t kFastInput = 22;
constexpr uint32_t kFastOutput = kFastTables ? 9 : 3;
constexpr uint32_t kDistanceRoot = 6;
constexpr uint32_t kCodeLengthRoot = 7;

enum class Code { CodeLengths, Lengths, Distances };

// The entry of one symbol whose code has `len` bits.
constexpr uint32_t SymbolEntry(Code code, uint32_t symbol, uint32_t len) {
    switch (code) {
        case Code::CodeLengths:
            return (symbol << 16) | SymbolBits(len, 0);
        case Code::Lengths:
            if (symbol < 256) return kLiteral | (symbol << 16) | SymbolBits(len, 0);
            if (symbol == 256) return kEndOfBlock | SymbolBits(len, 0);
            if (symbol < 286)
                return (uint32_t{kLengthBase[symbol - 257]} << 16) |
                       SymbolBits(len, kLengthExtra[symbol - 257]);
            break;
        case Code::Distances:
            if (symbol < 30)
                return (uint32_t{kDistanceBase[symbol]} << 16) |
                       SymbolBits(len, kDistanceExtra[symbol]);
            break;
    }
    return kInvalid | SymbolBits(len, 0);
}

// The low `bits` bits of `code` in reverse order (bits <= 16).
constexpr uint32_t Reverse(uint32_t code, uint32_t bits) {
    code = ((code & 0x5555) << 1) | ((code >> 1) & 0x5555);
    code = ((code & 0x3333) << 2) | ((code >> 2) & 0x3333);
    code = ((code & 0x0f0f) << 4) | ((code >> 4) & 0x0f0f);
    code = ((code & 0x00ff) << 8) | ((code >> 8) & 0x00ff);
    return code >> (16 - bits);
}

// Builds the decoding table of the canonical Huffman code given by `lens[0..n)` into `table`
// (at most `space` entries). `*rootBits` is the requested root width in and the one used out:
// it shrinks to the longest code. Codes longer than the root continue in subtables placed
// after the root table. Returns the entries used, or 0 when the lengths are over-subscribed,
// incomplete (other than a single one-bit length or distance code, which RFC 1951 allows),
// or the table does not fit.
constexpr uint32_t BuildTable(Code code, const uint16_t* lens, uint32_t n, uint32_t* rootBits,
                              uint32_t* table, uint32_t space, uint16_t* work) {
    uint32_t count[kMaxCodeBits + 1] = {};
    for (uint32_t s = 0; s < n; ++s)
        ++count[lens[s]];
    count[0] = 0;
    uint32_t longest = kMaxCodeBits;
    while (longest > 0 && count[longest] == 0)
        --longest;
    if (longest == 0) {
        // No codes at all: acceptable only for distances (a block of literals only).
        if (code != Code::Distances || space < 2) return 0;
        table[0] = table[1] = kInvalid | SymbolBits(1, 0);
        *rootBits = 1;
        return 2;
    }
    int32_t left = 1;
    for (uint32_t len = 1; len <= kMaxCodeBits; ++len) {
        left = left * 2 - static_cast<int32_t>(count[len]);
        if (left < 0) return 0;
    }
    if (left > 0 && (code == Code::CodeLengths || longest != 1)) return 0;

    uint32_t root = *rootBits < longest ? *rootBits : longest;
    uint32_t rootSize = uint32_t{1} << root;
    if (rootSize > space) return 0;
    if (left > 0) {
        for (uint32_t i = 0; i < rootSize; ++i)
            table[i] = kInvalid | SymbolBits(root, 0);
    }

    // Symbols sorted by code length, then by value: the canonical order of code values.
    uint32_t offset[kMaxCodeBits + 2] = {};
    for (uint32_t len = 1; len <= kMaxCodeBits; ++len)
        offset[len + 1] = offset[len] + count[len];
    uint32_t total = offset[kMaxCodeBits + 1];
    for (uint32_t s = 0; s < n; ++s) {
        if (lens[s]) work[offset[lens[s]]++] = static_cast<uint16_t>(s);
    }
    uint32_t next[kMaxCodeBits + 1] = {};
    uint32_t value = 0;
    for (uint32_t len = 1; len <= kMaxCodeBits; ++len) {
        value = (value + count[len - 1]) << 1;
        next[len] = value;
    }

    uint32_t used = rootSize;
    uint32_t subStart = 0, subBits = 0, prefix = ~0u;
    for (uint32_t k = 0; k < total; ++k) {
        uint32_t symbol = work[k];
        uint32_t len = lens[symbol];
        uint32_t codeValue = next[len]++;
        uint32_t reversed = Reverse(codeValue, len);
        uint32_t entry = SymbolEntry(code, symbol, len);
        if (len <= root) {
            for (uint32_t i = reversed; i < rootSize; i += uint32_t{1} << len)
                table[i] = entry;
            continue;
        }
        uint32_t low = reversed & (rootSize - 1);
        if (low != prefix) {
            // A new subtable, as wide as the longest code sharing these first root bits; such
            // codes follow each other in canonical order.
            prefix = low;
            uint32_t top = codeValue >> (len - root);
            uint32_t widest = len;
            uint32_t ahead[kMaxCodeBits + 1] = {};
            for (uint32_t b = 0; b <= kMaxCodeBits; ++b)
                ahead[b] = next[b];
            for (uint32_t j = k + 1; j < total; ++j) {
                uint32_t l = lens[work[j]];
                if ((ahead[l]++ >> (l - root)) != top) break;
                widest = l;
            }
            subStart = used;
            subBits = widest - root;
            used += uint32_t{1} << subBits;
            if (used > space) return 0;
            table[low] = kSubtable | (subStart << 16) | (subBits << 8) | root;
        }
        for (uint32_t i = reversed >> root; i < (uint32_t{1} << subBits);
             i += uint32_t{1} << (len - root))
            table[subStart + i] = entry;
    }
    *rootBits = root;
    return used;
}

// Copies the root table `root` into `pairs` with each literal paired with the literal that
// follows it whenever both codes fit in the root together: the entry at index
// i >> (first code's length) is the second code's when that code fits. Without `pairable` (no two
// literal codes are that short) it only copies.
constexpr void PairLiterals(const uint32_t* root, uint32_t rootBits, bool pairable,
                            uint32_t* pairs) {
    for (uint32_t i = 0; i < (1u << rootBits); ++i) {
        const uint32_t first = root[i], second = root[i >> InputBits(first)];
        const bool paired = pairable && (first & second & kLiteral) &&
                            InputBits(first) + InputBits(second) <= rootBits;
        pairs[i] =
            paired ? (first & ~0xff00u) + InputBits(second) + (Value(second) << 8) + kSecondLiteral
                   : first;
    }
}

// Widens in place to 2^wideBits entries the copy, in the first 2^rootBits entries of `table`, of
// the root of `source` (its literals perhaps paired): every entry repeats, and where one of the
// source's links leads to a subtable that fits in the wider root, its codes take the link's
// places. Without `links` the root holds none.
constexpr void Widen(uint32_t* table, uint32_t rootBits, uint32_t wideBits, const uint32_t* source,
                     bool links) {
    const uint32_t rootSize = 1u << rootBits, wideSize = 1u << wideBits;
    for (uint32_t held = rootSize; held < wideSize; held *= 2) {
        for (uint32_t i = 0; i < held; ++i)
            table[held + i] = table[i];
    }
    for (uint32_t j = 0; links && j < rootSize; ++j) {
        const uint32_t link = source[j];
        if (!(link & kSubtable) || rootBits + SubtableBits(link) > wideBits) continue;
        for (uint32_t i = j; i < wideSize; i += rootSize)
            table[i] = source[Value(link) + ((i >> rootBits) & LowMask(SubtableBits(link)))];
    }
}

// Whether two of the literal codes whose lengths `lens` gives fit in `bits` together.
constexpr bool LiteralsPair(const uint16_t* lens, uint32_t bits) {
    uint32_t shortest = kMaxCodeBits;
    for (uint32_t symbol = 0; symbol < 256; ++symbol) {
        if (lens[symbol] != 0 && lens[symbol] < shortest) shortest = lens[symbol];
    }
    return 2 * shortest <= bits;
}

// The fast loop's literal/length root from the table `lengths`, of root `rootBits` and `used`
// entries with its subtables, of the codes whose lengths `lens` gives: its literals paired, then
// widened to kFastLengthRoot bits, so that the loop masks it with a constant.
constexpr void BuildFastLengthRoot(const uint32_t* lengths, uint32_t rootBits, uint32_t used,
                                   const uint16_t* lens, uint32_t* fast) {
    PairLiterals(lengths, rootBits, LiteralsPair(lens, rootBits), fast);
    Widen(fast, rootBits, kFastLengthRoot, lengths, used > (1u << rootBits));
}

// The fast loop's tables for a block whose tables take `lengthUsed` and `distanceUsed` entries.
// On 64-bit processors: the literal/length root, always; the distance root widened where some
// codes run past it. A 32-bit loop takes the tables themselves.
void BuildFastTables(Stream& s, uint32_t lengthUsed, uint32_t distanceUsed) {
    s.fastLengthCodes = s.lengthCodes;
    s.fastDistanceCodes = s.distanceCodes;
    s.fastDistanceBits = s.distanceBits;
    if constexpr (kFastTables) {
        BuildFastLengthRoot(s.lengthCodes, s.lengthBits, lengthUsed, s.lens, s.fastLengths);
        s.fastLengthCodes = s.fastLengths;
        const uint32_t distanceRoot = 1u << s.distanceBits;
        if (distanceUsed > distanceRoot) {
            std::memcpy(s.fastDistances, s.distanceCodes, distanceRoot * sizeof(uint32_t));
            Widen(s.fastDistances, s.distanceBits, kFastDistanceRoot, s.distanceCodes, true);
            s.fastDistanceCodes = s.fastDistances;
            s.fastDistanceBits = kFastDistanceRoot;
        }
    }
}

struct FixedTables {
    uint32_t lengths[1 << kLengthRoot];
    uint32_t fastLengths[kFastTables ? 1 << kFastLengthRoot : 1];
    uint32_t distances[32];
};

constexpr FixedTables MakeFixedTables() {
    FixedTables fixed{};
    uint16_t lens[288] = {};
    uint16_t work[288] = {};
    for (uint32_t s = 0; s < 288; ++s)
        lens[s] = s < 144 ? 8 : s < 256 ? 9 : s < 280 ? 7 : 8;
    uint32_t root = kLengthRoot;
    const uint32_t used =
        BuildTable(Code::Lengths, lens, 288, &root, fixed.lengths, 1 << kLengthRoot, work);
    if constexpr (kFastTables)
        BuildFastLengthRoot(fixed.lengths, root, used, lens, fixed.fastLengths);
    for (uint32_t s = 0; s < 32; ++s)
        lens[s] = 5;
    root = 5;
    BuildTable(Code::Distances, lens, 32, &root, fixed.distances, 32, work);
    return fixed;
}

constexpr FixedTables kFixed = MakeFixedTables();

// ---------------------------------------------------------------------------------------------
// Match copies. The fast ones move 16-byte chunks and may write up to 15 bytes past the end
// of the match; callers use them only with that much room left in the output.

// How a pattern of `dist` < 16 bytes is built: `whole`, for dist < 8, is where the first 8
// bytes of it, whole periods, go again; `step` is the largest multiple of the period that the
// built part holds. A table, since a division per short match costs a call on 32-bit ARM.
struct ShortPatterns {
    uint8_t whole[16];
    uint8_t step[16];
};

constexpr ShortPatterns MakeShortPatterns() {
    ShortPatterns p{};
    for (uint32_t dist = 1; dist < 16; ++dist) {
        p.whole[dist] = static_cast<uint8_t>(dist < 8 ? 8 - 8 % dist : 0);
        const uint32_t built = dist < 8 ? p.whole[dist] + 8u : 16u;
        p.step[dist] = static_cast<uint8_t>(built - built % dist);
    }
    return p;
}

constexpr ShortPatterns kShortPatterns = MakeShortPatterns();

// Copies `len` bytes from `dist` bytes back; the source may overlap the destination.
inline void CopyMatchWide(unsigned char* out, uint32_t dist, uint32_t len) {
    unsigned char* const end = out + len;
    const unsigned char* src = out - dist;
    if (dist >= 16) {
        do {
            Copy16(out, src);
            out += 16;
            src += 16;
        } while (out < end);
        return;
    }
    // A short distance repeats a pattern of `dist` bytes: build at least 16 bytes of it with a
    // few wide moves, then store 16 bytes every `step` bytes.
    unsigned char pattern[24];
    if (dist < 8) {
        uint64_t bytes = LoadLittleEndian<uint64_t>(src) & LowMask(8 * dist);
        for (uint32_t have = dist; have < 8; have *= 2)
            bytes |= bytes << (8 * have);
        StoreLittleEndian(pattern, bytes);
        StoreLittleEndian(pattern + kShortPatterns.whole[dist], bytes);
    } else {
        std::memcpy(pattern, src, 16);
        std::memcpy(pattern + dist, pattern, 8);
    }
    const uint32_t step = kShortPatterns.step[dist];
    do {
        std::memcpy(out, pattern, 16);
        out += step;
    } while (out < end);
}

// Exact copy of `len` bytes from `dist` bytes back; writes nothing past the match. All but the
// last 15 bytes go by the wide copy, whose stores then end within the match. Kept out of line:
// it serves the rare matches that end near the end of the output, and inlined it costs the
// fast loop registers on 32-bit ARM.
[[gnu::noinline]] void CopyMatchExact(unsigned char* out, uint32_t dist, uint32_t len) {
    const unsigned char* src = out - dist;
    if (dist >= len) {
        std::memcpy(out, src, len);
        return;
    }
    uint32_t i = 0;
    if (len > 15) {
        i = len - 15;
        CopyMatchWide(out, dist, i);
    }
    for (; i < len; ++i)
        out[i] = src[i];
}

// Non-overlapping copy in 16-byte chunks (may write up to 15 bytes past the end).
inline void CopyChunks(unsigned char* out, const unsigned char* src, uint32_t len) {
    unsigned char* const end = out + len;
    do {
        Copy16(out, src);
        out += 16;
        src += 16;
    } while (out < end);
}

// The input a call works on, with its bit buffer, held in locals while the states run.
struct BitReader {
    const unsigned char* next;
    uint32_t have;
    uint64_t hold;
    uint32_t bits;

    // Pulls whole bytes until `n` bits are held; false when the input runs out first.
    bool Need(uint32_t n) {
        while (bits < n) {
            if (!PullByte()) return false;
        }
        return true;
    }
    bool PullByte() {
        if (have == 0) return false;
        hold |= uint64_t{*next++} << bits;
        bits += 8;
        --have;
        return true;
    }
    uint32_t Peek(uint32_t n) const { return static_cast<uint32_t>(hold & LowMask(n)); }
    void Drop(uint32_t n) {
        hold >>= n;
        bits -= n;
    }
    // Decodes the entry at the head of the buffer, following a subtable link; false when the
    // input runs out before the whole code is held.
    bool Decode(const uint32_t* table, uint32_t root, uint32_t* entry) {
        uint32_t e;
        for (;;) {
            e = table[hold & LowMask(root)];
            if (((e & kSubtable) ? root : CodeBits(e)) <= bits) break;
            if (!PullByte()) return false;
        }
        if (e & kSubtable) {
            const uint32_t* sub = table + Value(e);
            uint32_t width = SubtableBits(e);
            for (;;) {
                e = sub[(hold >> root) & LowMask(width)];
                if (CodeBits(e) <= bits) break;
                if (!PullByte()) return false;
            }
        }
        *entry = e;
        return true;
    }
};

// Builds a dynamic block's literal/length table and, after it, its distance table from the
// code lengths read into `s.lens`.
bool BuildBlockTables(Stream& s) {
    if (s.lens[256] == 0) return false;  // a block must be able to end
    uint32_t root = kLengthRoot;
    const uint32_t used =
        BuildTable(Code::Lengths, s.lens, s.literalCount, &root, s.codes, kTableSpace, s.work);
    if (used == 0) return false;
    s.lengthCodes = s.codes;
    s.lengthBits = root;
    root = kDistanceRoot;
    const uint32_t distanceUsed =
        BuildTable(Code::Distances, s.lens + s.literalCount, s.distanceCount, &root, s.codes + used,
                   kTableSpace - used, s.work);
    if (distanceUsed == 0) return false;
    s.distanceCodes = s.codes + used;
    s.distanceBits = root;
    BuildFastTables(s, used, distanceUsed);
    return true;
}

inline uint32_t ByteSwap32(uint32_t v) {
    return __builtin_bswap32(v);
}

// ---------------------------------------------------------------------------------------------
// The fast loop, for the bulk of a block.

template <typename Word>
struct FastBits {
    // A refill loads a whole word and takes the bytes that fit: at least this many bits held.
    static constexpr uint32_t kRefilled = 8 * sizeof(Word) - 8;
    // A 64-bit word holds a length, its distance and both their extra bits (48 at most) after
    // one refill; a 32-bit word is refilled before the distance and again before its extra bits.
    static constexpr bool kWholeMatch = kRefilled >= 48;
    // A 64-bit word keeps a whole root entry held after its literals, so that the next entry is
    // looked up while the refill runs; a 32-bit word looks it up after each refill instead.
    static constexpr bool kLookAhead = kWholeMatch;
    // The widest root of the literal/length codes the loop decodes from.
    static constexpr uint32_t kRoot = kFastTables ? kFastLengthRoot : kLengthRoot;
    // Literals from the root table decoded per refill: four in a 64-bit word, two in a 32-bit one.
    static constexpr uint32_t kLiterals = (kRefilled - (kLookAhead ? kRoot : 0)) / kRoot;
};

// Inlined into each caller, so that each compiles it for the instructions it is built for.
template <typename Word>
[[gnu::always_inline]] inline void FastLoop(Stream& s, unsigned long start) {
    using Bits = FastBits<Word>;
    static_assert((kFastTables ? 2 : 1) * Bits::kLiterals + 1 <= kFastOutput,
                  "a pass writes at most kFastOutput bytes");
    // The states leave fewer bits than a word holds between symbols; should they hold more,
    // they go on alone.
    if (s.bitCount >= 8 * sizeof(Word)) return;
    // Only what every symbol needs is held in locals; the rest is read from the structure on
    // the rarer paths, which keeps the loop's state in registers.
    const unsigned char* in = s.nextIn;
    const unsigned char* const inFirst = in;
    const unsigned char* const inEnd = in + s.availIn;
    unsigned char* out = s.nextOut;
    unsigned char* const outEnd = out + s.availOut;
    // Earliest output still in memory: this call's, and the history before it when the output
    // keeps it. Distances reaching further back are served by the window.
    const uint32_t inMemory =
        static_cast<uint32_t>(start) - s.availOut + (s.historyInOutput ? s.windowFill : 0);
    unsigned char* const outBegin = out - inMemory;
    const uint32_t windowHeld = s.historyInOutput ? 0 : s.windowFill;
    Word hold = static_cast<Word>(s.bitBuffer);
    // With a 64-bit word the count of bits held is the low byte of `bits`: a symbol is taken by
    // subtracting its whole entry, whose low byte is the bits the symbol takes, which spares
    // taking the count out of it. With a 32-bit word on 32-bit ARM the plain count costs fewer
    // instructions (measured).
    uint32_t bits = s.bitCount;
    constexpr bool kCountInLowByte = sizeof(Word) == 8;
    auto bitsHeld = [&]() { return kCountInLowByte ? bits & 0xff : bits; };
    const uint32_t* const rootCodes = s.fastLengthCodes;
    const uint32_t* const dcodes = s.fastDistanceCodes;
    const uint32_t lengthBits = s.lengthBits, distanceBits = s.distanceBits;
    const Word lmask = static_cast<Word>(LowMask(kFastTables ? kFastLengthRoot : lengthBits));
    const Word dmask = static_cast<Word>(LowMask(s.fastDistanceBits));

    // A refill loads a word and takes the whole bytes that fit beside the bits held (up to 7
    // bytes of a 64-bit word, 3 of a 32-bit one): a pass reads at most kFastInput bytes from
    // where it starts. It writes at most kLiterals + 1 literals or one match that it checks
    // against the room left.
    auto refill = [&]() {
        hold |= LoadLittleEndian<Word>(in) << bitsHeld();
        in += (8 * sizeof(Word) - 1 - bitsHeld()) >> 3;
        bits |= Bits::kRefilled;
    };
    auto consume = [&](uint32_t n) {
        hold >>= n;
        bits -= n;
    };
    auto consumeSymbol = [&](uint32_t e) {
        hold >>= InputBits(e);
        bits -= kCountInLowByte ? e : InputBits(e);
    };
    auto isLiteral = [](uint32_t e) { return static_cast<int32_t>(e) < 0; };
    auto takeBits = [&](uint32_t n) {
        const uint32_t value = static_cast<uint32_t>(hold & LowMask(n));
        consume(n);
        return value;
    };
    // The value of a length or distance entry, its code and extra bits consumed together.
    auto takeSymbol = [&](uint32_t e) {
        const Word input = hold & static_cast<Word>(LowMask(InputBits(e)));
        const uint32_t extra = static_cast<uint32_t>(input >> CodeBits(e));
        consumeSymbol(e);
        return Value(e) + extra;
    };
    const bool enough = s.availIn >= kFastInput && s.availOut >= kFastOutput;
    const unsigned char* const inLast = enough ? inEnd - kFastInput : in;
    unsigned char* const outLast = enough ? outEnd - kFastOutput : out;

    const bool fast = enough && in <= inLast && out <= outLast;
    if (fast) refill();
    uint32_t e = fast ? rootCodes[hold & lmask] : 0;
    while (fast && in <= inLast && out <= outLast) {
        refill();
        if constexpr (!Bits::kLookAhead) e = rootCodes[hold & lmask];
        uint32_t literals = 0;
        for (; literals < Bits::kLiterals && isLiteral(e); ++literals) {
            consumeSymbol(e);
            if constexpr (kFastTables) {
                // Both bytes go out; the second counts only when the entry holds a pair.
                out[0] = static_cast<unsigned char>(e >> 16);
                out[1] = static_cast<unsigned char>(e >> 8);
                out += 1 + ((e >> 24) & 1);
            } else {
                *out++ = static_cast<unsigned char>(Value(e));
            }
            e = rootCodes[hold & lmask];
        }
        if (literals == Bits::kLiterals) continue;
        if (bitsHeld() < (Bits::kWholeMatch ? 48 : Bits::kRefilled)) refill();
        if (e & kSubtable) {
            // Codes longer than the root: literals among them are written right away.
            e = s.lengthCodes[Value(e) + ((hold >> lengthBits) & LowMask(SubtableBits(e)))];
            if (isLiteral(e)) {
                consumeSymbol(e);
                *out++ = static_cast<unsigned char>(Value(e));
                e = rootCodes[hold & lmask];
                continue;
            }
        }
        if (e & (kEndOfBlock | kInvalid)) {
            if (e & kEndOfBlock) {
                consumeSymbol(e);
                s.mode = kModeBlock;
            } else {
                s.mode = kModeError;
            }
            break;
        }
        const unsigned char* const symbolIn = in;
        const Word symbolHold = hold;
        const uint32_t symbolBits = bits;
        const uint32_t len = takeSymbol(e);
        if constexpr (!Bits::kWholeMatch) refill();
        uint32_t d = dcodes[hold & dmask];
        if (d & (kSubtable | kInvalid)) {
            if (d & kSubtable) {
                // Links lead into the state machine's table, which a 32-bit loop reads as its
                // root table: it reaches it through the pointer it holds, sparing a register.
                const uint32_t* const table = kFastTables ? s.distanceCodes : dcodes;
                d = table[Value(d) + ((hold >> distanceBits) & LowMask(SubtableBits(d)))];
            }
            if (d & kInvalid) {
                s.mode = kModeError;
                break;
            }
        }
        uint32_t dist;
        if (Bits::kWholeMatch || InputBits(d) <= bitsHeld()) {
            dist = takeSymbol(d);
        } else {
            // A long distance code with many extra bits can take more than a refilled 32-bit
            // word holds: its code goes first, then a refill, then the extra bits.
            consume(CodeBits(d));
            refill();
            dist = Value(d) + takeBits(ExtraBits(d));
        }

        const uint32_t room = static_cast<uint32_t>(outEnd - out);
        if (len > room) {
            // The match does not fit: leave it to the state machine, which copies it in parts.
            in = symbolIn;
            hold = symbolHold;
            bits = symbolBits;
            break;
        }
        const bool wide = len + 16 <= room;
        const uint32_t held = static_cast<uint32_t>(out - outBegin);
        // The part of the match before the output in memory comes from the window, which is
        // contiguous for a whole match thanks to its mirrored start.
        uint32_t fromWindow = 0;
        if (dist > held) {
            const uint32_t back = dist - held;
            if (back > windowHeld) {
                s.mode = kModeError;
                break;
            }
            const uint32_t wpos = s.windowPos;
            const unsigned char* src =
                s.window + (back <= wpos ? wpos - back : wpos + kWindowSize - back);
            fromWindow = back < len ? back : len;
            if (wide) {
                CopyChunks(out, src, fromWindow);
            } else {
                std::memcpy(out, src, fromWindow);
            }
        }
        if (fromWindow < len) {
            if (wide) {
                CopyMatchWide(out + fromWindow, dist, len - fromWindow);
            } else {
                CopyMatchExact(out + fromWindow, dist, len - fromWindow);
            }
        }
        out += len;
        if constexpr (Bits::kLookAhead) {
            if (bitsHeld() < Bits::kRoot) refill();
            e = rootCodes[hold & lmask];
        }
    }

    // Hand whole unused bytes back to the input, as far as they were read here.
    bits = bitsHeld();
    uint32_t giveBack = bits >> 3;
    const uint32_t readHere = static_cast<uint32_t>(in - inFirst);
    if (giveBack > readHere) giveBack = readHere;
    in -= giveBack;
    bits -= giveBack * 8;
    hold &= static_cast<Word>(LowMask(bits));

    s.nextIn = in;
    s.availIn = static_cast<uint32_t>(inEnd - in);
    s.nextOut = out;
    s.availOut = static_cast<uint32_t>(outEnd - out);
    s.bitBuffer = hold;
    s.bitCount = bits;
}

void FastLoopPortable(Stream& s, unsigned long start) {
    FastLoop<FastWord>(s, start);
}

#if defined(__x86_64__)
// For x86 processors with BMI2, whose shifts take their count from any register and leave the
// flags alone, and which form a low mask in one instruction.
__attribute__((target("bmi2"))) void FastLoopBmi2(Stream& s, unsigned long start) {
    FastLoop<uint64_t>(s, start);
}
#endif

}  // namespace

void Stream::Reset() {
    availIn = totalIn = 0;
    availOut = totalOut = 0;
    check = 0;
    mode = kModeHeader;
    last = 0;
    historyInOutput = 0;
    windowFill = windowPos = 0;
    bitBuffer = 0;
    bitCount = 0;
    length = distance = extra = 0;
    lengthCodes = distanceCodes = fastLengthCodes = fastDistanceCodes = codes;
    lengthBits = distanceBits = fastDistanceBits = 0;
    codeLengthCount = literalCount = distanceCount = haveCount = 0;
}

void Stream::UseFixedTables() {
    lengthCodes = kFixed.lengths;
    lengthBits = kLengthRoot;
    fastLengthCodes = kFastTables ? kFixed.fastLengths : kFixed.lengths;
    distanceCodes = fastDistanceCodes = kFixed.distances;
    distanceBits = fastDistanceBits = 5;
}

void Stream::InflateFast(unsigned long start) {
#if defined(__x86_64__)
    if (kau::cpu::Available().bmi2) return FastLoopBmi2(*this, start);
#endif
    FastLoopPortable(*this, start);
}

namespace {

// Appends output to the circular window and keeps the mirror of its first kMaxMatch bytes.
void AppendToWindow(Stream& s, const unsigned char* p, uint32_t n) {
    if (n == 0) return;
    if (n >= kWindowSize) {
        std::memcpy(s.window, p + (n - kWindowSize), kWindowSize);
        s.windowPos = 0;
        s.windowFill = kWindowSize;
        std::memcpy(s.window + kWindowSize, s.window, kMaxMatch);
        return;
    }
    const uint32_t pos = s.windowPos;
    const uint32_t first = n < kWindowSize - pos ? n : kWindowSize - pos;
    std::memcpy(s.window + pos, p, first);
    if (n > first) std::memcpy(s.window, p + first, n - first);
    // Bring the mirror up to date over the part of [0, kMaxMatch) just written.
    const uint32_t touchedFrom = n > first ? 0 : pos;
    const uint32_t touchedTo = n > first ? n - first : pos + n;
    if (touchedFrom < kMaxMatch) {
        const uint32_t to = touchedTo < kMaxMatch ? touchedTo : kMaxMatch;
        std::memcpy(s.window + kWindowSize + touchedFrom, s.window + touchedFrom, to - touchedFrom);
    }
    s.windowPos = (pos + n) & (kWindowSize - 1);
    s.windowFill = s.windowFill + n < kWindowSize ? s.windowFill + n : kWindowSize;
}

// What one Inflate call works on: the input with its bit buffer, the output, the output space
// the call began with, and how far the output is already in the Adler-32.
struct Call {
    BitReader r;
    unsigned char* out;
    uint32_t room;
    uint32_t outStart;
    unsigned char* checked;

    uint32_t Produced() const { return outStart - room; }
};

// Each state below does the work of one mode and answers whether the machine can go on: false
// when it waits for more input or output space, or has failed (the mode then says so).

bool Fail(Stream& s) {
    s.mode = kModeError;
    return false;
}

// The zlib header: CMF and FLG together a multiple of 31, method 8 (deflate), a window of at
// most 32 KiB. A preset dictionary is announced by FLG's bit 5.
bool ZlibHeader(Stream& s, Call& c) {
    if (!c.r.Need(16)) return false;
    const uint32_t cmf = c.r.Peek(8);
    const uint32_t flg = c.r.Peek(16) >> 8;
    if ((cmf * 256 + flg) % 31 != 0 || (cmf & 15) != 8 || (cmf >> 4) > 7) return Fail(s);
    c.r.Drop(16);
    s.check = 1;
    s.mode = (flg & 0x20) ? kModeDictionary : kModeBlock;
    return true;
}

// Preset dictionaries are refused; the identifier is kept for the record.
bool DictionaryIdentifier(Stream& s, Call& c) {
    if (!c.r.Need(32)) return false;
    s.check = ByteSwap32(c.r.Peek(32));
    c.r.Drop(32);
    return Fail(s);
}

// A block header: BFINAL, then BTYPE (stored, fixed codes, dynamic codes; 3 is reserved).
// After the final block comes the trailer.
bool BlockHeader(Stream& s, Call& c) {
    if (s.last) {
        s.mode = kModeTrailer;
        return true;
    }
    if (!c.r.Need(3)) return false;
    s.last = static_cast<uint8_t>(c.r.Peek(1));
    const uint32_t type = c.r.Peek(3) >> 1;
    c.r.Drop(3);
    if (type == 0) {
        s.mode = kModeStored;
    } else if (type == 1) {
        s.UseFixedTables();
        s.mode = kModeLength;
    } else if (type == 2) {
        s.mode = kModeTable;
    } else {
        return Fail(s);
    }
    return true;
}

// A stored block starts at a byte boundary with LEN and its ones' complement NLEN.
bool StoredHeader(Stream& s, Call& c) {
    c.r.Drop(c.r.bits & 7);
    if (!c.r.Need(32)) return false;
    const uint32_t len = c.r.Peek(16);
    const uint32_t nlen = c.r.Peek(32) >> 16;
    if (len != (~nlen & 0xffff)) return Fail(s);
    c.r.Drop(32);
    s.length = len;
    s.mode = kModeCopy;
    return true;
}

// A stored block's LEN bytes: whole bytes still in the bit buffer first, then straight from
// the input.
bool StoredCopy(Stream& s, Call& c) {
    BitReader& r = c.r;
    while (s.length > 0 && c.room > 0 && r.bits >= 8) {
        *c.out++ = static_cast<unsigned char>(r.hold);
        r.Drop(8);
        --c.room;
        --s.length;
    }
    uint32_t n = s.length;
    if (n > r.have) n = r.have;
    if (n > c.room) n = c.room;
    std::memcpy(c.out, r.next, n);
    c.out += n;
    c.room -= n;
    r.next += n;
    r.have -= n;
    s.length -= n;
    if (s.length != 0) return false;
    s.mode = kModeBlock;
    return true;
}

// A dynamic block's counts: HLIT + 257 literal/length codes (at most 286), HDIST + 1 distance
// codes (at most 30), HCLEN + 4 code-length codes.
bool DynamicHeader(Stream& s, Call& c) {
    if (!c.r.Need(14)) return false;
    s.literalCount = c.r.Peek(5) + 257;
    s.distanceCount = (c.r.Peek(10) >> 5) + 1;
    s.codeLengthCount = (c.r.Peek(14) >> 10) + 4;
    c.r.Drop(14);
    if (s.literalCount > 286 || s.distanceCount > 30) return Fail(s);
    s.haveCount = 0;
    s.mode = kModeCodeLengthCode;
    return true;
}

// The code-length code: 3 bits per length in the permuted order, the unsent ones zero; the
// lengths must form a complete code.
bool CodeLengthCode(Stream& s, Call& c) {
    while (s.haveCount < s.codeLengthCount && c.r.Need(3)) {
        s.lens[kCodeLengthOrder[s.haveCount++]] = static_cast<uint16_t>(c.r.Peek(3));
        c.r.Drop(3);
    }
    if (s.haveCount < s.codeLengthCount) return false;
    while (s.haveCount < 19)
        s.lens[kCodeLengthOrder[s.haveCount++]] = 0;
    uint32_t root = kCodeLengthRoot;
    if (!BuildTable(Code::CodeLengths, s.lens, 19, &root, s.codes, kTableSpace, s.work))
        return Fail(s);
    s.lengthCodes = s.codes;
    s.lengthBits = root;
    s.haveCount = 0;
    s.mode = kModeCodeLengths;
    return true;
}

// The literal/length and distance code lengths, one sequence for both: 0-15 are lengths, 16
// repeats the previous length 3-6 times, 17 and 18 repeat zero 3-10 and 11-138 times; no
// repeat may run past the end. Then both decoding tables are built.
bool CodeLengths(Stream& s, Call& c) {
    BitReader& r = c.r;
    const uint32_t wanted = s.literalCount + s.distanceCount;
    while (s.haveCount < wanted) {
        uint32_t e;
        if (!r.Decode(s.lengthCodes, s.lengthBits, &e)) return false;
        const uint32_t symbol = Value(e);
        if (symbol < 16) {
            r.Drop(CodeBits(e));
            s.lens[s.haveCount++] = static_cast<uint16_t>(symbol);
            continue;
        }
        const uint32_t extraBits = symbol == 16 ? 2 : symbol == 17 ? 3 : 7;
        if (!r.Need(CodeBits(e) + extraBits)) return false;
        r.Drop(CodeBits(e));
        uint32_t value = 0;
        if (symbol == 16) {
            if (s.haveCount == 0) return Fail(s);
            value = s.lens[s.haveCount - 1];
        }
        const uint32_t repeat = r.Peek(extraBits) + (symbol == 18 ? 11 : 3);
        r.Drop(extraBits);
        if (s.haveCount + repeat > wanted) return Fail(s);
        for (uint32_t i = 0; i < repeat; ++i)
            s.lens[s.haveCount++] = static_cast<uint16_t>(value);
    }
    if (!BuildBlockTables(s)) return Fail(s);
    s.mode = kModeLength;
    return true;
}

// Hands the call to the fast loop while it has the input and space a pass needs; the loop
// leaves a match that does not fit, the end of the block and errors to the states.
void RunFastLoop(Stream& s, Call& c) {
    s.nextIn = c.r.next;
    s.availIn = c.r.have;
    s.bitBuffer = c.r.hold;
    s.bitCount = c.r.bits;
    s.nextOut = c.out;
    s.availOut = c.room;
    s.InflateFast(c.outStart);
    c.r = BitReader{s.nextIn, s.availIn, s.bitBuffer, s.bitCount};
    c.out = s.nextOut;
    c.room = s.availOut;
}

// A literal/length symbol: a literal byte, the end of the block, or the base of a match length
// with its count of extra bits.
bool LengthSymbol(Stream& s, Call& c) {
    if (c.r.have >= kFastInput && c.room >= kFastOutput) {
        RunFastLoop(s, c);
        if (s.mode != kModeLength) return true;
    }
    uint32_t e;
    if (!c.r.Decode(s.lengthCodes, s.lengthBits, &e)) return false;
    if (e & kInvalid) return Fail(s);
    c.r.Drop(CodeBits(e));
    if (e & kLiteral) {
        if (c.room > 0) {
            *c.out++ = static_cast<unsigned char>(Value(e));
            --c.room;
            return true;
        }
        s.length = Value(e);
        s.mode = kModeLiteral;
    } else if (e & kEndOfBlock) {
        s.mode = kModeBlock;
    } else {
        s.length = Value(e);
        s.extra = ExtraBits(e);
        s.mode = kModeLengthExtra;
    }
    return true;
}

bool LengthExtra(Stream& s, Call& c) {
    if (!c.r.Need(s.extra)) return false;
    s.length += c.r.Peek(s.extra);
    c.r.Drop(s.extra);
    s.mode = kModeDistance;
    return true;
}

// A distance symbol: the base of the distance with its count of extra bits.
bool DistanceSymbol(Stream& s, Call& c) {
    uint32_t e;
    if (!c.r.Decode(s.distanceCodes, s.distanceBits, &e)) return false;
    if (e & kInvalid) return Fail(s);
    c.r.Drop(CodeBits(e));
    s.distance = Value(e);
    s.extra = ExtraBits(e);
    s.mode = kModeDistanceExtra;
    return true;
}

// The distance's extra bits; a distance may not reach before the start of the stream.
bool DistanceExtra(Stream& s, Call& c) {
    if (!c.r.Need(s.extra)) return false;
    s.distance += c.r.Peek(s.extra);
    c.r.Drop(s.extra);
    if (s.distance > c.Produced() + s.windowFill) return Fail(s);
    s.mode = kModeMatch;
    return true;
}

// Copies as much of the match as the output space takes: from the window where it reaches
// before the output in memory, else from the output itself.
bool Match(Stream& s, Call& c) {
    if (c.room == 0) return false;
    uint32_t n = s.length < c.room ? s.length : c.room;
    const uint32_t held = c.Produced() + (s.historyInOutput ? s.windowFill : 0);
    if (s.distance > held) {
        const uint32_t back = s.distance - held;
        if (n > back) n = back;
        const uint32_t pos = s.windowPos;
        std::memcpy(c.out, s.window + (back <= pos ? pos - back : pos + kWindowSize - back), n);
    } else {
        CopyMatchExact(c.out, s.distance, n);
    }
    c.out += n;
    c.room -= n;
    s.length -= n;
    if (s.length == 0) s.mode = kModeLength;
    return true;
}

// A literal that found no output space when it was decoded.
bool PendingLiteral(Stream& s, Call& c) {
    if (c.room == 0) return false;
    *c.out++ = static_cast<unsigned char>(s.length);
    --c.room;
    s.mode = kModeLength;
    return true;
}

// The zlib trailer at the next byte boundary: the Adler-32 of all output, most significant
// byte first.
bool Trailer(Stream& s, Call& c) {
    c.r.Drop(c.r.bits & 7);
    if (!c.r.Need(32)) return false;
    s.check = Adler32(s.check, c.checked, static_cast<uint32_t>(c.out - c.checked));
    c.checked = c.out;
    if (ByteSwap32(c.r.Peek(32)) != s.check) return Fail(s);
    c.r.Drop(32);
    s.mode = kModeDone;
    return true;
}

bool Step(Stream& s, Call& c) {
    switch (s.mode) {
        case kModeHeader:
            return ZlibHeader(s, c);
        case kModeDictionary:
            return DictionaryIdentifier(s, c);
        case kModeBlock:
            return BlockHeader(s, c);
        case kModeStored:
            return StoredHeader(s, c);
        case kModeCopy:
            return StoredCopy(s, c);
        case kModeTable:
            return DynamicHeader(s, c);
        case kModeCodeLengthCode:
            return CodeLengthCode(s, c);
        case kModeCodeLengths:
            return CodeLengths(s, c);
        case kModeLength:
            return LengthSymbol(s, c);
        case kModeLengthExtra:
            return LengthExtra(s, c);
        case kModeDistance:
            return DistanceSymbol(s, c);
        case kModeDistanceExtra:
            return DistanceExtra(s, c);
        case kModeMatch:
            return Match(s, c);
        case kModeLiteral:
            return PendingLiteral(s, c);
        case kModeTrailer:
            return Trailer(s, c);
        default:  // done or error
            return false;
    }
}

}  // namespace

int Stream::Inflate(zio::FlushMode flush) {
    if (!nextOut || (!nextIn && availIn != 0) || mode > kModeDone || mode == kModeError)
        return kBadCall;

    const uint32_t inStart = availIn;
    unsigned char* const outBegin = nextOut;
    Call c{BitReader{nextIn, availIn, bitBuffer, bitCount}, nextOut, availOut, availOut, nextOut};
    while (Step(*this, c)) {
    }

    nextIn = c.r.next;
    availIn = c.r.have;
    bitBuffer = c.r.hold;
    bitCount = c.r.bits;
    nextOut = c.out;
    availOut = c.room;
    const uint32_t consumed = inStart - availIn;
    const uint32_t made = c.Produced();
    totalIn += consumed;
    totalOut += made;
    if (mode == kModeError) return kDataError;
    if (historyInOutput) {
        windowFill = windowFill + made < kWindowSize ? windowFill + made : kWindowSize;
    } else {
        AppendToWindow(*this, outBegin, made);
    }
    check = Adler32(check, c.checked, static_cast<uint32_t>(c.out - c.checked));
    if (mode == kModeDone) return kStreamEnd;
    if ((consumed == 0 && made == 0) || flush == zio::FlushFinish) return kNoProgress;
    return kOk;
}

void Stream::KeepHistoryInOutput() {
    historyInOutput = 1;
}

void Stream::KeepHistoryInWindow() {
    if (!historyInOutput) return;
    historyInOutput = 0;
    const uint32_t held = windowFill;
    windowFill = windowPos = 0;
    AppendToWindow(*this, nextOut - held, held);
}

int Decompress(unsigned char* destination, unsigned int& destinationLength,
               unsigned char const* source, unsigned int sourceLength) {
    constexpr uint32_t kPageSize = 4096;
    // The output can never exceed what a 32-bit size counts: stop collecting pages before the
    // total would wrap, since such a result cannot fit any destination.
    constexpr uint32_t kMaxPages = UINT32_MAX / kPageSize;
    Stream stream;
    stream.Reset();
    stream.nextIn = source;
    stream.availIn = sourceLength;
    kau::PageArray pages(16, kPageSize);
    int result;
    do {
        if (stream.availOut == 0) {
            if (pages.PageCount() == kMaxPages) return kNoProgress;
            stream.nextOut = pages.AddPage();
            stream.availOut = kPageSize;
        }
        result = stream.Inflate(zio::FlushPartial);
    } while (result == kOk && stream.availIn > 0);
    pages.SetByteCountInLastPage(kPageSize - stream.availOut);
    if (result == kNoProgress) return stream.availIn == 0 ? kDataError : kNoProgress;
    if (result < 0) return result;
    // kStreamEnd, or kOk with the input used up: a stream cut before its trailer still yields
    // the bytes it produced.
    const uint32_t size = pages.Size();
    if (size > destinationLength) return kNoProgress;
    destinationLength = size;
    if (size > 0) pages.CopyTo(destination);
    return kOk;
}

}  // namespace zin
