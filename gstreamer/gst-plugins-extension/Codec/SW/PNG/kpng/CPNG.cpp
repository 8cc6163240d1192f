#include "CPNG.h"

#include <memory>

#include "kau.h"
#include "kpng.h"

namespace {

// Positions of each overload: the argument check, the missing decoder object, the missing
// pixels, and the report of exceptions that carry no place of their own.
struct OverloadPositions {
    int invalidArguments, noDecoder, noPixels, report;
};
constexpr OverloadPositions kMemoryWithAlphaDepth = {
    kErrAlphaDepthArguments, kErrAlphaDepthNoDecoder, kErrAlphaDepthNoPixels, kCatchAlphaDepth};
constexpr OverloadPositions kMemory = {kErrMemoryArguments, kErrMemoryNoDecoder, kErrMemoryNoPixels,
                                       kCatchMemory};
constexpr OverloadPositions kStream = {kErrStreamArguments, kErrStreamNoDecoder, kErrStreamNoPixels,
                                       kCatchStream};

// Runs one decode: `valid` is the argument check, `construct` builds the decoder (raising on
// failure), `header` sees it before any pixel is decoded. Fills `image` only on success.
template <typename Construct, typename Header>
int Decode(bool valid, STImageSimple* image, bool withDataSize, const OverloadPositions& at,
           Construct construct, Header header, const kpng::DecodeOptions& options = {}) {
    return kau::CatchAndReport(kCPNGFile, at.report, 0, [&] {
        if (!valid) kau::Error::Throw(kCPNGFile, at.invalidArguments);
        std::unique_ptr<kpng::Decoder> decoder(construct());
        if (!decoder) kau::Error::Throw(kCPNGFile, at.noDecoder);
        header(*decoder);
        unsigned char* pixels = decoder->DecodeImage();
        if (!pixels) kau::Error::Throw(kCPNGFile, at.noPixels);
        const uint32_t width = uint32_t(decoder->OutputWidth());
        const uint32_t height = uint32_t(decoder->OutputHeight());
        kau::mem::Zero8(image, sizeof(*image));
        image->width = width;
        image->height = height;
        const uint32_t pixelBytes = kpng::BytesPerPixel(options.format);
        image->stride = options.destination ? options.stride : width * pixelBytes;
        image->bpp = uint16_t(8 * pixelBytes);
        image->data = pixels;
        if (withDataSize) image->dataSize = image->stride * height;
        return 1;
    });
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
        [](const kpng::Decoder&) {}, options);
}

int DecodePNG(MMStream* stream, unsigned long defaultAlpha, STImageSimple* image,
              const kpng::DecodeOptions& options) {
    return Decode(
        stream && defaultAlpha <= 255 && image, image, true, kStream,
        [&] {
            return new kpng::Decoder(stream, static_cast<unsigned char>(defaultAlpha), options);
        },
        [](const kpng::Decoder&) {}, options);
}
