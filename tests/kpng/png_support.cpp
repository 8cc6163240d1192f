#include "png_support.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "CPNG.h"
#include "kau.h"
#include "mmstream.h"

namespace pngtest {

MMStream* PageArrayStream(const Bytes& bytes) {
    MMAttri attributes[2] = {};
    MMAttriFromTag(&attributes[0], mmIdData, MMAttriTagAny);
    MMAttriFromTag(&attributes[1], mmIdPageSize, MMAttriTagU32);
    MMStream* stream = MMStreamNew(attributes, 2);
    if (!stream || !MMStreamReady(stream)) return stream;
    if (!bytes.empty()) MMStreamPut(stream, bytes.data(), unsigned(bytes.size()));
    MMStreamReady(stream);
    return stream;
}

MMStream* FileStream(const Bytes& bytes) {
    char path[] = "/tmp/kpng-test-XXXXXX";
    const int fd = mkstemp(path);
    if (fd < 0) return nullptr;
    const bool written = write(fd, bytes.data(), bytes.size()) == ssize_t(bytes.size());
    close(fd);
    MMAttri name = {};
    MMAttriFromString(&name, mmIdFileName, path);
    MMStream* stream = written ? MMStreamNew(&name, 1) : nullptr;
    if (stream) MMStreamReady(stream);
    unlink(path);  // the open file stays readable
    return stream;
}

Decoded Decode(const Bytes& png, Source source, unsigned long defaultAlpha) {
    Decoded d;
    STImageSimple image = {};
    const bool memory = source == Source::Memory;
    MMStream* stream = memory                         ? nullptr
                       : source == Source::FileStream ? FileStream(png)
                                                      : PageArrayStream(png);
    d.printed = Printed([&] {
        d.result = memory ? DecodePNG(png.data(), png.size(), defaultAlpha, &image)
                          : DecodePNG(stream, defaultAlpha, &image);
    });
    MMStreamDelete(&stream);
    if (d.result) {
        EXPECT_EQ(image.stride, image.width * 4);
        d.width = image.width;
        d.height = image.height;
        d.rgba.assign(image.data, image.data + size_t(image.stride) * image.height);
        kau::mem::Delete(image.data);
    }
    return d;
}

}  // namespace pngtest
