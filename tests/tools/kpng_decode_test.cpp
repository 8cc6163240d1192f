// kpng-decode as a shell user meets it: arguments and exit codes, standard input and output,
// the output formats and the failures, each case run in a folder of its own.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "test_png.h"

namespace pngtest {
namespace {

namespace fs = std::filesystem;

// Three pixels whose grey values tell rounding from truncation: 76.2, 149.7 and 18.2.
const Bytes kRgb = {255, 0, 0, 0, 255, 0, 10, 20, 30};

const std::string kPam =
    "P7\nWIDTH 3\nHEIGHT 1\nDEPTH 4\nMAXVAL 255\nTUPLTYPE RGB_ALPHA\nENDHDR\n" +
    std::string("\xff\0\0\xff\0\xff\0\xff\x0a\x14\x1e\xff", 12);
const std::string kPpm = "P6\n3 1\n255\n" + std::string(kRgb.begin(), kRgb.end());
const std::string kPgm = "P5\n3 1\n255\n\x4c\x96\x12";
const std::string kMissing = "(no such file)";

struct ToolCase {
    const char* arguments;  // shell words; the folder holds rgb.png, bad.png, dir/ and full
    int status;
    const char* out;  // text that standard output contains; "" for nothing at all
    const char* err;  // the same for standard error
    // A file to compare afterwards ("-": standard output); without bytes it must not exist.
    const char* file = "out.pam";  // also where a failed or refused run must write nothing
    const std::string* bytes = &kMissing;
};

const ToolCase kCases[] = {
    {"-h", 0, "usage: kpng-decode", ""},
    {"--help rgb.png", 0, "usage: kpng-decode", ""},
    {"", 2, "", "kpng-decode: no INPUT\n"},
    {"--bogus rgb.png", 2, "", "unknown option --bogus"},
    {"rgb.png -f", 2, "", "-f needs a value"},
    {"--alpha 256 rgb.png", 2, "", "--alpha"},
    {"rgb.png a.pam b.pam", 2, "", "need -o DIR"},
    {"rgb.png out.png", 2, "", "cannot tell the format of out.png", "out.png"},
    {"--stream - out.pam <rgb.png", 2, "", "--stream"},
    {"rgb.png out.pam", 0, "rgb.png: 3 x 1, ", "", "out.pam", &kPam},
    {"rgb.png out.ppm", 0, "rgb.png: 3 x 1, ", "", "out.ppm", &kPpm},
    {"rgb.png out.pgm", 0, "rgb.png: 3 x 1, ", "", "out.pgm", &kPgm},
    {"-f pgm rgb.png out.img", 0, nullptr, "", "out.img", &kPgm},
    {"--stream rgb.png out.ppm", 0, "rgb.png: 3 x 1, ", "", "out.ppm", &kPpm},
    {"-o dir -f ppm rgb.png", 0, "rgb.png: 3 x 1, ", "", "dir/rgb.ppm", &kPpm},
    {"--info rgb.png", 0,
     "rgb.png: 3 x 1, colour type 2 (RGB), 8 bits per sample, not interlaced\n"
     "  chunks: IHDR IDAT IEND\n",
     ""},
    {"- - <rgb.png", 0, nullptr, "", "-", &kPam},
    {"-f ppm - out <rgb.png", 0, "-: 3 x 1, ", "", "out", &kPpm},
    {"-f pgm rgb.png -", 0, nullptr, "", "-", &kPgm},
    {"--stream rgb.png -", 0, nullptr, "", "-", &kPam},
    // Failures: the reason on standard error, the library's report on standard output.
    {"bad.png out.pam", 1, "?!exception@ ",
     "kpng-decode: bad.png: a chunk's CRC does not match its data (kpng +576)\n"},
    {"--info bad.png", 1, "?!exception@ ", "(kpng +576)"},
    {"dir out.pam", 1, "", "kpng-decode: dir: cannot read: Is a directory"},
    {"none.png", 1, "", "none.png: cannot open: No such file"},
    {"rgb.png none/out.pam", 1, "", "kpng-decode: none/out.pam: cannot write: No such file"},
    {"-f pam rgb.png full", 1, "", "full: cannot write: No space"},
    {"-o dir rgb.png bad.png", 1, "rgb.png: 3 x 1, ", "bad.png: ", "dir/rgb.pam", &kPam},
};

std::string ReadFile(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return file ? std::string(std::istreambuf_iterator<char>(file), {}) : kMissing;
}

void ExpectText(const std::string& got, const char* wanted) {
    EXPECT_TRUE(!wanted || (*wanted ? got.find(wanted) != std::string::npos : got.empty())) << got;
}

TEST(KpngDecodeTool, Cases) {
    const Bytes encoded = EncodePng({3, 1, 8, 2, kRgb});
    std::string png(encoded.begin(), encoded.end()), bad = png;
    bad[29] ^= 1;  // the header's CRC

    const fs::path root =
        fs::temp_directory_path() / ("kpng-decode-test-" + std::to_string(getpid()));
    for (size_t i = 0; i < std::size(kCases); ++i) {
        const ToolCase& c = kCases[i];
        SCOPED_TRACE(c.arguments);
        const fs::path dir = root / std::to_string(i);
        fs::create_directories(dir / "dir");
        std::ofstream(dir / "rgb.png", std::ios::binary) << png;
        std::ofstream(dir / "bad.png", std::ios::binary) << bad;
        fs::create_symlink("/dev/full", dir / "full");  // a device, should renaming replace it
        // A redirection among the arguments comes last and wins over /dev/null.
        const std::string command = "cd '" + dir.string() +
                                    "' && '" KPNG_DECODE "' </dev/null >stdout 2>stderr " +
                                    c.arguments;
        const int status = std::system(command.c_str());
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == c.status) << status;
        const std::string out = ReadFile(dir / "stdout");
        ExpectText(out, c.out);
        ExpectText(ReadFile(dir / "stderr"), c.err);
        EXPECT_EQ(*c.file == '-' ? out : ReadFile(dir / c.file), *c.bytes);
    }
    fs::remove_all(root);
}

}  // namespace
}  // namespace pngtest
