#include "png_support.h"

#include <gtest/gtest.h>
#include <png.h>
#include <unistd.h>
#include <zlib.h>

#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>

#include "CPNG.h"
#include "kau.h"
#include "mmstream.h"

namespace pngtest {

std::string Report(const char* file, int position) {
    return "\n?!exception@ " + std::string(file) + " +" + std::to_string(position) + " !?\n\n\n";
}

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
    EXPECT_EQ(compress2(out.data(), &size, raw.data(), raw.size(), level), Z_OK);
    out.resize(size);
    return out;
}

Bytes RandomBytes(size_t n, uint32_t seed) {
    std::mt19937 random(seed);
    Bytes b(n);
    for (auto& byte : b)
        byte = uint8_t(random());
    return b;
}

// ---- Writer ----

PngWriter::PngWriter() : bytes_{0x89, 0x50, 0x4E, 0x47, 0x0D, 0x0A, 0x1A, 0x0A} {}

PngWriter& PngWriter::Chunk(const std::string& type, const Bytes& data) {
    Bytes typed(type.begin(), type.end());
    typed.insert(typed.end(), data.begin(), data.end());
    return ChunkWithCrc(type, data, uint32_t(::crc32(0, typed.data(), typed.size())));
}

PngWriter& PngWriter::ChunkWithCrc(const std::string& type, const Bytes& data, uint32_t crc) {
    LengthAndType(uint32_t(data.size()), type);
    Raw(data);
    return Raw(Be32(crc));
}

PngWriter& PngWriter::LengthAndType(uint32_t length, const std::string& type) {
    Raw(Be32(length));
    return Raw(Bytes(type.begin(), type.end()));
}

PngWriter& PngWriter::Ihdr(uint32_t width, uint32_t height, int depth, int colourType,
                           int interlace) {
    Bytes data = Join({Be32(width), Be32(height)});
    data.insert(data.end(), {uint8_t(depth), uint8_t(colourType), 0, 0, uint8_t(interlace)});
    return Chunk("IHDR", data);
}

PngWriter& PngWriter::Raw(const Bytes& bytes) {
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    return *this;
}

// ---- Raw images and scanlines ----

namespace {

int ChannelsOf(int colourType) {
    static const int channels[7] = {1, 0, 3, 1, 2, 0, 4};
    return channels[colourType];
}

struct Adam7Pass {
    uint32_t x0, dx, y0, dy;
};
const Adam7Pass kAdam7[7] = {{0, 8, 0, 8}, {4, 8, 0, 8}, {0, 4, 4, 8}, {2, 4, 0, 4},
                             {0, 2, 2, 4}, {1, 2, 0, 2}, {0, 1, 1, 2}};

uint32_t PassSize(uint32_t size, uint32_t start, uint32_t step) {
    return size > start ? (size - start + step - 1) / step : 0;
}

int Paeth(int a, int b, int c) {
    int p = a + b - c, pa = abs(p - a), pb = abs(p - b), pc = abs(p - c);
    return pa <= pb && pa <= pc ? a : pb <= pc ? b : c;
}

// Filters consecutive rows of one (sub-)image, the row above the first being zeros.
void FilterRows(const RawImage& image, const std::vector<Bytes>& rows, int& scanline,
                const std::function<int(int)>& filterOf, Bytes& out) {
    const size_t bpp = size_t(image.BitsPerPixel() + 7) / 8;
    Bytes prior(rows.empty() ? 0 : rows[0].size(), 0);
    for (const Bytes& row : rows) {
        const int filter = filterOf(scanline++);
        out.push_back(uint8_t(filter));
        for (size_t i = 0; i < row.size(); ++i) {
            int a = i >= bpp ? row[i - bpp] : 0, b = prior[i], c = i >= bpp ? prior[i - bpp] : 0;
            int predicted = 0;
            switch (filter) {
                case 1:
                    predicted = a;
                    break;
                case 2:
                    predicted = b;
                    break;
                case 3:
                    predicted = (a + b) / 2;
                    break;
                case 4:
                    predicted = Paeth(a, b, c);
                    break;
                default:
                    break;
            }
            out.push_back(uint8_t(row[i] - predicted));
        }
        prior = row;
    }
}

}  // namespace

int RawImage::BitsPerPixel() const {
    return ChannelsOf(colourType) * depth;
}

size_t RawImage::RowBytes(uint32_t pixelsInRow) const {
    return (size_t(pixelsInRow) * BitsPerPixel() + 7) / 8;
}

uint64_t RawImage::PixelBits(uint32_t x, uint32_t y) const {
    const int bits = BitsPerPixel();
    const unsigned char* row = pixels.data() + y * RowBytes(width);
    if (bits < 8) {
        size_t bit = size_t(x) * bits;
        return (row[bit / 8] >> (8 - bits - bit % 8)) & ((1u << bits) - 1);
    }
    uint64_t v = 0;
    for (int k = 0; k < bits / 8; ++k)
        v = v << 8 | row[size_t(x) * (bits / 8) + k];
    return v;
}

