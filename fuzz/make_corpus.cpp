// Writes the seed corpora of the fuzz targets from the PNG test files:
//   fuzz_corpus <testdata folder> <corpus folder>
// makes one folder per target under the corpus folder. Each seed carries the leading bytes
// its target reads (options, piece-size seeds) in front of the data. PNGs larger than
// kLargestSeed are cropped to their first rows and re-encoded, so that every seed is small.
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using Bytes = std::vector<unsigned char>;

namespace {

constexpr size_t kLargestSeed = 64 << 10;
constexpr uint32_t kCroppedRows = 8;
constexpr unsigned char kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
// The PNG targets' options byte: bit 0 asks the target to repair the chunk CRCs.
constexpr unsigned char kRepairCrcs = 1;

uint32_t ReadBig32(const unsigned char* p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

void AppendBig32(Bytes& out, uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(static_cast<unsigned char>(v >> shift));
}

Bytes ReadFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteFile(const fs::path& path, const Bytes& a, const Bytes& b = {}) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(a.data()), static_cast<std::streamsize>(a.size()));
    out.write(reinterpret_cast<const char*>(b.data()), static_cast<std::streamsize>(b.size()));
}

struct Chunk {
    std::string type;
    Bytes data;
};

// The chunks of a PNG whose structure is intact, or nothing.
std::vector<Chunk> ReadChunks(const Bytes& png) {
    std::vector<Chunk> chunks;
    if (png.size() < 8 || memcmp(png.data(), kSignature, 8) != 0) return {};
    for (size_t pos = 8; png.size() - pos >= 12;) {
        uint32_t length = ReadBig32(&png[pos]);
        if (length > png.size() - pos - 12) return {};
        chunks.push_back({std::string(png.begin() + pos + 4, png.begin() + pos + 8),
                          Bytes(png.begin() + pos + 8, png.begin() + pos + 8 + length)});
        pos += 12 + length;
    }
    return chunks;
}

Bytes ImageData(const std::vector<Chunk>& chunks) {
    Bytes idat;
    for (const Chunk& chunk : chunks)
        if (chunk.type == "IDAT") idat.insert(idat.end(), chunk.data.begin(), chunk.data.end());
    return idat;
}

void AppendChunk(Bytes& png, const std::string& type, const Bytes& data) {
    AppendBig32(png, static_cast<uint32_t>(data.size()));
    Bytes body(type.begin(), type.end());
    body.insert(body.end(), data.begin(), data.end());
    png.insert(png.end(), body.begin(), body.end());
    AppendBig32(png, static_cast<uint32_t>(crc32(0, body.data(), static_cast<uInt>(body.size()))));
}

// The first `size` bytes that a zlib stream inflates to, or fewer if it ends first.
Bytes InflatePrefix(const Bytes& stream, size_t size) {
    Bytes out(size);
    z_stream z{};
    inflateInit(&z);
    z.next_in = const_cast<Bytef*>(stream.data());
    z.avail_in = static_cast<uInt>(stream.size());
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(size);
    inflate(&z, Z_NO_FLUSH);
    out.resize(size - z.avail_out);
    inflateEnd(&z);
    return out;
}

Bytes Deflate(const Bytes& data, int level, int strategy) {
    z_stream z{};
    deflateInit2(&z, level, Z_DEFLATED, 15, 8, strategy);
    Bytes out(deflateBound(&z, static_cast<uLong>(data.size())));
    z.next_in = const_cast<Bytef*>(data.data());
    z.avail_in = static_cast<uInt>(data.size());
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(out.size());
    deflate(&z, Z_FINISH);
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
}

// A non-interlaced PNG cut to its first rows, re-encoded; other PNGs come back empty.
Bytes Crop(const std::vector<Chunk>& chunks) {
    if (chunks.empty() || chunks[0].type != "IHDR" || chunks[0].data.size() != 13) return {};
    Bytes header = chunks[0].data;
    const uint32_t width = ReadBig32(&header[0]);
    const uint32_t height = ReadBig32(&header[4]);
    const unsigned depth = header[8], colourType = header[9], interlace = header[12];
    static constexpr unsigned kChannels[7] = {1, 0, 3, 1, 2, 0, 4};
    if (interlace != 0 || colourType > 6 || kChannels[colourType] == 0) return {};
    const uint32_t rows = std::min(height, kCroppedRows);
    const size_t rowBytes = 1 + (size_t{width} * kChannels[colourType] * depth + 7) / 8;
    Bytes pixels = InflatePrefix(ImageData(chunks), rowBytes * rows);
    if (pixels.size() != rowBytes * rows) return {};

    header[4] = header[5] = header[6] = 0;
    header[7] = static_cast<unsigned char>(rows);
    Bytes png(kSignature, kSignature + 8);
    AppendChunk(png, "IHDR", header);
    for (const Chunk& chunk : chunks)
        if (chunk.type != "IHDR" && chunk.type != "IDAT" && chunk.type != "IEND")
            AppendChunk(png, chunk.type, chunk.data);
    AppendChunk(png, "IDAT", Deflate(pixels, 9, Z_DEFAULT_STRATEGY));
    AppendChunk(png, "IEND", {});
    return png;
}

struct Seed {
    std::string name;
    Bytes png;
    bool broken;  // a PngSuite file that must be refused, CRC errors included
};

