// Decodes a PNG file read through a file stream and prints its size and its first pixel.
// Build: see CMakeLists.txt beside it.
#include <cstdio>

#include "CPNG.h"
#include "kau.h"
#include "mmstream.h"

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    MMAttri name = {};
    MMAttriFromString(&name, mmIdFileName, argv[1]);
    MMStream* stream = MMStreamNew(&name, 1);  // the stream kind is chosen by its attributes
    STImageSimple image = {};
    const int decoded = MMStreamReady(stream) && DecodePNG(stream, 255, &image);
    MMStreamDelete(&stream);
    if (!decoded) return 1;
    const unsigned char* p = image.data;
    printf("%u x %u, first pixel %u %u %u %u\n", image.width, image.height, p[0], p[1], p[2], p[3]);
    kau::mem::Delete(image.data);
    return 0;
}