void RawImage::SetPixelBits(uint32_t x, uint32_t y, uint64_t v) {
    const int bits = BitsPerPixel();
    unsigned char* row = pixels.data() + y * RowBytes(width);
    if (bits < 8) {
        size_t bit = size_t(x) * bits;
        int shift = 8 - bits - int(bit % 8);
        row[bit / 8] = uint8_t((row[bit / 8] & ~(((1u << bits) - 1) << shift)) | v << shift);
        return;
    }
    for (int k = bits / 8 - 1; k >= 0; --k, v >>= 8)
        row[size_t(x) * (bits / 8) + k] = uint8_t(v);
}

RawImage RandomImage(uint32_t width, uint32_t height, int depth, int colourType, uint32_t seed) {
    RawImage image;
    image.width = width;
    image.height = height;
    image.depth = depth;
    image.colourType = colourType;
    image.pixels = RandomBytes(image.RowBytes(width) * height, seed);
    return image;
}

Bytes Scanlines(const RawImage& image, bool interlaced, const std::function<int(int)>& filterOf) {
    Bytes out;
    int scanline = 0;
    if (!interlaced) {
        std::vector<Bytes> rows;
        const size_t rowBytes = image.RowBytes(image.width);
        for (uint32_t y = 0; y < image.height; ++y)
            rows.push_back(Slice(image.pixels, y * rowBytes, (y + 1) * rowBytes));
        FilterRows(image, rows, scanline, filterOf, out);
        return out;
    }
    for (const Adam7Pass& pass : kAdam7) {
        RawImage sub = image;
        sub.width = PassSize(image.width, pass.x0, pass.dx);
        sub.height = PassSize(image.height, pass.y0, pass.dy);
        if (sub.width == 0 || sub.height == 0) continue;
        sub.pixels.assign(sub.RowBytes(sub.width) * sub.height, 0);
        for (uint32_t y = 0; y < sub.height; ++y)
            for (uint32_t x = 0; x < sub.width; ++x)
                sub.SetPixelBits(x, y,
                                 image.PixelBits(pass.x0 + x * pass.dx, pass.y0 + y * pass.dy));
        std::vector<Bytes> rows;
        const size_t rowBytes = sub.RowBytes(sub.width);
        for (uint32_t y = 0; y < sub.height; ++y)
            rows.push_back(Slice(sub.pixels, y * rowBytes, (y + 1) * rowBytes));
        FilterRows(sub, rows, scanline, filterOf, out);
    }
    return out;
}

Bytes EncodePng(const RawImage& image, const PngOptions& options) {
    PngWriter png;
    png.Ihdr(image.width, image.height, image.depth, image.colourType, options.interlaced);
    if (!options.plte.empty()) png.Chunk("PLTE", options.plte);
    if (!options.trns.empty()) png.Chunk("tRNS", options.trns);
    const Bytes data = Zlib(Scanlines(image, options.interlaced, options.filterOf));
    for (size_t at = 0; at < data.size(); at += options.idatSize)
        png.Idat(Slice(data, at, std::min(data.size(), at + options.idatSize)));
    return png.Iend().bytes();
}

// ---- libpng reference ----

namespace {

struct MemoryReader {
    const Bytes* png;
    size_t at;
};

void ReadFromMemory(png_structp png, png_bytep out, png_size_t n) {
    auto* reader = static_cast<MemoryReader*>(png_get_io_ptr(png));
    if (reader->at + n > reader->png->size()) png_error(png, "short input");
    memcpy(out, reader->png->data() + reader->at, n);
    reader->at += n;
}

void Silent(png_structp, png_const_charp) {}

void ThrowToSetjmp(png_structp png, png_const_charp) {
    png_longjmp(png, 1);
}

}  // namespace

