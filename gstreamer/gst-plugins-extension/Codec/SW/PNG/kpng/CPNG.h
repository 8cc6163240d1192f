// The DecodePNG front ends: one complete PNG, in memory or in a stream, into a plain image
// record. No exception leaves them: every failure is reported on standard output and answers 0.
#pragma once

#include <cstdint>

class MMStream;
namespace kpng {
struct DecodeOptions;
}

// A decoded image: 4 bytes per pixel, R, G, B, A, rows top to bottom without padding.
// The caller owns `data` and releases it with kau::mem::Delete.
struct STImageSimple {
    uint32_t width, height, dataSize, stride;
    uint16_t bpp, reserved;
    unsigned char* data;
};

// Module text carried by the front ends' errors and reports.
inline constexpr const char kCPNGFile[] =
    "middleware/multimedia-framework/media-service/gstreamer/gst-plugins-extension/Codec/SW/PNG/"
    "kpng/CPNG";

// Error and catch positions of the front ends (all in kCPNGFile), per overload: invalid
// arguments, no decoder object, no pixels, and the report of exceptions without a place.
inline constexpr int kErrMemoryArguments = 22;
inline constexpr int kErrMemoryNoDecoder = 24;
inline constexpr int kErrMemoryNoPixels = 27;
inline constexpr int kCatchMemory = 43;
inline constexpr int kErrStreamArguments = 59;
inline constexpr int kErrStreamNoDecoder = 61;
inline constexpr int kErrStreamNoPixels = 64;
inline constexpr int kCatchStream = 80;
inline constexpr int kErrAlphaDepthArguments = 97;
inline constexpr int kErrAlphaDepthNoDecoder = 99;
inline constexpr int kErrAlphaDepthNoPixels = 103;
inline constexpr int kCatchAlphaDepth = 118;

// 1 with the record filled, 0 with it untouched. `defaultAlpha` (0 to 255) is the alpha of
// palette colours without a transparency entry. `alphaDepth` receives the image's alpha bits
// (-1 for none) once the header has been read; this overload leaves `dataSize` 0.
int DecodePNG(const unsigned char* png, unsigned long size, unsigned long defaultAlpha,
              STImageSimple* image, int& alphaDepth);
int DecodePNG(const unsigned char* png, unsigned long size, unsigned long defaultAlpha,
              STImageSimple* image);
// Reads from the stream's position, which is left wherever the decoder's last read stopped.
int DecodePNG(MMStream* stream, unsigned long defaultAlpha, STImageSimple* image);
// The same two, with the options of one decode (kpng::DecodeOptions); their failures are
// reported at the same positions. The record then describes the options' format (`bpp`) and
// rows (`stride`, and `data` the caller's destination when one was given; `dataSize` is
// stride x height).
int DecodePNG(const unsigned char* png, unsigned long size, unsigned long defaultAlpha,
              STImageSimple* image, const kpng::DecodeOptions& options);
int DecodePNG(MMStream* stream, unsigned long defaultAlpha, STImageSimple* image,
              const kpng::DecodeOptions& options);
