// The vector forms of row unfiltering and expansion give the same pixels as the portable loops:
// over PngSuite, the benchmark images and rows of every width around the vector step sizes.
#include <gtest/gtest.h>
#include <zlib.h>

#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "CPNG.h"
#include "kpng.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes ReadFile(const std::string& path) {
    Bytes bytes;
    if (FILE* f = std::fopen(path.c_str(), "rb")) {
        int c;
        while ((c = std::fgetc(f)) != EOF)
            bytes.push_back(static_cast<unsigned char>(c));
        std::fclose(f);
    }
    return bytes;
}

std::vector<std::string> PngFiles(const std::string& folder) {
    std::vector<std::string> paths;
    if (DIR* dir = opendir(folder.c_str())) {
        while (dirent* entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name.size() > 4 && name.substr(name.size() - 4) == ".png" && name[0] != 'x')
                paths.push_back(folder + "/" + name);
        }
        closedir(dir);
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

// The pixels DecodePNG gives in memory mode with the vector forms on or off; empty on failure.
Bytes DecodeWith(const Bytes& png, bool vector) {
    kpng::UseVectorRowPaths(vector);
    STImageSimple image{};
    const int result = DecodePNG(png.data(), png.size(), 255, &image);
    kpng::UseVectorRowPaths(true);
    if (!result) return {};
    Bytes pixels(image.data, image.data + image.dataSize);
    kau::mem::Delete(image.data);
    return pixels;
}

void AppendChunk(Bytes& png, const char* type, const Bytes& data) {
    const uint32_t length = uint32_t(data.size());
    for (int shift = 24; shift >= 0; shift -= 8)
        png.push_back(uint8_t(length >> shift));
    const size_t typeAt = png.size();
    png.insert(png.end(), type, type + 4);
    png.insert(png.end(), data.begin(), data.end());
    const uint32_t crc = uint32_t(crc32(0, png.data() + typeAt, uInt(4 + data.size())));
    for (int shift = 24; shift >= 0; shift -= 8)
        png.push_back(uint8_t(crc >> shift));
}

// An 8-bit PNG of random samples whose rows cycle through the given filter types.
Bytes RandomPng(uint32_t width, uint32_t height, uint8_t colourType, uint8_t channels,
                const std::vector<uint8_t>& filters, std::mt19937& random) {
    Bytes raw;
    for (uint32_t y = 0; y < height; ++y) {
        raw.push_back(filters[y % filters.size()]);
        for (uint32_t i = 0; i < width * channels; ++i)
            raw.push_back(uint8_t(random()));
    }
    uLongf size = compressBound(uLong(raw.size()));
    Bytes zlib(size);
    compress(zlib.data(), &size, raw.data(), uLong(raw.size()));
    zlib.resize(size);
    Bytes png = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
    Bytes header = {uint8_t(width >> 24),
                    uint8_t(width >> 16),
                    uint8_t(width >> 8),
                    uint8_t(width),
                    0,
                    0,
                    0,
                    uint8_t(height),
                    8,
                    colourType,
                    0,
                    0,
                    0};
    AppendChunk(png, "IHDR", header);
    AppendChunk(png, "IDAT", zlib);
    AppendChunk(png, "IEND", {});
    return png;
}

void ExpectSamePixels(const std::string& path) {
    SCOPED_TRACE(path);
    const Bytes png = ReadFile(path);
    ASSERT_FALSE(png.empty());
    const Bytes portable = DecodeWith(png, false);
    ASSERT_FALSE(portable.empty());
    EXPECT_TRUE(DecodeWith(png, true) == portable);
}

TEST(VectorRowPaths, PngSuiteDecodesAsWithThePortableLoops) {
    const std::vector<std::string> files = PngFiles(KALPNG_TESTDATA "/pngsuite");
    ASSERT_FALSE(files.empty());
    for (const std::string& path : files)
        ExpectSamePixels(path);
}

TEST(VectorRowPaths, BenchmarkImagesDecodeAsWithThePortableLoops) {
    const std::vector<std::string> files = PngFiles(KALPNG_TESTDATA "/bench");
    ASSERT_FALSE(files.empty());
    for (const std::string& path : files)
        ExpectSamePixels(path);
}

// Every width from 1 to 40 pixels crosses the vector steps (4 pixels, 16-byte loads) and the
// byte loop that finishes a row, for RGB and RGBA, each filter alone and all of them mixed.
TEST(VectorRowPaths, EveryRowWidthAndFilterDecodesAsWithThePortableLoops) {
    struct Kind {
        uint8_t colourType, channels;
    };
    const Kind kinds[] = {{2, 3}, {6, 4}, {0, 1}, {4, 2}};
    const std::vector<std::vector<uint8_t>> filterSets = {{0}, {1}, {2}, {3}, {4}, {4, 1, 2, 3, 0}};
    std::mt19937 random(7);
    for (const Kind& kind : kinds) {
        for (const auto& filters : filterSets) {
            for (uint32_t width = 1; width <= 40; ++width) {
                SCOPED_TRACE("colour type " + std::to_string(kind.colourType) + ", width " +
                             std::to_string(width) + ", first filter " +
                             std::to_string(filters[0]));
                const Bytes png =
                    RandomPng(width, 6, kind.colourType, kind.channels, filters, random);
                const Bytes portable = DecodeWith(png, false);
                ASSERT_EQ(portable.size(), size_t{width} * 6 * 4);
                EXPECT_TRUE(DecodeWith(png, true) == portable);
            }
        }
    }
}

}  // namespace