std::vector<Seed> LoadPngs(const fs::path& testdata) {
    std::vector<Seed> seeds;
    for (const char* folder : {"pngsuite", "bench"}) {
        std::vector<fs::path> paths;
        for (const auto& entry : fs::directory_iterator(testdata / folder))
            if (entry.path().extension() == ".png") paths.push_back(entry.path());
        std::sort(paths.begin(), paths.end());
        for (const fs::path& path : paths) {
            Bytes png = ReadFile(path);
            if (png.size() > kLargestSeed) png = Crop(ReadChunks(png));
            if (png.empty()) continue;
            std::string name = path.stem().string();
            seeds.push_back({name, png, name[0] == 'x'});
        }
    }
    return seeds;
}

// zlib streams made with every kind of block: stored, fixed, dynamic, and a preset dictionary.
std::vector<Bytes> SyntheticStreams() {
    Bytes text;
    for (int i = 0; i < 3000; ++i)
        text.push_back(static_cast<unsigned char>("the quick brown fox "[i % 20] ^ (i / 500)));
    Bytes noise(5000);
    uint32_t state = 12345;
    for (unsigned char& byte : noise) {
        state = state * 1103515245 + 12345;
        byte = static_cast<unsigned char>(state >> 24);
    }
    std::vector<Bytes> streams;
    for (int level : {0, 1, 6, 9})
        for (const Bytes* data : {&text, &noise})
            streams.push_back(Deflate(*data, level, Z_DEFAULT_STRATEGY));
    for (int strategy : {Z_FIXED, Z_HUFFMAN_ONLY, Z_RLE, Z_FILTERED})
        streams.push_back(Deflate(text, 9, strategy));
    streams.push_back(Deflate({}, 9, Z_DEFAULT_STRATEGY));

    z_stream z{};
    deflateInit(&z, 9);
    deflateSetDictionary(&z, text.data(), 100);
    Bytes withDictionary(deflateBound(&z, static_cast<uLong>(text.size())));
    z.next_in = text.data();
    z.avail_in = static_cast<uInt>(text.size());
    z.next_out = withDictionary.data();
    z.avail_out = static_cast<uInt>(withDictionary.size());
    deflate(&z, Z_FINISH);
    withDictionary.resize(z.total_out);
    deflateEnd(&z);
    streams.push_back(withDictionary);
    return streams;
}

fs::path Folder(const fs::path& corpus, const char* target) {
    fs::path folder = corpus / target;
    fs::create_directories(folder);
    return folder;
}

void WritePngSeeds(const fs::path& corpus, const std::vector<Seed>& seeds) {
    const fs::path memory = Folder(corpus, "fuzz_png_memory");
    const fs::path libpng = Folder(corpus, "fuzz_png_libpng");
    const fs::path stream = Folder(corpus, "fuzz_png_stream");
    const fs::path input = Folder(corpus, "fuzz_png_input");
    for (size_t i = 0; i < seeds.size(); ++i) {
        const Seed& seed = seeds[i];
        // Broken files keep their own CRCs, which may be what is broken about them.
        const unsigned char repair = seed.broken ? 0 : kRepairCrcs;
        const unsigned char variant = static_cast<unsigned char>(i % 8 << 3);
        WriteFile(memory / seed.name, {repair}, seed.png);
        WriteFile(libpng / seed.name, {static_cast<unsigned char>(repair | i % 4 << 1)}, seed.png);
        WriteFile(stream / seed.name, {static_cast<unsigned char>(repair | variant)}, seed.png);
        const Bytes prefix = {static_cast<unsigned char>(repair | variant),
                              static_cast<unsigned char>(i), static_cast<unsigned char>(i * 7),
                              static_cast<unsigned char>(i * 13)};
        WriteFile(input / seed.name, prefix, seed.png);
        // Back to back with the next PNG, with a few stray bytes after the pair.
        const Seed& next = seeds[(i + 1) % seeds.size()];
        Bytes pair = seed.png;
        pair.insert(pair.end(), next.png.begin(), next.png.end());
        pair.insert(pair.end(), {'t', 'a', 'i', 'l'});
        WriteFile(input / (seed.name + "+" + next.name), prefix, pair);
    }
}

void WriteInflateSeeds(const fs::path& corpus, const std::vector<Seed>& seeds) {
    std::vector<std::pair<std::string, Bytes>> streams;
    for (const Seed& seed : seeds) {
        Bytes idat = ImageData(ReadChunks(seed.png));
        if (!idat.empty()) streams.emplace_back(seed.name, idat);
    }
    std::vector<Bytes> synthetic = SyntheticStreams();
    for (size_t i = 0; i < synthetic.size(); ++i)
        streams.emplace_back("zlib" + std::to_string(i), synthetic[i]);

    const fs::path decompress = Folder(corpus, "fuzz_zin_decompress");
    const fs::path stream = Folder(corpus, "fuzz_zin_stream");
    for (size_t i = 0; i < streams.size(); ++i) {
        WriteFile(decompress / streams[i].first, streams[i].second);
        WriteFile(stream / streams[i].first, {static_cast<unsigned char>(i % 16)},
                  streams[i].second);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: %s TESTDATA CORPUS\n", argv[0]);
        return 2;
    }
    const std::vector<Seed> seeds = LoadPngs(argv[1]);
    if (seeds.empty()) {
        fprintf(stderr, "no PNG files under %s\n", argv[1]);
        return 1;
    }
    WritePngSeeds(argv[2], seeds);
    WriteInflateSeeds(argv[2], seeds);
    printf("%zu PNG seeds written under %s\n", seeds.size(), argv[2]);
    return 0;
}
