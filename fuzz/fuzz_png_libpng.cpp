// DecodePNG in memory checked against libpng: whenever both decoders accept a PNG, the pixels
// must be equal once libpng's samples are expanded by the decoder's rules (16-bit samples to
// their high byte, low-depth grey by replication, tRNS keys compared on the full sample,
// palette indices past the palette black, defaultAlpha where tRNS has no entry). Which inputs
// each decoder refuses is not compared: libpng has limits and leniencies of its own.
//
// Input: one options byte, then the PNG.
#include "fuzz_png.h"

#include <png.h>

#include <csetjmp>
#include <memory>

namespace {

struct Reader {
    const std::vector<unsigned char>* bytes;
    size_t position;
};

void Read(png_structp png, png_bytep out, png_size_t n) {
    auto* reader = static_cast<Reader*>(png_get_io_ptr(png));
    if (n > reader->bytes->size() - reader->position) png_error(png, "short input");
    memcpy(out, reader->bytes->data() + reader->position, n);
    reader->position += n;
}

void Silent(png_structp, png_const_charp) {}

[[noreturn]] void Abandon(png_structp png, png_const_charp) {
    png_longjmp(png, 1);
}

// One sample of `bits` bits starting at bit `first` of a packed row, most significant first.
uint32_t Sample(const unsigned char* row, size_t first, unsigned bits) {
    if (bits == 16) return uint32_t{row[first / 8]} << 8 | row[first / 8 + 1];
    if (bits == 8) return row[first / 8];
    return (row[first / 8] >> (8 - bits - first % 8)) & ((1u << bits) - 1);
}

struct Image {
    uint32_t width = 0, height = 0;
    std::vector<unsigned char> rgba;
};

// libpng's reading of the PNG expanded to R, G, B, A by the decoder's rules; false when libpng
// refuses it.
bool DecodeWithLibpng(const std::vector<unsigned char>& file, unsigned long defaultAlpha,
                      Image& image) {
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, Abandon, Silent);
    png_infop info = png_create_info_struct(png);
    Reader reader{&file, 0};
    // Locals changed after setjmp would be indeterminate after the jump back; these live on
    // the heap behind a pointer that stays as it is.
    struct Rows {
        std::vector<std::vector<unsigned char>> bytes;
        std::vector<png_bytep> pointers;
    };
    const auto work = std::make_unique<Rows>();
    auto& rows = work->bytes;
    auto& pointers = work->pointers;
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_read_struct(&png, &info, nullptr);
        return false;
    }
    png_set_read_fn(png, &reader, Read);
    png_read_info(png, info);
    image.width = png_get_image_width(png, info);
    image.height = png_get_image_height(png, info);
    const unsigned depth = png_get_bit_depth(png, info);
    const int colourType = png_get_color_type(png, info);
    if (png_get_interlace_type(png, info) != PNG_INTERLACE_NONE) png_set_interlace_handling(png);
    png_read_update_info(png, info);
    rows.assign(image.height, std::vector<unsigned char>(png_get_rowbytes(png, info)));
    for (auto& row : rows)
        pointers.push_back(row.data());
    png_read_image(png, pointers.data());

    png_colorp palette = nullptr;
    int paletteCount = 0;
    png_get_PLTE(png, info, &palette, &paletteCount);
    png_bytep alphas = nullptr;
    int alphaCount = 0;
    png_color_16p key = nullptr;
    const bool keyed = png_get_tRNS(png, info, &alphas, &alphaCount, &key) != 0;
    const unsigned channels = png_get_channels(png, info);

    auto eight = [depth](uint32_t v) {
        return static_cast<unsigned char>(depth == 16 ? v >> 8 : v * 255 / ((1u << depth) - 1));
    };
    image.rgba.resize(size_t{image.width} * image.height * 4);
    for (uint32_t y = 0; y < image.height; ++y)
        for (uint32_t x = 0; x < image.width; ++x) {
            uint32_t s[4] = {};
            for (unsigned c = 0; c < channels; ++c)
                s[c] = Sample(rows[y].data(), (size_t{x} * channels + c) * depth, depth);
            unsigned char* out = &image.rgba[(size_t{y} * image.width + x) * 4];
            switch (colourType) {
                case PNG_COLOR_TYPE_GRAY:
                    out[0] = out[1] = out[2] = eight(s[0]);
                    out[3] = keyed && s[0] == key->gray ? 0 : 255;
                    break;
                case PNG_COLOR_TYPE_RGB:
                    for (int c = 0; c < 3; ++c)
                        out[c] = eight(s[c]);
                    out[3] = keyed && s[0] == key->red && s[1] == key->green && s[2] == key->blue
                                 ? 0
                                 : 255;
                    break;
                case PNG_COLOR_TYPE_PALETTE: {
                    const bool inPalette = static_cast<int>(s[0]) < paletteCount;
                    out[0] = inPalette ? palette[s[0]].red : 0;
                    out[1] = inPalette ? palette[s[0]].green : 0;
                    out[2] = inPalette ? palette[s[0]].blue : 0;
                    out[3] = static_cast<int>(s[0]) < alphaCount
                                 ? alphas[s[0]]
                                 : static_cast<unsigned char>(defaultAlpha);
                    break;
                }
                case PNG_COLOR_TYPE_GRAY_ALPHA:
                    out[0] = out[1] = out[2] = eight(s[0]);
                    out[3] = eight(s[1]);
                    break;
                default:
                    for (int c = 0; c < 4; ++c)
                        out[c] = eight(s[c]);
                    break;
            }
        }
    png_destroy_read_struct(&png, &info, nullptr);
    return true;
}

void CompareWithLibpng(const fuzz::PngOptions& options, const std::vector<unsigned char>& png) {
    STImageSimple decoded{};
    if (!DecodePNG(png.data(), png.size(), options.defaultAlpha, &decoded)) return;
    // libpng runs only on PNGs that the decoder accepted, whose size its allocation ceiling
    // has bounded.
    Image reference;
    if (DecodeWithLibpng(png, options.defaultAlpha, reference)) {
        fuzz::Check(reference.width == decoded.width && reference.height == decoded.height,
                    "size differs from libpng's");
        fuzz::Check(memcmp(reference.rgba.data(), decoded.data, reference.rgba.size()) == 0,
                    "pixels differ from libpng's");
    }
    kau::mem::Delete(decoded.data);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return fuzz::TestOnePng(data, size, CompareWithLibpng);
}