Reference ReferenceDecode(const Bytes& file, unsigned defaultAlpha) {
    Reference ref;
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, ThrowToSetjmp, Silent);
    png_infop info = png_create_info_struct(png);
    MemoryReader reader{&file, 0};
    std::vector<Bytes> rows;
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_read_struct(&png, &info, nullptr);
        return Reference{};
    }
    png_set_read_fn(png, &reader, ReadFromMemory);
    png_read_info(png, info);
    const uint32_t width = png_get_image_width(png, info);
    const uint32_t height = png_get_image_height(png, info);
    const int depth = png_get_bit_depth(png, info);
    const int colourType = png_get_color_type(png, info);
    if (png_get_interlace_type(png, info) != PNG_INTERLACE_NONE) png_set_interlace_handling(png);
    png_read_update_info(png, info);
    rows.assign(height, Bytes(png_get_rowbytes(png, info)));
    std::vector<png_bytep> pointers;
    for (Bytes& row : rows)
        pointers.push_back(row.data());
    png_read_image(png, pointers.data());
    png_read_end(png, nullptr);

    png_colorp palette = nullptr;
    int paletteCount = 0;
    png_get_PLTE(png, info, &palette, &paletteCount);
    png_bytep transAlpha = nullptr;
    int transCount = 0;
    png_color_16p transColour = nullptr;
    const bool keyed = png_get_tRNS(png, info, &transAlpha, &transCount, &transColour) != 0;

    RawImage raw;
    raw.width = width;
    raw.height = height;
    raw.depth = depth;
    raw.colourType = colourType;
    raw.pixels = Join(rows);
    const int channels = ChannelsOf(colourType);
    const int sampleBits = depth;
    ref.rgba.resize(size_t(width) * height * 4);
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x) {
            const uint64_t bits = raw.PixelBits(x, y);
            uint32_t s[4] = {};
            for (int c = 0; c < channels; ++c)
                s[c] =
                    uint32_t(bits >> ((channels - 1 - c) * sampleBits)) & ((1u << sampleBits) - 1);
            // Samples to 8 bits: the high byte of 16, replication of low-depth grey.
            auto eight = [&](uint32_t v) {
                return depth == 16 ? uint8_t(v >> 8) : uint8_t(v * 255 / ((1u << depth) - 1));
            };
            unsigned char* out = &ref.rgba[(size_t(y) * width + x) * 4];
            switch (colourType) {
                case 0:
                    out[0] = out[1] = out[2] = eight(s[0]);
                    out[3] = keyed && s[0] == transColour->gray ? 0 : 255;
                    break;
                case 2:
                    for (int c = 0; c < 3; ++c)
                        out[c] = eight(s[c]);
                    out[3] = keyed && s[0] == transColour->red && s[1] == transColour->green &&
                                     s[2] == transColour->blue
                                 ? 0
                                 : 255;
                    break;
                case 3:
                    out[0] = int(s[0]) < paletteCount ? palette[s[0]].red : 0;
                    out[1] = int(s[0]) < paletteCount ? palette[s[0]].green : 0;
                    out[2] = int(s[0]) < paletteCount ? palette[s[0]].blue : 0;
                    out[3] = int(s[0]) < transCount ? transAlpha[s[0]] : uint8_t(defaultAlpha);
                    break;
                case 4:
                    out[0] = out[1] = out[2] = eight(s[0]);
                    out[3] = eight(s[1]);
                    break;
                default:
                    for (int c = 0; c < 4; ++c)
                        out[c] = eight(s[c]);
                    break;
            }
        }
    }
    png_destroy_read_struct(&png, &info, nullptr);
    ref.ok = true;
    ref.width = width;
    ref.height = height;
    return ref;
}

// ---- Decoding through the front ends ----

const char* SourceName(Source source) {
    switch (source) {
        case Source::Memory:
            return "memory";
        case Source::PageArrayStream:
            return "page-array stream";
        default:
            return "file stream";
    }
}

MMStream* PageArrayStream(const Bytes& bytes) {
    MMAttri attributes[2] = {};
    MMAttriFromTag(&attributes[0], mmIdData, MMAttriTagAny);
    MMAttriFromTag(&attributes[1], mmIdPageSize, MMAttriTagU32);
    MMStream* stream = MMStreamNew(attributes, 2);
    if (!stream || !MMStreamReady(stream)) return stream;
    if (!bytes.empty()) MMStreamPut(stream, bytes.data(), unsigned(bytes.size()));
    MMStreamReady(stream);
    return stream;
}

MMStream* FileStream(const Bytes& bytes) {
    char path[] = "/tmp/kpng-test-XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0) return nullptr;
    if (!bytes.empty() && write(fd, bytes.data(), bytes.size()) != ssize_t(bytes.size())) {
        close(fd);
        return nullptr;
    }
    close(fd);
    MMAttri name = {};
    MMAttriFromString(&name, mmIdFileName, path);
    MMStream* stream = MMStreamNew(&name, 1);
    if (stream) MMStreamReady(stream);
    unlink(path);  // the open file stays readable
    return stream;
}

std::string Printed(const std::function<void()>& work) {
    testing::internal::CaptureStdout();
    work();
    fflush(nullptr);
    return testing::internal::GetCapturedStdout();
}

Decoded Decode(const Bytes& png, Source source, unsigned long defaultAlpha) {
    Decoded d;
    STImageSimple image = {};
    MMStream* stream = nullptr;
    if (source == Source::PageArrayStream) stream = PageArrayStream(png);
    if (source == Source::FileStream) stream = FileStream(png);
    d.printed = Printed([&] {
        d.result = source == Source::Memory
                       ? DecodePNG(png.data(), png.size(), defaultAlpha, &image)
                       : DecodePNG(stream, defaultAlpha, &image);
    });
    MMStreamDelete(&stream);
    if (d.result) {
        d.width = image.width;
        d.height = image.height;
        d.dataSize = image.dataSize;
        d.stride = image.stride;
        d.rgba.assign(image.data, image.data + size_t(image.stride) * image.height);
        kau::mem::Delete(image.data);
    }
    return d;
}

Bytes ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace pngtest
