#include "zin.h"

#include <cstring>

#include "checksum.h"
#include "kau.h"

namespace {

// ---------------------------------------------------------------------------------------------
// Little-endian loads that compile to single unaligned loads.

inline uint64_t Load64(const unsigned char* p) {
    uint64_t v;
    std::memcpy(&v, p, sizeof v);
#if __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    v = __builtin_bswap64(v);
#endif
    return v;
}

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
//   bits 0-7    bits of input the code takes (for a subtable link: the root width)
//   bits 8-11   extra bits that follow a length or distance code (for a link: subtable width)
//   bits 12-14  kind: subtable link, end of block, invalid code (none: length or distance)
//   bits 16-30  literal byte, length or distance base, code-length symbol, subtable offset
//   bit 31      literal
constexpr uint32_t kSubtable = 0x1000;
constexpr uint32_t kEndOfBlock = 0x2000;
constexpr uint32_t kInvalid = 0x4000;
constexpr uint32_t kLiteral = 0x80000000u;

constexpr uint32_t CodeBits(uint32_t e) {
    return e & 0xff;
}
constexpr uint32_t ExtraBits(uint32_t e) {
    return (e >> 8) & 15;
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
// What one pass of the fast loop may need: three refills of up to 7 bytes read 8 at a time, and
// up to six literals (five from the root table, one from a subtable).
constexpr uint32_t kFastInput = 22;
constexpr uint32_t kFastOutput = 6;
constexpr uint32_t kFastLiterals = 5;
constexpr uint32_t kLengthRoot = 9;
constexpr uint32_t kDistanceRoot = 6;
constexpr uint32_t kCodeLengthRoot = 7;

enum class Code { CodeLengths, Lengths, Distances };

// The entry of one symbol, without its bit count.
constexpr uint32_t SymbolEntry(Code code, uint32_t symbol) {
    switch (code) {
        case Code::CodeLengths:
            return symbol << 16;
        case Code::Lengths:
            if (symbol < 256) return kLiteral | (symbol << 16);
            if (symbol == 256) return kEndOfBlock;
            if (symbol < 286)
                return (uint32_t{kLengthBase[symbol - 257]} << 16) |
                       (uint32_t{kLengthExtra[symbol - 257]} << 8);
            return kInvalid;
        case Code::Distances:
            if (symbol < 30)
                return (uint32_t{kDistanceBase[symbol]} << 16) |
                       (uint32_t{kDistanceExtra[symbol]} << 8);
            return kInvalid;
    }
    return kInvalid;
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
        table[0] = table[1] = kInvalid | 1;
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
            table[i] = kInvalid | root;
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
        uint32_t entry = SymbolEntry(code, symbol) | len;
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

struct FixedTables {
    uint32_t lengths[1 << kLengthRoot];
    uint32_t distances[32];
};

constexpr FixedTables MakeFixedTables() {
    FixedTables fixed{};
    uint16_t lens[288] = {};
    uint16_t work[288] = {};
    for (uint32_t s = 0; s < 288; ++s)
        lens[s] = s < 144 ? 8 : s < 256 ? 9 : s < 280 ? 7 : 8;
    uint32_t root = kLengthRoot;
    BuildTable(Code::Lengths, lens, 288, &root, fixed.lengths, 1 << kLengthRoot, work);
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
    // A short distance repeats a pattern of `dist` bytes: build 16 bytes of it, then store it
    // every `step` bytes, the largest multiple of the period that fits in 16.
    unsigned char pattern[16];
    if (dist == 1) {
        std::memset(pattern, src[0], 16);
    } else {
        for (uint32_t i = 0; i < dist; ++i)
            pattern[i] = src[i];
        for (uint32_t have = dist; have < 16; have *= 2)
            std::memcpy(pattern + have, pattern, have < 16 - have ? have : 16 - have);
    }
    const uint32_t step = 16 - 16 % dist;
    do {
        std::memcpy(out, pattern, 16);
        out += step;
    } while (out < end);
}

// Exact copy of `len` bytes from `dist` bytes back; writes nothing past the match.
inline void CopyMatchExact(unsigned char* out, uint32_t dist, uint32_t len) {
    const unsigned char* src = out - dist;
    if (dist >= len) {
        std::memcpy(out, src, len);
        return;
    }
    for (uint32_t i = 0; i < len; ++i)
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
            if (CodeBits(e) <= bits) break;
            if (!PullByte()) return false;
        }
        if (e & kSubtable) {
            const uint32_t* sub = table + Value(e);
            uint32_t width = ExtraBits(e);
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
    if (!BuildTable(Code::Distances, s.lens + s.literalCount, s.distanceCount, &root,
                    s.codes + used, kTableSpace - used, s.work))
        return false;
    s.distanceCodes = s.codes + used;
    s.distanceBits = root;
    return true;
}

inline uint32_t ByteSwap32(uint32_t v) {
    return __builtin_bswap32(v);
}

}  // namespace

void Stream::Reset() {
    availIn = totalIn = 0;
    availOut = totalOut = 0;
    check = 0;
    mode = kModeHeader;
    last = 0;
    windowFill = windowPos = 0;
    bitBuffer = 0;
    bitCount = 0;
    length = distance = extra = 0;
    lengthCodes = distanceCodes = codes;
    lengthBits = distanceBits = 0;
    codeLengthCount = literalCount = distanceCount = haveCount = 0;
}

void Stream::UseFixedTables() {
    lengthCodes = kFixed.lengths;
    lengthBits = kLengthRoot;
    distanceCodes = kFixed.distances;
    distanceBits = 5;
}

void Stream::InflateFast(unsigned long start) {
    // Only what every symbol needs is held in locals; the rest is read from the structure on
    // the rarer paths, which keeps the loop's state in registers.
    const unsigned char* in = nextIn;
    const unsigned char* const inFirst = in;
    const unsigned char* const inEnd = in + availIn;
    unsigned char* out = nextOut;
    unsigned char* const outEnd = out + availOut;
    // First byte produced by this call: distances reaching before it are served by the window.
    unsigned char* const outBegin = out - (static_cast<uint32_t>(start) - availOut);
    uint64_t hold = bitBuffer;
    uint32_t bits = bitCount;
    const uint32_t* const lcodes = lengthCodes;
    const uint32_t* const dcodes = distanceCodes;
    const uint64_t lmask = LowMask(lengthBits);
    const uint64_t dmask = LowMask(distanceBits);

    // One refill leaves at least 56 bits: enough for five literals found in the root table (9
    // bits at most each) with a whole root entry after them, or for a length, its distance and
    // their extra bits (48 at most) once a second refill has topped the buffer up. The next root
    // entry is looked up before the refill that precedes its use, so that the two overlap; a
    // third refill after a match keeps at least 9 bits for that lookup. Bytes are loaded 8 at a
    // time and up to 7 bytes are taken per refill, hence the 22 bytes of input demanded per
    // pass. A pass writes at most 6 literals or one match that it checks against the room left.
    auto refill = [&]() {
        hold |= Load64(in) << bits;
        in += (63 - bits) >> 3;
        bits |= 56;
    };
    auto consume = [&](uint32_t n) {
        hold >>= n;
        bits -= n;
    };
    auto isLiteral = [](uint32_t e) { return static_cast<int32_t>(e) < 0; };
    auto extraValue = [&](uint32_t e) {
        return Value(e) + static_cast<uint32_t>((hold >> CodeBits(e)) & LowMask(ExtraBits(e)));
    };
    const bool enough = availIn >= kFastInput && availOut >= kFastOutput;
    const unsigned char* const inLast = enough ? inEnd - kFastInput : in;
    unsigned char* const outLast = enough ? outEnd - kFastOutput : out;

    const bool fast = enough && in <= inLast && out <= outLast;
    if (fast) refill();
    uint32_t e = fast ? lcodes[hold & lmask] : 0;
    while (fast && in <= inLast && out <= outLast) {
        refill();
        uint32_t literals = 0;
        for (; literals < kFastLiterals && isLiteral(e); ++literals) {
            consume(CodeBits(e));
            *out++ = static_cast<unsigned char>(Value(e));
            e = lcodes[hold & lmask];
        }
        if (literals == kFastLiterals) continue;
        if (bits < 48) refill();
        if (e & kSubtable) {
            // Codes longer than the root: literals among them are written right away.
            e = lcodes[Value(e) + ((hold >> lengthBits) & LowMask(ExtraBits(e)))];
            if (isLiteral(e)) {
                consume(CodeBits(e));
                *out++ = static_cast<unsigned char>(Value(e));
                e = lcodes[hold & lmask];
                continue;
            }
        }
        if (e & (kEndOfBlock | kInvalid)) {
            if (e & kEndOfBlock) {
                consume(CodeBits(e));
                mode = kModeBlock;
            } else {
                mode = kModeError;
            }
            break;
        }
        const uint64_t symbolHold = hold;
        const uint32_t symbolBits = bits;
        const uint32_t len = extraValue(e);
        consume(CodeBits(e) + ExtraBits(e));
        uint32_t d = dcodes[hold & dmask];
        if (d & (kSubtable | kInvalid)) {
            if (d & kSubtable)
                d = dcodes[Value(d) + ((hold >> distanceBits) & LowMask(ExtraBits(d)))];
            if (d & kInvalid) {
                mode = kModeError;
                break;
            }
        }
        const uint32_t dist = extraValue(d);
        consume(CodeBits(d) + ExtraBits(d));

        const uint32_t room = static_cast<uint32_t>(outEnd - out);
        if (len > room) {
            // The match does not fit: leave it to the state machine, which copies it in parts.
            hold = symbolHold;
            bits = symbolBits;
            break;
        }
        const bool wide = len + 16 <= room;
        const uint32_t written = static_cast<uint32_t>(out - outBegin);
        // The part of the match before this call's output comes from the window, which is
        // contiguous for a whole match thanks to its mirrored start.
        uint32_t fromWindow = 0;
        if (dist > written) {
            const uint32_t back = dist - written;
            if (back > windowFill) {
                mode = kModeError;
                break;
            }
            const uint32_t wpos = windowPos;
            const unsigned char* src =
                window + (back <= wpos ? wpos - back : wpos + kWindowSize - back);
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
        if (bits < kLengthRoot) refill();
        e = lcodes[hold & lmask];
    }

    // Hand whole unused bytes back to the input, as far as they were read here.
    uint32_t giveBack = bits >> 3;
    const uint32_t readHere = static_cast<uint32_t>(in - inFirst);
    if (giveBack > readHere) giveBack = readHere;
    in -= giveBack;
    bits -= giveBack * 8;
    hold &= LowMask(bits);

    nextIn = in;
    availIn = static_cast<uint32_t>(inEnd - in);
    nextOut = out;
    availOut = static_cast<uint32_t>(outEnd - out);
    bitBuffer = hold;
    bitCount = bits;
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

}  // namespace

int Stream::Inflate(zio::FlushMode flush) {
    if (!nextOut || (!nextIn && availIn != 0) || mode > kModeDone || mode == kModeError)
        return kBadCall;

    const uint32_t inStart = availIn;
    const uint32_t outStart = availOut;
    unsigned char* const outBegin = nextOut;
    unsigned char* checked = outBegin;  // output up to here is already in `check`
    BitReader r{nextIn, availIn, bitBuffer, bitCount};
    unsigned char* out = nextOut;
    uint32_t room = availOut;

    auto fail = [&]() { mode = kModeError; };
    auto produced = [&]() { return outStart - room; };

    for (bool running = true; running;) {
        switch (mode) {
            case kModeHeader: {
                if (!r.Need(16)) {
                    running = false;
                    break;
                }
                const uint32_t cmf = r.Peek(8);
                const uint32_t flg = (r.Peek(16) >> 8);
                if ((cmf * 256 + flg) % 31 != 0 || (cmf & 15) != 8 || (cmf >> 4) > 7) {
                    fail();
                    break;
                }
                r.Drop(16);
                check = 1;
                mode = (flg & 0x20) ? kModeDictionary : kModeBlock;
                break;
            }
            case kModeDictionary:
                // Preset dictionaries are refused; the identifier is kept for the record.
                if (!r.Need(32)) {
                    running = false;
                    break;
                }
                check = ByteSwap32(r.Peek(32));
                r.Drop(32);
                fail();
                break;
            case kModeBlock: {
                if (last) {
                    mode = kModeTrailer;
                    break;
                }
                if (!r.Need(3)) {
                    running = false;
                    break;
                }
                last = static_cast<uint8_t>(r.Peek(1));
                const uint32_t type = r.Peek(3) >> 1;
                r.Drop(3);
                if (type == 0) {
                    mode = kModeStored;
                } else if (type == 1) {
                    UseFixedTables();
                    mode = kModeLength;
                } else if (type == 2) {
                    mode = kModeTable;
                } else {
                    fail();
                }
                break;
            }
            case kModeStored: {
                r.Drop(r.bits & 7);
                if (!r.Need(32)) {
                    running = false;
                    break;
                }
                const uint32_t len = r.Peek(16);
                const uint32_t nlen = r.Peek(32) >> 16;
                if (len != (~nlen & 0xffff)) {
                    fail();
                    break;
                }
                r.Drop(32);
                length = len;
                mode = kModeCopy;
                break;
            }
            case kModeCopy: {
                // Whole bytes still in the bit buffer come first, then straight from the input.
                while (length > 0 && room > 0 && r.bits >= 8) {
                    *out++ = static_cast<unsigned char>(r.hold);
                    r.Drop(8);
                    --room;
                    --length;
                }
                uint32_t n = length;
                if (n > r.have) n = r.have;
                if (n > room) n = room;
                std::memcpy(out, r.next, n);
                out += n;
                room -= n;
                r.next += n;
                r.have -= n;
                length -= n;
                if (length == 0) {
                    mode = kModeBlock;
                } else {
                    running = false;
                }
                break;
            }
            case kModeTable:
                if (!r.Need(14)) {
                    running = false;
                    break;
                }
                literalCount = r.Peek(5) + 257;
                distanceCount = r.Peek(10) >> 5;
                distanceCount += 1;
                codeLengthCount = (r.Peek(14) >> 10) + 4;
                r.Drop(14);
                if (literalCount > 286 || distanceCount > 30) {
                    fail();
                    break;
                }
                haveCount = 0;
                mode = kModeCodeLengthCode;
                break;
            case kModeCodeLengthCode: {
                while (haveCount < codeLengthCount && r.Need(3)) {
                    lens[kCodeLengthOrder[haveCount++]] = static_cast<uint16_t>(r.Peek(3));
                    r.Drop(3);
                }
                if (haveCount < codeLengthCount) {
                    running = false;
                    break;
                }
                while (haveCount < 19)
                    lens[kCodeLengthOrder[haveCount++]] = 0;
                uint32_t root = kCodeLengthRoot;
                if (!BuildTable(Code::CodeLengths, lens, 19, &root, codes, kTableSpace, work)) {
                    fail();
                    break;
                }
                lengthCodes = codes;
                lengthBits = root;
                haveCount = 0;
                mode = kModeCodeLengths;
                break;
            }
            case kModeCodeLengths: {
                const uint32_t wanted = literalCount + distanceCount;
                bool ok = true;
                while (haveCount < wanted) {
                    uint32_t e;
                    if (!r.Decode(lengthCodes, lengthBits, &e)) {
                        running = false;
                        break;
                    }
                    const uint32_t symbol = Value(e);
                    if (symbol < 16) {
                        r.Drop(CodeBits(e));
                        lens[haveCount++] = static_cast<uint16_t>(symbol);
                        continue;
                    }
                    // Repeat codes: 16 repeats the previous length 3-6 times, 17 and 18 repeat
                    // zero 3-10 and 11-138 times.
                    const uint32_t extraBits = symbol == 16 ? 2 : symbol == 17 ? 3 : 7;
                    if (!r.Need(CodeBits(e) + extraBits)) {
                        running = false;
                        break;
                    }
                    r.Drop(CodeBits(e));
                    uint32_t value = 0;
                    if (symbol == 16) {
                        if (haveCount == 0) {
                            ok = false;
                            break;
                        }
                        value = lens[haveCount - 1];
                    }
                    const uint32_t repeat = r.Peek(extraBits) + (symbol == 18 ? 11 : 3);
                    r.Drop(extraBits);
                    if (haveCount + repeat > wanted) {
                        ok = false;
                        break;
                    }
                    for (uint32_t i = 0; i < repeat; ++i)
                        lens[haveCount++] = static_cast<uint16_t>(value);
                }
                if (!ok || (running && !BuildBlockTables(*this))) {
                    fail();
                    break;
                }
                if (running) mode = kModeLength;
                break;
            }
            case kModeLength: {
                // The fast loop also serves the end of a short row: it leaves a match that does
                // not fit to the states below, which copy it in parts.
                if (r.have >= kFastInput && room >= kFastOutput) {
                    nextIn = r.next;
                    availIn = r.have;
                    bitBuffer = r.hold;
                    bitCount = r.bits;
                    nextOut = out;
                    availOut = room;
                    InflateFast(outStart);
                    r = BitReader{nextIn, availIn, bitBuffer, bitCount};
                    out = nextOut;
                    room = availOut;
                    if (mode != kModeLength) break;
                }
                uint32_t e;
                if (!r.Decode(lengthCodes, lengthBits, &e)) {
                    running = false;
                    break;
                }
                if (e & kInvalid) {
                    fail();
                    break;
                }
                r.Drop(CodeBits(e));
                if (e & kLiteral) {
                    if (room > 0) {
                        *out++ = static_cast<unsigned char>(Value(e));
                        --room;
                        break;
                    }
                    length = Value(e);
                    mode = kModeLiteral;
                } else if (e & kEndOfBlock) {
                    mode = kModeBlock;
                } else {
                    length = Value(e);
                    extra = ExtraBits(e);
                    mode = kModeLengthExtra;
                }
                break;
            }
            case kModeLengthExtra:
                if (!r.Need(extra)) {
                    running = false;
                    break;
                }
                length += r.Peek(extra);
                r.Drop(extra);
                mode = kModeDistance;
                break;
            case kModeDistance: {
                uint32_t e;
                if (!r.Decode(distanceCodes, distanceBits, &e)) {
                    running = false;
                    break;
                }
                if (e & kInvalid) {
                    fail();
                    break;
                }
                r.Drop(CodeBits(e));
                distance = Value(e);
                extra = ExtraBits(e);
                mode = kModeDistanceExtra;
                break;
            }
            case kModeDistanceExtra:
                if (!r.Need(extra)) {
                    running = false;
                    break;
                }
                distance += r.Peek(extra);
                r.Drop(extra);
                if (distance > produced() + windowFill) {
                    fail();
                    break;
                }
                mode = kModeMatch;
                break;
            case kModeMatch: {
                if (room == 0) {
                    running = false;
                    break;
                }
                uint32_t n = length < room ? length : room;
                const uint32_t written = produced();
                if (distance > written) {
                    const uint32_t back = distance - written;
                    if (n > back) n = back;
                    const unsigned char* src =
                        window +
                        (back <= windowPos ? windowPos - back : windowPos + kWindowSize - back);
                    std::memcpy(out, src, n);
                } else {
                    CopyMatchExact(out, distance, n);
                }
                out += n;
                room -= n;
                length -= n;
                if (length == 0) mode = kModeLength;
                break;
            }
            case kModeLiteral:
                if (room == 0) {
                    running = false;
                    break;
                }
                *out++ = static_cast<unsigned char>(length);
                --room;
                mode = kModeLength;
                break;
            case kModeTrailer: {
                r.Drop(r.bits & 7);
                if (!r.Need(32)) {
                    running = false;
                    break;
                }
                check = Adler32(check, checked, static_cast<uint32_t>(out - checked));
                checked = out;
                if (ByteSwap32(r.Peek(32)) != check) {
                    fail();
                    break;
                }
                r.Drop(32);
                mode = kModeDone;
                break;
            }
            default:  // done or error
                running = false;
                break;
        }
    }

    nextIn = r.next;
    availIn = r.have;
    bitBuffer = r.hold;
    bitCount = r.bits;
    nextOut = out;
    availOut = room;
    const uint32_t consumed = inStart - availIn;
    const uint32_t made = produced();
    totalIn += consumed;
    totalOut += made;
    if (mode == kModeError) return kDataError;
    AppendToWindow(*this, outBegin, made);
    check = Adler32(check, checked, static_cast<uint32_t>(out - checked));
    if (mode == kModeDone) return kStreamEnd;
    if ((consumed == 0 && made == 0) || flush == zio::FlushFinish) return kNoProgress;
    return kOk;
}

int Decompress(unsigned char* destination, unsigned int& destinationLength,
               unsigned char const* source, unsigned int sourceLength) {
    constexpr uint32_t kPageSize = 4096;
    // The output can never exceed what a 32-bit size counts: stop collecting pages before the
    // total would wrap, since such a result cannot fit any destination.
    constexpr uint32_t kMaxPages = UINT32_MAX / kPageSize;
    Stream stream{};
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
