// Re-encodings of the benchmark images, made when the benchmark runs so that the decoder is also
// timed on what other encoders write: libpng's writer (zlib at a chosen level, with its per-row
// filter choice or one filter for every row), optipng and zopflipng. The external encoders take
// seconds to minutes per image, so their files are kept in a folder of the build and made again
// only when the folder lacks them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace reencode {

using Bytes = std::vector<unsigned char>;

// 8-bit samples, `channels` bytes per pixel (1: grey, 3: RGB), rows without padding.
struct Pixels {
    uint32_t width = 0, height = 0;
    int channels = 0;
    Bytes samples;
};

// The bytes of a file; empty when it cannot be read.
Bytes ReadFile(const std::string& path);

// The colour of RGBA pixels, alpha left out.
Pixels RgbOf(const Bytes& rgba, uint32_t width, uint32_t height);

// The luma of RGB pixels, rounded to the nearest integer: (299 R + 587 G + 114 B) / 1000.
Pixels GreyOf(const Pixels& rgb);

// The pixels as a PNG written by libpng at zlib level `level`, with `filters` (PNG_FILTER_*
// bits) the filters its writer may use: one filter for every row, or its choice per row among
// several.
Bytes WritePng(const Pixels& pixels, int level, int filters);

// An external encoder. Its arguments name the input file "IN" and the output file "OUT".
struct Tool {
    const char* program;
    std::vector<std::string> arguments;
};

// What a tool writes for `source` (a PNG file named `name`): read from `cacheFolder` when it
// was made before, else made there. Empty when the tool is not installed or fails; `why` then
// says which.
Bytes ByTool(const Tool& tool, const Bytes& source, const std::string& name,
             const std::string& cacheFolder, std::string* why);

}  // namespace reencode
