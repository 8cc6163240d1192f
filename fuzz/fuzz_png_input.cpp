// kpng::Input fed in pieces, driven the way the element drives it: every completed PNG is
// decoded from the input's stream and the bytes after it are carried into a fresh stream.
// A raised error or a failed decode restarts the input, as the element's READY -> PAUSED does.
// Each completed PNG is also decoded from memory; both decodes must agree.
//
// Input: an options byte (bits 3-5 pick the largest piece size), three bytes that seed the
// piece sizes, then the bytes to push: any number of PNGs and anything between them.
#include "fuzz_png.h"

#include "kpng.h"

namespace {

constexpr unsigned long kLargestPiece[8] = {1, 2, 3, 8, 64, 512, 4096, ~0ul};

// Piece sizes from 0 to a ceiling, drawn by a xorshift generator.
class PieceSizes {
  public:
    PieceSizes(unsigned ceiling, const uint8_t* seed)
        : largest_(kLargestPiece[ceiling & 7]),
          state_(uint32_t{seed[0]} << 16 | uint32_t{seed[1]} << 8 | seed[2] | 1u << 24) {}

    unsigned long Next(unsigned long left) {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 17;
        state_ ^= state_ << 5;
        unsigned long size = largest_ == ~0ul ? left : state_ % (largest_ + 1);
        return size < left ? size : left;
    }

  private:
    unsigned long largest_;
    uint32_t state_;
};

class Driver {
  public:
    explicit Driver(unsigned long defaultAlpha) : defaultAlpha_(defaultAlpha) { Construct(); }
    ~Driver() { input_.Destruct(); }

    // One piece, as the element's chain handles one buffer: at most one PNG is decoded.
    void Feed(const unsigned char* piece, unsigned long size) {
        int more;
        try {
            more = input_.Push(piece, size);
        } catch (const kau::Error&) {
            Restart();
            return;
        }
        fuzz::Check(more == 0 || more == 1, "Push answered neither 0 nor 1");
        if (more == 0) DecodeCompletedPng();
    }

  private:
    void Construct() {
        pngSizeKept_ = true;
        input_ = kpng::Input{};
        input_.Construct();
        fuzz::Check(input_.stream != nullptr, "Construct made no stream");
    }

    void Restart() {
        input_.Destruct();
        fuzz::Check(input_.stream == nullptr, "Destruct left the stream set");
        Construct();
    }

    // The first pngSize bytes of the stream must be a signature, chunks and a zero-length IEND.
    std::vector<unsigned char> ReadCompletedPng() {
        uint32_t size = input_.pngSize;
        unsigned long streamSize = 0;
        fuzz::Check(MMStreamSize(input_.stream, &streamSize) != 0, "stream has no size");
        fuzz::Check(size >= 8 + 12 && size <= streamSize, "pngSize out of the stream");
        std::vector<unsigned char> png(size);
        fuzz::Check(MMStreamReady(input_.stream) != 0, "stream did not rewind");
        fuzz::Check(MMStreamGet(input_.stream, png.data(), size) == size, "short read of the PNG");
        static constexpr unsigned char kEnd[8] = {0, 0, 0, 0, 'I', 'E', 'N', 'D'};
        fuzz::Check(memcmp(png.data() + size - 12, kEnd, 8) == 0, "pngSize does not end at IEND");
        return png;
    }

    // After the reset: true when the walk of the carried bytes reached their end or a complete
    // PNG. An error in that walk is reported and absorbed by the reset and leaves pngSize short
    // of the bytes.
    bool CarriedBytesWalked() {
        unsigned long size = 0;
        fuzz::Check(MMStreamSize(input_.stream, &size) != 0, "stream has no size");
        const bool complete = input_.currentType && memcmp(input_.currentType, "IEND", 4) == 0 &&
                              input_.crcCount == 4;
        return complete || input_.pngSize == size;
    }

    void DecodeCompletedPng() {
        if (!pngSizeKept_) return DecodeUnchecked();
        std::vector<unsigned char> png = ReadCompletedPng();
        fuzz::Check(MMStreamReady(input_.stream) != 0, "stream did not rewind");
        STImageSimple image{};
        int ok = DecodePNG(input_.stream, defaultAlpha_, &image);
        STImageSimple fromMemory{};
        int okMemory = DecodePNG(png.data(), png.size(), defaultAlpha_, &fromMemory);
        fuzz::Check(ok == okMemory, "stream and memory decoding disagree on success");
        if (!ok) {
            Restart();
            return;
        }
        fuzz::CheckDecoded(image, true);
        fuzz::Check(fuzz::SamePixels(image, fromMemory), "stream and memory pixels differ");
        kau::mem::Delete(image.data);
        kau::mem::Delete(fromMemory.data);
        CarryOn();
    }

    // Once pngSize no longer marks the end of a PNG, the input goes on as the element drives
    // it, with nothing to compare against: it only has to stay within its memory.
    void DecodeUnchecked() {
        fuzz::Check(MMStreamReady(input_.stream) != 0, "stream did not rewind");
        STImageSimple image{};
        if (!DecodePNG(input_.stream, defaultAlpha_, &image)) {
            Restart();
            return;
        }
        fuzz::CheckDecoded(image, true);
        kau::mem::Delete(image.data);
        CarryOn();
    }

    void CarryOn() {
        try {
            input_.ResetStreamWithDataAfterIEND();
        } catch (const kau::Error&) {
            Restart();
            return;
        }
        pngSizeKept_ = pngSizeKept_ && CarriedBytesWalked();
        // The element pushes 0 bytes next, which always asks for more.
        unsigned char none = 0;
        fuzz::Check(input_.Push(&none, 0) == 1, "Push of 0 bytes did not answer 1");
    }

    kpng::Input input_;
    unsigned long defaultAlpha_;
    bool pngSizeKept_ = true;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 4) return 0;
    const fuzz::PngOptions options = fuzz::ReadOptions(data[0]);
    PieceSizes pieces(options.variant, data + 1);
    std::vector<unsigned char> bytes(data + 4, data + size);
    if (options.repairCrcs) fuzz::RepairCrcs(bytes);

    Driver driver(options.defaultAlpha);
    size_t pos = 0;
    do {
        unsigned long n = pieces.Next(bytes.size() - pos);
        // Each piece is a buffer of its own, so that reads past it are caught.
        std::vector<unsigned char> piece(bytes.begin() + pos, bytes.begin() + pos + n);
        driver.Feed(piece.empty() ? bytes.data() + pos : piece.data(), n);
        pos += n;
    } while (pos < bytes.size());
    return 0;
}
