// kpng-decode: decodes one PNG with DecodePNG, from memory or through a file stream, prints its
// size and the decode time, and writes the pixels as a PAM file when an output is named.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "CPNG.h"
#include "kau.h"
#include "mmstream.h"

namespace {

struct Options {
    unsigned long alpha = 255;
    bool stream = false;
    const char* input = nullptr;
    const char* output = nullptr;
};

bool ParseArguments(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--alpha") == 0 && i + 1 < argc) {
            char* end = nullptr;
            options.alpha = strtoul(argv[++i], &end, 10);
            if (*end != '\0' || end == argv[i]) return false;
        } else if (strcmp(argv[i], "--stream") == 0) {
            options.stream = true;
        } else if (argv[i][0] == '-' && argv[i][1] != '\0') {
            return false;
        } else if (!options.input) {
            options.input = argv[i];
        } else if (!options.output) {
            options.output = argv[i];
        } else {
            return false;
        }
    }
    return options.input != nullptr;
}

bool ReadWholeFile(const char* path, std::vector<unsigned char>& bytes) {
    FILE* file = fopen(path, "rb");
    if (!file) return false;
    unsigned char block[65536];
    size_t n;
    while ((n = fread(block, 1, sizeof(block), file)) > 0)
        bytes.insert(bytes.end(), block, block + n);
    const bool ok = !ferror(file);
    fclose(file);
    return ok;
}

// The decode alone is timed; reading the file into memory or opening the stream is not.
int DecodeTimed(const Options& options, STImageSimple& image, double& milliseconds) {
    using Clock = std::chrono::steady_clock;
    int result = 0;
    if (options.stream) {
        MMAttri name = {};
        MMAttriFromString(&name, mmIdFileName, options.input);
        MMStream* stream = MMStreamNew(&name, 1);
        if (!stream || !MMStreamReady(stream)) {
            fprintf(stderr, "kpng-decode: cannot open %s\n", options.input);
            MMStreamDelete(&stream);
            return 0;
        }
        const Clock::time_point start = Clock::now();
        result = DecodePNG(stream, options.alpha, &image);
        milliseconds = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
        MMStreamDelete(&stream);
        return result;
    }
    std::vector<unsigned char> png;
    if (!ReadWholeFile(options.input, png)) {
        fprintf(stderr, "kpng-decode: cannot read %s\n", options.input);
        return 0;
    }
    const Clock::time_point start = Clock::now();
    result = DecodePNG(png.data(), png.size(), options.alpha, &image);
    milliseconds = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    return result;
}

bool WritePam(const char* path, const STImageSimple& image) {
    FILE* file = fopen(path, "wb");
    if (!file) return false;
    fprintf(file, "P7\nWIDTH %u\nHEIGHT %u\nDEPTH 4\nMAXVAL 255\nTUPLTYPE RGB_ALPHA\nENDHDR\n",
            image.width, image.height);
    const size_t bytes = size_t(image.stride) * image.height;
    const bool ok = fwrite(image.data, 1, bytes, file) == bytes;
    return fclose(file) == 0 && ok;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (!ParseArguments(argc, argv, options)) {
        fprintf(stderr, "usage: kpng-decode [--alpha N] [--stream] INPUT.png [OUTPUT.pam]\n");
        return 2;
    }
    STImageSimple image = {};
    double milliseconds = 0;
    if (!DecodeTimed(options, image, milliseconds)) return 1;
    printf("%s: %u x %u, %.3f ms\n", options.input, image.width, image.height, milliseconds);
    const bool written = !options.output || WritePam(options.output, image);
    kau::mem::Delete(image.data);
    if (!written) {
        fprintf(stderr, "kpng-decode: cannot write %s\n", options.output);
        return 1;
    }
    return 0;
}
