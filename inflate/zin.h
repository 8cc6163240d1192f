// The media service's own zlib/DEFLATE inflater (RFC 1950 around RFC 1951), incremental and
// one-shot, and the CRC-32 of PNG and zlib.
#pragma once

#include <cstdint>

namespace zio {

// The flush argument of zin::Stream::Inflate. Only FlushFinish changes behaviour: it asks for
// the end of the stream within this call.
enum FlushMode : int {
    FlushNone = 0,
    FlushPartial = 1,
    FlushSync = 2,
    FlushFull = 3,
    FlushFinish = 4
};

// CRC-32 of PNG and zlib, finalised form in and out (a first call passes 0).
unsigned long crc32(unsigned long crc, unsigned char const* data, unsigned long length);

}  // namespace zio

namespace zin {

// Results of Stream::Inflate and Decompress (not zlib's numbers).
inline constexpr int kOk = 0, kStreamEnd = 1, kNoProgress = -1, kDataError = -2, kBadCall = -4;

// Sizes of the history window and of the space that holds the decoding tables.
inline constexpr uint32_t kWindowSize = 32768;
inline constexpr uint32_t kTableSpace = 1456;
// Entries of the fast loop's own literal/length and distance tables, which 64-bit processors
// build for each block: wider roots than the state machine's tables, literals paired.
inline constexpr uint32_t kFastLengthSpace = UINTPTR_MAX > 0xffffffffu ? 1024 : 1;
inline constexpr uint32_t kFastDistanceSpace = UINTPTR_MAX > 0xffffffffu ? 512 : 1;
// Longest match: the window keeps this many bytes of its start mirrored past its end, so
// that a match read from the window never has to wrap.
inline constexpr uint32_t kMaxMatch = 258;
// Slack after the mirror for copies that read whole 16-byte chunks.
inline constexpr uint32_t kWindowSlack = 16;

// An incremental inflater. A plain structure that needs no zero-filling: its owner calls
// Reset(), points it at input and output and calls Inflate() until it answers kStreamEnd.
// Tables point into the structure itself, so it must not be copied once in use.
//
// By default every call may write to new memory, and the window keeps the history that
// matches reach back into. An owner that writes the whole stream into memory that stays put
// calls KeepHistoryInOutput(): from then on each call's output must directly follow the last
// call's, with up to kWindowSize bytes of earlier output still in place before it, and matches
// read that memory instead of the window, which is neither read nor written.
struct Stream {
    const unsigned char* nextIn;
    uint32_t availIn;
    uint32_t totalIn;
    unsigned char* nextOut;
    uint32_t availOut;
    uint32_t totalOut;
    uint32_t check;  // Adler-32 of the output so far; the identifier of a refused dictionary

    // Decoding state, private to the inflater.
    uint32_t mode;
    uint8_t last;             // the block being decoded is the final one
    uint8_t historyInOutput;  // the history sits in memory before nextOut, not in the window
    uint32_t windowFill;  // bytes of history held (in the window or the output), up to kWindowSize
    uint32_t windowPos;   // next write position in the circular window
    uint64_t bitBuffer;   // pending input bits, least significant first; unused bits are 0
    uint32_t bitCount;
    uint32_t length;    // stored-block length, pending literal or match length
    uint32_t distance;  // pending match distance
    uint32_t extra;     // extra bits still to read for the pending length or distance
    const uint32_t* lengthCodes;
    const uint32_t* distanceCodes;
    uint32_t lengthBits;    // root width of lengthCodes
    uint32_t distanceBits;  // root width of distanceCodes
    // The fast loop's root tables, whose subtables are those of lengthCodes and distanceCodes;
    // the literal/length one is kFastLengthSpace entries wide on 64-bit processors.
    const uint32_t* fastLengthCodes;
    const uint32_t* fastDistanceCodes;
    uint32_t fastDistanceBits;  // root width of fastDistanceCodes
    uint32_t codeLengthCount;
    uint32_t literalCount;
    uint32_t distanceCount;
    uint32_t haveCount;  // code lengths read so far
    uint16_t lens[320];  // code lengths of a dynamic block's codes
    uint16_t work[288];  // symbols sorted by code length while a table is built
    uint32_t codes[kTableSpace];
    uint32_t fastLengths[kFastLengthSpace];
    uint32_t fastDistances[kFastDistanceSpace];
    unsigned char window[kWindowSize + kMaxMatch + kWindowSlack];

    // Back to the start of a stream: counts, totals, mode, window and bit buffer cleared,
    // history kept in the window. The input and output pointers are left for the caller to set.
    void Reset();
    // Switches where the history is kept: in the output memory before nextOut, or (again) in
    // the window, which is then filled from that memory so that output may go anywhere.
    void KeepHistoryInOutput();
    void KeepHistoryInWindow();
    // Inflates until the input or the output space runs out, the stream ends or an error
    // occurs: kOk, kStreamEnd (Adler-32 verified, and on every later call), kNoProgress (nothing
    // consumed or produced, or FlushFinish and no end), kDataError (then kBadCall on every call
    // until Reset), kBadCall (null output, null input with input available).
    int Inflate(zio::FlushMode flush);
    // The decoding loop for the bulk of a block, run from Inflate when at least 22 input bytes
    // and 3 bytes of output space (9 on 64-bit processors) are available; it stops before a match
    // that does not fit. `start` is the output space the current Inflate call began with.
    void InflateFast(unsigned long start);
    // Installs the constant tables of the fixed Huffman codes.
    void UseFixedTables();
};

// Inflates the whole zlib stream `source` into `destination`, whose capacity is
// `destinationLength` and becomes the decompressed size on success. Returns kOk, kNoProgress
// (too large for the destination, which is then untouched, or stuck with input left),
// kDataError or kBadCall. A stream that stops before its trailer yields what it produced.
int Decompress(unsigned char* destination, unsigned int& destinationLength,
               unsigned char const* source, unsigned int sourceLength);

}  // namespace zin
