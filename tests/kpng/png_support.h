// Decoding through the DecodePNG front ends with everything they print captured, on top of the
// shared PNG writer and libpng reference.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "test_png.h"

class MMStream;

namespace pngtest {

inline const char kKpng[] =
    "middleware/multimedia-framework/media-service/gstreamer/gst-plugins-extension/Codec/SW/PNG/"
    "kpng/kpng";
inline const char kCpng[] =
    "middleware/multimedia-framework/media-service/gstreamer/gst-plugins-extension/Codec/SW/PNG/"
    "kpng/CPNG";

// A DecodePNG call with its record and everything it printed.
struct Decoded {
    int result = 0;
    uint32_t width = 0, height = 0;
    Bytes rgba;
    std::string printed;
};
enum class Source { Memory, PageArrayStream, FileStream };
inline const char* SourceName(Source source) {
    static const char* const names[] = {"memory", "page-array stream", "file stream"};
    return names[int(source)];
}
Decoded Decode(const Bytes& png, Source source = Source::Memory, unsigned long defaultAlpha = 255);

// Streams holding the bytes, ready and positioned at 0; delete with MMStreamDelete.
MMStream* PageArrayStream(const Bytes& bytes);
MMStream* FileStream(const Bytes& bytes);

}  // namespace pngtest
