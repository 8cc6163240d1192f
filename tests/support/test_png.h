// PNG files for the tests, their image data made by zlib so that the decoder's inflater is never
// its own oracle; and libpng's reading of a PNG, expanded by the decoder's rules, as the reference.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace pngtest {

using Bytes = std::vector<unsigned char>;

Bytes Be32(uint32_t v);
Bytes Be16(uint16_t v);
Bytes Join(const std::vector<Bytes>& parts);
Bytes Slice(const Bytes& b, size_t from, size_t to);
Bytes Zlib(const Bytes& raw, int level = 6);
Bytes RandomBytes(size_t n, uint32_t seed);
Bytes IhdrData(uint32_t width, uint32_t height, int depth, int colourType, int interlace = 0,
               int compression = 0, int filter = 0);

// A PNG file assembled chunk by chunk after the signature.
class PngWriter {
  public:
    PngWriter();
    PngWriter& Chunk(const std::string& type, const Bytes& data);  // with its correct CRC
    PngWriter& ChunkWithCrc(const std::string& type, const Bytes& data, uint32_t crc) {
        return Raw(
            Join({Be32(uint32_t(data.size())), {type.begin(), type.end()}, data, Be32(crc)}));
    }
    PngWriter& Ihdr(uint32_t width, uint32_t height, int depth, int colourType, int interlace = 0) {
        return Chunk("IHDR", IhdrData(width, height, depth, colourType, interlace));
    }
    PngWriter& Idat(const Bytes& data) { return Chunk("IDAT", data); }
    PngWriter& Iend() { return Chunk("IEND", {}); }
    PngWriter& Raw(const Bytes& bytes) {
        bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
        return *this;
    }
    const Bytes& bytes() const { return bytes_; }

  private:
    Bytes bytes_;
};

// An image as unfiltered rows of packed samples, the way PNG stores them.
struct RawImage {
    uint32_t width = 1, height = 1;
    int depth = 8, colourType = 2;
    Bytes pixels;  // height rows of RowBytes(width) bytes

    int BitsPerPixel() const {
        return depth * (colourType == 2 ? 3 : colourType == 4 ? 2 : colourType == 6 ? 4 : 1);
    }
    size_t RowBytes(uint32_t pixels) const { return (size_t(pixels) * BitsPerPixel() + 7) / 8; }
    uint64_t PixelBits(uint32_t x, uint32_t y) const;  // right-aligned
    void SetPixelBits(uint32_t x, uint32_t y, uint64_t bits);
};

// Every pairing of colour type and bit depth that PNG allows.
struct Format {
    int colourType, depth;
};
inline constexpr Format kEveryFormat[] = {{0, 1}, {0, 2},  {0, 4},  {0, 8}, {0, 16},
                                          {2, 8}, {2, 16}, {3, 1},  {3, 2}, {3, 4},
                                          {3, 8}, {4, 8},  {4, 16}, {6, 8}, {6, 16}};

RawImage RandomImage(uint32_t width, uint32_t height, int depth, int colourType, uint32_t seed);

// The filtered scanlines of an image, Adam7 passes in order when interlaced; scanline i gets
// filter type filterOf(i) (types above 4 leave the bytes as they are).
Bytes Scanlines(const RawImage& image, bool interlaced, const std::function<int(int)>& filterOf);

// A complete PNG of the image with optional PLTE and tRNS data, its zlib data (made at the
// given level) split into IDAT chunks of at most idatSize bytes.
struct PngOptions {
    bool interlaced = false;
    std::function<int(int)> filterOf = [](int i) { return i % 5; };
    Bytes plte, trns;
    size_t idatSize = 1 << 20;
    int level = 6;
};
Bytes EncodePng(const RawImage& image, const PngOptions& options = {});

// The folder of the decoder's and the element's module texts, as their reports print them.
inline const std::string kModules =
    "middleware/multimedia-framework/media-service/gstreamer/gst-plugins-extension/Codec/SW/PNG/";

// The sorted names (no ".png") of a test data folder's PNG files; the bytes of one folder/name;
// the valid PngSuite files and the benchmark images of at most `maxBenchPixels`, as folder/name.
std::vector<std::string> DataFiles(const std::string& folder);
Bytes ReadDataFile(const std::string& folderAndName);
std::vector<std::string> ConformanceAndBenchFiles(uint64_t maxBenchPixels);

// The report a catch site prints for an error raised at `file` +`position`; stdout printed
// while `work` runs.
std::string Report(const std::string& file, int position);
std::string Printed(const std::function<void()>& work);

// libpng's pixels in R, G, B, A (palette entries without tRNS alpha opaque, as with a
// defaultAlpha of 255); not ok when libpng refuses the file.
struct Reference {
    bool ok = false;
    uint32_t width = 0, height = 0;
    Bytes rgba;
};
Reference ReferenceDecode(const Bytes& png);

}  // namespace pngtest
