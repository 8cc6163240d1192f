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

Bytes Text(const std::string& s) {
    return Bytes(s.begin(), s.end());
}

const Bytes kPam =
    Join({Text("P7\nWIDTH 3\nHEIGHT 1\nDEPTH 4\nMAXVAL 255\nTUPLTYPE RGB_ALPHA\nENDHDR\n"),
          {255, 0, 0, 255, 0, 255, 0, 255, 10, 20, 30, 255}});
const Bytes kPpm = Join({Text("P6\n3 1\n255\n"), kRgb});
const Bytes kPgm = Join({Text("P5\n3 1\n255\n"), {76, 150, 18}});
const Bytes kAbsent = {};  // the file must not exist

struct ToolCase {
    const char* name;
    const char* arguments;  // shell words; the folder holds rgb.png, bad.png and dir/
    const char* input;      // standard input, a file of the folder
    int status;
    const char* out;   // text that standard output contains; "" for nothing at all
    const char* err;   // the same for standard error
    const char* file;  // a file to compare afterwards ("-": standard output), or null
    const Bytes* bytes;
};

const ToolCase kCases[] = {
    // Arguments and exit codes.
    {"help", "-h", nullptr, 0, "usage: kpng-decode", "", nullptr, nullptr},
    {"long help", "--help rgb.png", nullptr, 0, "usage: kpng-decode", "", nullptr, nullptr},
    {"no input", "", nullptr, 2, "", "kpng-decode: no INPUT\n", nullptr, nullptr},
    {"unknown option", "--bogus rgb.png", nullptr, 2, "", "unknown option --bogus", nullptr,
     nullptr},
    {"missing value", "rgb.png -f", nullptr, 2, "", "-f needs a value", nullptr, nullptr},
    {"alpha too large", "--alpha 256 rgb.png", nullptr, 2, "", "--alpha", nullptr, nullptr},
    {"several without -o", "rgb.png a.pam b.pam", nullptr, 2, "", "need -o DIR", nullptr, nullptr},
    {"unknown extension", "rgb.png out.png", nullptr, 2, "", "cannot tell the format of out.png",
     "out.png", &kAbsent},
    {"stream from stdin", "--stream - out.pam", "rgb.png", 2, "", "--stream", nullptr, nullptr},
    // Formats.
    {"pam by name", "rgb.png out.pam", nullptr, 0, "rgb.png: 3 x 1, ", "", "out.pam", &kPam},
    {"ppm by name", "rgb.png out.ppm", nullptr, 0, "rgb.png: 3 x 1, ", "", "out.ppm", &kPpm},
    {"pgm by name", "rgb.png out.pgm", nullptr, 0, "rgb.png: 3 x 1, ", "", "out.pgm", &kPgm},
    {"format option", "-f pgm rgb.png out.img", nullptr, 0, nullptr, "", "out.img", &kPgm},
    {"stream input", "--stream rgb.png out.ppm", nullptr, 0, "rgb.png: 3 x 1, ", "", "out.ppm",
     &kPpm},
    {"into a folder", "-o dir -f ppm rgb.png", nullptr, 0, "rgb.png: 3 x 1, ", "", "dir/rgb.ppm",
     &kPpm},
    {"info", "--info rgb.png", nullptr, 0,
     "rgb.png: 3 x 1, colour type 2 (RGB), 8 bits per sample, not interlaced\n"
     "  chunks: IHDR IDAT IEND\n",
     "", nullptr, nullptr},
    // Standard input and output.
    {"stdin to stdout", "- -", "rgb.png", 0, nullptr, "", "-", &kPam},
    {"stdin to a file", "-f ppm - out", "rgb.png", 0, "-: 3 x 1, ", "", "out", &kPpm},
    {"stdout in a format", "-f pgm rgb.png -", nullptr, 0, nullptr, "", "-", &kPgm},
    {"stream to stdout", "--stream rgb.png -", nullptr, 0, nullptr, "", "-", &kPam},
    // Failures: the reason on standard error, the library's report on standard output.
    {"corrupt", "bad.png out.pam", nullptr, 1, "?!exception@ ",
     "kpng-decode: bad.png: a chunk's CRC does not match its data (kpng +576)\n", "out.pam",
     &kAbsent},
    {"info of corrupt", "--info bad.png", nullptr, 1, "?!exception@ ", "(kpng +576)", nullptr,
     nullptr},
    {"folder as input", "dir out.pam", nullptr, 1, "",
     "kpng-decode: dir: cannot read: Is a directory", "out.pam", &kAbsent},
    {"missing input", "none.png", nullptr, 1, "", "none.png: cannot open: No such file", nullptr,
     nullptr},
    {"no such folder", "rgb.png none/out.pam", nullptr, 1, "",
     "kpng-decode: none/out.pam: cannot write: No such file or directory", nullptr, nullptr},
    {"full device", "-f pam rgb.png /dev/full", nullptr, 1, "", "/dev/full: cannot write: No space",
     nullptr, nullptr},
    {"one of several fails", "-o dir rgb.png bad.png", nullptr, 1, "rgb.png: 3 x 1, ",
     "kpng-decode: bad.png: ", "dir/rgb.pam", &kPam},
};

Bytes ReadFile(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

void WriteFile(const fs::path& path, const Bytes& bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

std::string AsText(const Bytes& bytes) {
    return std::string(bytes.begin(), bytes.end());
}

void ExpectText(const std::string& got, const char* wanted, const char* stream) {
    if (!wanted) return;
    if (*wanted == '\0') {
        EXPECT_EQ(got, "") << stream;
    } else {
        EXPECT_NE(got.find(wanted), std::string::npos) << stream << ": " << got;
    }
}

TEST(KpngDecodeTool, Cases) {
    RawImage image;
    image.width = 3;
    image.pixels = kRgb;
    const Bytes png = EncodePng(image);
    Bytes bad = png;
    bad[29] ^= 1;  // the header's CRC

    const fs::path root =
        fs::temp_directory_path() / ("kpng-decode-test-" + std::to_string(getpid()));
    for (const ToolCase& c : kCases) {
        SCOPED_TRACE(c.name);
        const fs::path dir = root / c.name;
        fs::create_directories(dir / "dir");
        WriteFile(dir / "rgb.png", png);
        WriteFile(dir / "bad.png", bad);
        const std::string command = "cd '" + dir.string() + "' && '" KPNG_DECODE "' " +
                                    c.arguments + " <" + (c.input ? c.input : "/dev/null") +
                                    " >stdout 2>stderr";
        const int status = std::system(command.c_str());
        ASSERT_TRUE(WIFEXITED(status));
        EXPECT_EQ(WEXITSTATUS(status), c.status);
        const Bytes out = ReadFile(dir / "stdout");
        ExpectText(AsText(out), c.out, "stdout");
        ExpectText(AsText(ReadFile(dir / "stderr")), c.err, "stderr");
        if (c.file && std::string(c.file) == "-") {
            EXPECT_EQ(out, *c.bytes);
        } else if (c.file) {
            EXPECT_EQ(fs::exists(dir / c.file), !c.bytes->empty());
            if (!c.bytes->empty()) {
                EXPECT_EQ(ReadFile(dir / c.file), *c.bytes);
            }
        }
        // A failed write leaves nothing half-written behind.
        for (const auto& entry : fs::recursive_directory_iterator(dir))
            EXPECT_EQ(entry.path().filename().string().find(".pam."), std::string::npos);
    }
    fs::remove_all(root);
}

}  // namespace
}  // namespace pngtest
