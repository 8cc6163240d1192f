// Test support for the PNG decoder: a small PNG writer (zlib for the image data), the libpng
// reference under the decoder's expansion rules, and decoding through every entry point with
// the printed reports captured.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

class MMStream;

namespace pngtest {

using Bytes = std::vector<unsigned char>;

inline const char kKpng[] =
    "middleware/multimedia-framework/media-service/gstreamer/gst-plugins-extension/Codec/SW/PNG/"
    "kpng/kpng";
inline const char kCpng[] =
    "middleware/multimedia-framework/media-service/gstreamer/gst-plugins-extension/Codec/SW/PNG/"
    "kpng/CPNG";
inline const char kKau[] = "middleware/multimedia-framework/media-service/common/kau/kau";

// The catch-site report line of an error raised at `file` +`position`.
std::string Report(const char* file, int position);

Bytes Be32(uint32_t v);
Bytes Be16(uint16_t v);
Bytes Join(const std::vector<Bytes>& parts);
Bytes Slice(const Bytes& b, size_t from, size_t to);
Bytes Zlib(const Bytes& raw, int level = 6);
Bytes RandomBytes(size_t n, uint32_t seed);

// A PNG file assembled chunk by chunk; every chunk gets its correct CRC unless one is given.
class PngWriter {
  public:
    PngWriter();  // starts with the signature
    PngWriter& Chunk(const std::string& type, const Bytes& data);
    PngWriter& ChunkWithCrc(const std::string& type, const Bytes& data, uint32_t crc);
    PngWriter& LengthAndType(uint32_t length, const std::string& type);
    PngWriter& Ihdr(uint32_t width, uint32_t height, int depth, int colourType, int interlace = 0);
    PngWriter& Idat(const Bytes& data) { return Chunk("IDAT", data); }
    PngWriter& Iend() { return Chunk("IEND", {}); }
    PngWriter& Raw(const Bytes& bytes);
    const Bytes& bytes() const { return bytes_; }

  private:
    Bytes bytes_;
};

// An image as unfiltered rows of packed samples, the way PNG stores them.
struct RawImage {
    uint32_t width = 1, height = 1;
    int depth = 8, colourType = 2;
    Bytes pixels;  // height rows of RowBytes(width) bytes

    int BitsPerPixel() const;
    size_t RowBytes(uint32_t pixelsInRow) const;
    // The bits of pixel (x, y), right-aligned.
    uint64_t PixelBits(uint32_t x, uint32_t y) const;
    void SetPixelBits(uint32_t x, uint32_t y, uint64_t bits);
};

RawImage RandomImage(uint32_t width, uint32_t height, int depth, int colourType, uint32_t seed);

// The filtered scanlines of an image, Adam7 passes in order when interlaced; scanline i gets
// filter type filterOf(i).
Bytes Scanlines(const RawImage& image, bool interlaced, const std::function<int(int)>& filterOf);

// A complete PNG of the image with optional PLTE and tRNS data, its zlib data split into IDAT
// chunks of at most idatSize bytes.
struct PngOptions {
    bool interlaced = false;
    std::function<int(int)> filterOf = [](int i) { return i % 5; };
    Bytes plte, trns;
    size_t idatSize = 1 << 20;
};
Bytes EncodePng(const RawImage& image, const PngOptions& options = {});

// libpng's reading of the PNG, expanded by the decoder's rules to R, G, B, A.
struct Reference {
    bool ok = false;
    uint32_t width = 0, height = 0;
    Bytes rgba;
};
Reference ReferenceDecode(const Bytes& png, unsigned defaultAlpha = 255);

// A DecodePNG call with its record and everything it printed.
struct Decoded {
    int result = 0;
    uint32_t width = 0, height = 0, dataSize = 0, stride = 0;
    Bytes rgba;
    std::string printed;
};
enum class Source { Memory, PageArrayStream, FileStream };
const char* SourceName(Source source);
Decoded Decode(const Bytes& png, Source source = Source::Memory, unsigned long defaultAlpha = 255);

// Streams holding the bytes, ready and positioned at 0; delete with MMStreamDelete.
MMStream* PageArrayStream(const Bytes& bytes);
MMStream* FileStream(const Bytes& bytes);

// Stdout printed while `work` runs.
std::string Printed(const std::function<void()>& work);

Bytes ReadFile(const std::string& path);

}  // namespace pngtest
