// Decodes a PNG file held in memory and prints its size and its first pixel.
// Build: c++ decode.cpp $(pkg-config --cflags --libs kalpng) -o decode
#include <cstdio>
#include <fstream>
#include <iterator>
#include <vector>

#include "CPNG.h"
#include "kau.h"

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    std::ifstream file(argv[1], std::ios::binary);
    const std::vector<unsigned char> png(std::istreambuf_iterator<char>(file), {});
    STImageSimple image = {};
    if (png.empty() || !DecodePNG(png.data(), png.size(), 255, &image)) return 1;
    const unsigned char* p = image.data;  // R, G, B, A; rows of image.stride bytes
    printf("%u x %u, first pixel %u %u %u %u\n", image.width, image.height, p[0], p[1], p[2], p[3]);
    kau::mem::Delete(image.data);  // the pixels belong to the caller
    return 0;
}
