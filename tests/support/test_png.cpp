#include "test_png.h"

#include <gtest/gtest.h>
#include <png.h>
#include <zlib.h>

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>

namespace pngtest {

Bytes Be32(uint32_t v) {
    return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
}

Bytes Be16(uint16_t v) {
    return {uint8_t(v >> 8), uint8_t(v)};
}

Bytes Join(const std::vector<Bytes>& parts) {
    Bytes all;
    for (const Bytes& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

Bytes Slice(const Bytes& b, size_t from, size_t to) {
    return Bytes(b.begin() + from, b.begin() + to);
}

Bytes Zlib(const Bytes& raw, int level) {
    uLongf size = compressBound(raw.size());
    Bytes out(size);
    if (compress2(out.data(), &size, raw.data(), raw.size(), level) != Z_OK)
        throw std::runtime_error("compress2 failed");
    return Slice(out, 0, size);
}

Bytes RandomBytes(size_t n, uint32_t seed) {
    std::mt19937 random(seed);
    Bytes b(n);
    for (auto& byte : b)
        byte = uint8_t(random());
    return b;
}

Bytes IhdrData(uint32_t width, uint32_t height, int depth, int colourType, int interlace,
               int compression, int filter) {
    const Bytes fields = {uint8_t(depth), uint8_t(colourType), uint8_t(compression),
                          uint8_t(filter), uint8_t(interlace)};
    return Join({Be32(width), Be32(height), fields});
}

PngWriter::PngWriter() : bytes_{0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A} {}

PngWriter& PngWriter::Chunk(const std::string& type, const Bytes& data) {
    const Bytes typed = Join({Bytes(type.begin(), type.end()), data});
    return ChunkWithCrc(type, data, uint32_t(::crc32(0, typed.data(), uInt(typed.size()))));
}

uint64_t RawImage::PixelBits(uint32_t x, uint32_t y) const {
    const size_t at = y * RowBytes(width) * 8 + size_t(x) * BitsPerPixel();
    uint64_t v = 0;
    for (size_t bit = at; bit < at + BitsPerPixel(); ++bit)
        v = v << 1 | (pixels[bit / 8] >> (7 - bit % 8) & 1);
    return v;
}

void RawImage::SetPixelBits(uint32_t x, uint32_t y, uint64_t v) {
    const size_t at = y * RowBytes(width) * 8 + size_t(x) * BitsPerPixel();
    for (size_t bit = at + BitsPerPixel(); bit-- > at; v >>= 1)
        pixels[bit / 8] =
            uint8_t((pixels[bit / 8] & ~(0x80 >> bit % 8)) | (v & 1) << (7 - bit % 8));
}

RawImage RandomImage(uint32_t width, uint32_t height, int depth, int colourType, uint32_t seed) {
    RawImage image{width, height, depth, colourType, {}};
    image.pixels = RandomBytes(image.RowBytes(width) * height, seed);
    return image;
}

namespace {

// The seven Adam7 passes (constant data: other files' static images use it before dynamic
// initialisation would reach it).
struct Pass {
    uint32_t x0, dx, y0, dy;
};
constexpr Pass kAdam7[7] = {{0, 8, 0, 8}, {4, 8, 0, 8}, {0, 4, 4, 8}, {2, 4, 0, 4},
                            {0, 2, 2, 4}, {1, 2, 0, 2}, {0, 1, 1, 2}};

int Paeth(int a, int b, int c) {
    int p = a + b - c, pa = abs(p - a), pb = abs(p - b), pc = abs(p - c);
    return pa <= pb && pa <= pc ? a : pb <= pc ? b : c;
}

// Filters the rows of one (sub-)image, the row above the first being zeros.
void FilterRows(const RawImage& image, int& scanline, const std::function<int(int)>& filterOf,
                Bytes& out) {
    const size_t bpp = size_t(image.BitsPerPixel() + 7) / 8, rowBytes = image.RowBytes(image.width);
    for (uint32_t y = 0; y < image.height; ++y) {
        const unsigned char* row = &image.pixels[y * rowBytes];
        const int filter = filterOf(scanline++);
        out.push_back(uint8_t(filter));
        for (size_t i = 0; i < rowBytes; ++i) {
            const int a = i >= bpp ? row[i - bpp] : 0, b = y ? row[i - rowBytes] : 0;
            const int c = i >= bpp && y ? row[i - rowBytes - bpp] : 0;
            const int predicted[5] = {0, a, b, (a + b) / 2, Paeth(a, b, c)};
            out.push_back(uint8_t(row[i] - (filter < 5 ? predicted[filter] : 0)));
        }
    }
}

}  // namespace

Bytes Scanlines(const RawImage& image, bool interlaced, const std::function<int(int)>& filterOf) {
    Bytes out;
    int scanline = 0;
    if (!interlaced) {
        FilterRows(image, scanline, filterOf, out);
        return out;
    }
    for (const Pass& pass : kAdam7) {
        if (image.width <= pass.x0 || image.height <= pass.y0) continue;  // an empty pass
        RawImage sub = {0, 0, image.depth, image.colourType, {}};
        sub.width = (image.width - pass.x0 + pass.dx - 1) / pass.dx;
        sub.height = (image.height - pass.y0 + pass.dy - 1) / pass.dy;
        sub.pixels.assign(sub.RowBytes(sub.width) * sub.height, 0);
        for (uint32_t y = 0; y < sub.height; ++y)
            for (uint32_t x = 0; x < sub.width; ++x)
                sub.SetPixelBits(x, y,
                                 image.PixelBits(pass.x0 + x * pass.dx, pass.y0 + y * pass.dy));
        FilterRows(sub, scanline, filterOf, out);
    }
    return out;
}

Bytes EncodePng(const RawImage& image, const PngOptions& options) {
    PngWriter png;
    png.Ihdr(image.width, image.height, image.depth, image.colourType, options.interlaced);
    if (!options.plte.empty()) png.Chunk("PLTE", options.plte);
    if (!options.trns.empty()) png.Chunk("tRNS", options.trns);
    const Bytes data = Zlib(Scanlines(image, options.interlaced, options.filterOf), options.level);
    for (size_t at = 0; at < data.size(); at += options.idatSize)
        png.Idat(Slice(data, at, std::min(data.size(), at + options.idatSize)));
    return png.Iend().bytes();
}

std::vector<std::string> DataFiles(const std::string& folder) {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(KALPNG_TESTDATA "/" + folder))
        if (entry.path().extension() == ".png") names.push_back(entry.path().stem().string());
    std::sort(names.begin(), names.end());
    return names;
}

Bytes ReadDataFile(const std::string& folderAndName) {
    std::ifstream file(KALPNG_TESTDATA "/" + folderAndName + ".png", std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

std::vector<std::string> ConformanceAndBenchFiles(uint64_t maxBenchPixels) {
    std::vector<std::string> files;
    for (const std::string& name : DataFiles("pngsuite"))
        if (name[0] != 'x') files.push_back("pngsuite/" + name);
    for (const std::string& name : DataFiles("bench")) {
        const Bytes png = ReadDataFile("bench/" + name);
        const uint64_t pixels = uint64_t{png_get_uint_32(&png[16])} * png_get_uint_32(&png[20]);
        if (pixels <= maxBenchPixels) files.push_back("bench/" + name);
    }
    return files;
}

std::string Report(const std::string& file, int position) {
    return "\n?!exception@ " + file + " +" + std::to_string(position) + " !?\n\n\n";
}

std::string Printed(const std::function<void()>& work) {
    testing::internal::CaptureStdout();
    work();
    fflush(nullptr);
    return testing::internal::GetCapturedStdout();
}

namespace {

// libpng's reading of the file into `ref`, false when libpng refuses it. libpng leaves this
// frame with longjmp, so everything with a destructor lives in the caller's.
bool ReadWithLibpng(FILE* file, Reference& ref, std::vector<png_bytep>& rows) {
    // Errors jump back to the setjmp below; warnings are dropped.
    png_structp png = png_create_read_struct(
        PNG_LIBPNG_VER_STRING, nullptr, [](png_structp p, png_const_charp) { png_longjmp(p, 1); },
        [](png_structp, png_const_charp) {});
    png_infop info = png_create_info_struct(png);
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_read_struct(&png, &info, nullptr);
        return false;
    }
    png_init_io(png, file);
    png_read_info(png, info);
    // The decoder's expansion: palette, low-depth grey and tRNS keys expanded, 16-bit samples
    // cut to their high byte, grey repeated, opaque pixels 255. (libpng matches 8-bit samples
    // against a key's low byte only: keys above the depth have tests of their own.)
    png_set_expand(png);
    png_set_strip_16(png);
    png_set_gray_to_rgb(png);
    png_set_add_alpha(png, 0xFF, PNG_FILLER_AFTER);
    png_set_interlace_handling(png);
    png_read_update_info(png, info);
    ref.width = png_get_image_width(png, info);
    ref.height = png_get_image_height(png, info);
    ref.rgba.resize(size_t(ref.width) * ref.height * 4);
    for (uint32_t y = 0; y < ref.height; ++y)
        rows.push_back(&ref.rgba[size_t(y) * ref.width * 4]);
    png_read_image(png, rows.data());
    png_read_end(png, nullptr);
    png_destroy_read_struct(&png, &info, nullptr);
    return true;
}

}  // namespace

Reference ReferenceDecode(const Bytes& file) {
    Reference ref;
    std::vector<png_bytep> rows;
    FILE* in = fmemopen(const_cast<unsigned char*>(file.data()), file.size(), "rb");
    if (!in) return ref;  // no bytes at all
    ref.ok = ReadWithLibpng(in, ref, rows);
    fclose(in);
    return ref.ok ? ref : Reference{};
}

}  // namespace pngtest
