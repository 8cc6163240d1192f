#include "reencode.h"

#include <fcntl.h>
#include <png.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdio>
#include <cstdlib>

namespace reencode {
namespace {

bool WriteFile(const std::string& path, const Bytes& bytes) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return false;
    const bool written = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    return std::fclose(f) == 0 && written;
}

void AppendToBytes(png_structp png, png_bytep data, png_size_t size) {
    auto* out = static_cast<Bytes*>(png_get_io_ptr(png));
    out->insert(out->end(), data, data + size);
}

bool OnPath(const std::string& program) {
    const char* path = std::getenv("PATH");
    std::string folders = path ? path : "/usr/bin:/bin";
    for (size_t start = 0; start <= folders.size();) {
        size_t end = folders.find(':', start);
        if (end == std::string::npos) end = folders.size();
        const std::string candidate = folders.substr(start, end - start) + "/" + program;
        if (end > start && access(candidate.c_str(), X_OK) == 0) return true;
        start = end + 1;
    }
    return false;
}

// Runs the program with its output and errors thrown away; true when it exits with status 0.
bool Run(const std::vector<std::string>& argv) {
    const pid_t child = fork();
    if (child < 0) return false;
    if (child == 0) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        std::vector<char*> args;
        for (const std::string& a : argv)
            args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

Bytes ReadFile(const std::string& path) {
    Bytes bytes;
    if (FILE* f = std::fopen(path.c_str(), "rb")) {
        unsigned char buffer[65536];
        size_t n;
        while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0)
            bytes.insert(bytes.end(), buffer, buffer + n);
        std::fclose(f);
    }
    return bytes;
}

Pixels RgbOf(const Bytes& rgba, uint32_t width, uint32_t height) {
    Pixels rgb{width, height, 3, {}};
    rgb.samples.reserve(size_t{width} * height * 3);
    for (size_t i = 0; i + 4 <= rgba.size(); i += 4)
        rgb.samples.insert(rgb.samples.end(), &rgba[i], &rgba[i + 3]);
    return rgb;
}

Pixels GreyOf(const Pixels& rgb) {
    Pixels grey{rgb.width, rgb.height, 1, {}};
    grey.samples.reserve(rgb.samples.size() / 3);
    for (size_t i = 0; i + 3 <= rgb.samples.size(); i += 3) {
        const unsigned r = rgb.samples[i], g = rgb.samples[i + 1], b = rgb.samples[i + 2];
        grey.samples.push_back(uint8_t((299 * r + 587 * g + 114 * b + 500) / 1000));
    }
    return grey;
}

Bytes WritePng(const Pixels& pixels, int level, int filters) {
    Bytes out;
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    if (!info || setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        return {};
    }
    png_set_write_fn(png, &out, AppendToBytes, nullptr);
    png_set_IHDR(png, info, pixels.width, pixels.height, 8,
                 pixels.channels == 1 ? PNG_COLOR_TYPE_GRAY : PNG_COLOR_TYPE_RGB,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_set_compression_level(png, level);
    png_set_filter(png, PNG_FILTER_TYPE_BASE, filters);
    png_write_info(png, info);
    const size_t stride = size_t{pixels.width} * pixels.channels;
    for (uint32_t y = 0; y < pixels.height; ++y)
        png_write_row(png, &pixels.samples[y * stride]);
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    return out;
}

Bytes ByTool(const Tool& tool, const Bytes& source, const std::string& name,
             const std::string& cacheFolder, std::string* why) {
    // The CRC of the source and the arguments in the name: a changed benchmark image or a
    // changed call is encoded again.
    uLong sum = crc32(0, source.data(), uInt(source.size()));
    for (const std::string& a : tool.arguments)
        sum = crc32(sum, reinterpret_cast<const Bytef*>(a.data()), uInt(a.size()));
    char crc[16];
    std::snprintf(crc, sizeof crc, "%08lx", sum);
    const std::string stem = cacheFolder + "/" + tool.program + "-" + crc + "-" + name;
    Bytes made = ReadFile(stem);
    if (!made.empty()) return made;
    if (!OnPath(tool.program)) {
        *why = std::string(tool.program) + " is not installed";
        return {};
    }
    mkdir(cacheFolder.c_str(), 0777);
    const std::string in = stem + ".in.png", out = stem + ".out.png";
    std::vector<std::string> argv = {tool.program};
    for (const std::string& a : tool.arguments)
        argv.push_back(a == "IN" ? in : a == "OUT" ? out : a);
    std::remove(out.c_str());
    const bool ran = WriteFile(in, source) && Run(argv);
    std::remove(in.c_str());
    if (ran) made = ReadFile(out);
    if (made.empty() || std::rename(out.c_str(), stem.c_str()) != 0) {
        std::remove(out.c_str());
        *why = std::string(tool.program) + " failed on " + name;
        return {};
    }
    return made;
}

}  // namespace reencode
