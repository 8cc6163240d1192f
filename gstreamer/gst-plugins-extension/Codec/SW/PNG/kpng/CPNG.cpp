#include "CPNG.h"

#include "kau.h"
#include "kpng.h"

namespace {

// Positions of each overload: the argument check, the missing decoder object, the missing
// pixels, and the report of exceptions that carry no place of their own.
struct OverloadPositions {
    int invalidArguments, noDecoder, noPixels, report;
};
constexpr OverloadPositions kMemoryWithAlphaDepth = {97, 99, 103, 118};
constexpr OverloadPositions kMemory = {22, 24, 27, 43};
constexpr OverloadPositions kStream = {59, 61, 64, 80};

// Runs one decode: `valid` is the argument check, `construct` builds the decoder (raising on
// failure), `header` sees it before any pixel is decoded. Fills `image` only on success.
template <typename Construct, typename Header>
int Decode(bool valid, STImageSimple* image, bool withDataSize, const OverloadPositions& at,
           Construct construct, Header header) {
    kpng::Decoder* decoder = nullptr;
    try {
        if (!valid) kau::Error::Throw(kCPNGFile, at.invalidArguments);
        decoder = construct();
        if (!decoder) kau::Error::Throw(kCPNGFile, at.noDecoder);
        header(*decoder);
        unsigned char* pixels = decoder->DecodeImage();
        if (!pixels) kau::Error::Throw(kCPNGFile, at.noPixels);
        const uint32_t width = uint32_t(decoder->OutputWidth());
        const uint32_t height = uint32_t(decoder->OutputHeight());
        kau::mem::Zero8(image, sizeof(*image));
        image->width = width;
        image->height = height;
        image->stride = uint32_t(decoder->OutputWidth()) * 4;
        image->bpp = 32;
        image->data = pixels;
        if (withDataSize) image->dataSize = width * 4 * height;
        delete decoder;
        return 1;
    } catch (...) {
        kau::ReportCurrentException(kCPNGFile, at.report);
        delete decoder;
        return 0;
    }
}

}  // namespace

int DecodePNG(const unsigned char* png, unsigned long size, unsigned long defaultAlpha,
              STImageSimple* image, int& alphaDepth) {
    return Decode(
        png && uint32_t(size) && defaultAlpha <= 255 && image, image, false, kMemoryWithAlphaDepth,
        [&] { return new kpng::Decoder(png, size, static_cast<unsigned char>(defaultAlpha)); },
        [&](const kpng::Decoder& decoder) { alphaDepth = decoder.AlphaDepth(); });
}

int DecodePNG(const unsigned char* png, unsigned long size, unsigned long defaultAlpha,
              STImageSimple* image) {
    return Decode(
        png && uint32_t(size) && defaultAlpha <= 255 && image, image, true, kMemory,
        [&] { return new kpng::Decoder(png, size, static_cast<unsigned char>(defaultAlpha)); },
        [](const kpng::Decoder&) {});
}

int DecodePNG(MMStream* stream, unsigned long defaultAlpha, STImageSimple* image) {
    return Decode(
        stream && defaultAlpha <= 255 && image, image, true, kStream,
        [&] { return new kpng::Decoder(stream, static_cast<unsigned char>(defaultAlpha)); },
        [](const kpng::Decoder&) {});
}

int DecodePNG(const unsigned char* png, unsigned long size, unsigned long defaultAlpha,
              STImageSimple* image, const kpng::DecodeOptions& options) {
    return Decode(
        png && uint32_t(size) && defaultAlpha <= 255 && image, image, true, kMemory,
        [&] {
            return new kpng::Decoder(png, size, static_cast<unsigned char>(defaultAlpha), options);
        },
        [](const kpng::Decoder&) {});
}

int DecodePNG(MMStream* stream, unsigned long defaultAlpha, STImageSimple* image,
              const kpng::DecodeOptions& options) {
    return Decode(
        stream && defaultAlpha <= 255 && image, image, true, kStream,
        [&] {
            return new kpng::Decoder(stream, static_cast<unsigned char>(defaultAlpha), options);
        },
        [](const kpng::Decoder&) {});
}
