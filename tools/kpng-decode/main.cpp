// kpng-decode: decodes PNG files with DecodePNG into PAM, PPM or PGM files, or describes their
// header. Its own messages go to standard error, apart from the library's reports, which stay on
// standard output.
#include <getopt.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "CPNG.h"
#include "kau.h"
#include "kpng.h"
#include "mmstream.h"

namespace {

constexpr char kHelp[] =
    "usage: kpng-decode [OPTIONS] INPUT [OUTPUT]\n"
    "       kpng-decode [OPTIONS] -o DIR INPUT...\n"
    "       kpng-decode --info INPUT...\n"
    "Decodes PNG files to 8-bit R, G, B, A and writes them as PAM, PPM or PGM. An INPUT or\n"
    "OUTPUT of '-' is standard input or output. Without OUTPUT the file is only decoded.\n"
    "\n"
    "  -f, --format FORMAT   pam (RGB_ALPHA), ppm or pgm; otherwise taken from OUTPUT's\n"
    "                        extension, and pam for standard output and for -o\n"
    "  -o, --output-dir DIR  writes each INPUT to DIR/NAME.FORMAT, NAME being INPUT's file\n"
    "                        name without .png\n"
    "  -i, --info            prints size, colour type, bit depth, interlacing and the chunks\n"
    "                        of each INPUT, checking the chunks up to the image data; no decoding\n"
    "      --alpha N         alpha (0-255) of palette colours without transparency; 255\n"
    "      --stream          reads INPUT through a file stream instead of from memory\n"
    "  -h, --help            prints this text\n"
    "\n"
    "PPM leaves alpha out. PGM also leaves alpha out and turns colour into grey with the\n"
    "BT.601 weights in 16-bit fixed point, rounded: (19595 R + 38470 G + 7471 B + 32768) >> 16,\n"
    "which keeps grey images as they are.\n"
    "\n"
    "Once a file is safely written (or decoded, without OUTPUT), 'INPUT: W x H, T ms' goes to\n"
    "standard output, unless the image itself does. A failure goes to standard error as\n"
    "'kpng-decode: INPUT: reason (module +position)', the place the decoder reported; the\n"
    "decoder's own report line is on standard output. Exit status: 0 when every file succeeded,\n"
    "1 when one failed, 2 for wrong usage.\n";

// Each file format takes its samples straight from the decoder, in the layout the decoder writes.
struct Format {
    const char* name;  // also the file extension
    int channels;
    kpng::OutputFormat decoded;
};
constexpr Format kFormats[] = {{"pam", 4, kpng::OutputFormat::kRgba},
                               {"ppm", 3, kpng::OutputFormat::kRgb},
                               {"pgm", 1, kpng::OutputFormat::kGray8}};

struct Options {
    unsigned long alpha = 255;
    bool stream = false;
    bool info = false;
    bool help = false;
    const Format* format = nullptr;
    const char* outputDir = nullptr;
    std::vector<const char*> operands;
};

enum Status { kSucceeded = 0, kFailed = 1, kUsage = 2 };

bool IsStdio(const char* path) {
    return strcmp(path, "-") == 0;
}

const char* ShortModule(const char* file) {
    const char* slash = strrchr(file, '/');
    return slash ? slash + 1 : file;
}

// Every message of the tool: "kpng-decode: SUBJECT: REASON", with the place the library
// reported when a report was printed.
void Complain(const std::string& subject, const std::string& reason,
              const kau::FirstReport* report = nullptr) {
    std::string line = "kpng-decode: ";
    if (!subject.empty()) line += subject + ": ";
    line += reason;
    if (report && report->Seen()) {
        line += std::string(" (") + ShortModule(report->FileName()) + " +" +
                std::to_string(report->Position()) + ")";
    }
    fprintf(stderr, "%s\n", line.c_str());
}

void ComplainDecode(const char* input, const kau::FirstReport& report) {
    Complain(input, kpng::DescribeFailure(report.FileName(), report.Position()), &report);
}

Status UsageError(const std::string& reason) {
    Complain("", reason);
    fprintf(stderr, "Try 'kpng-decode --help'.\n");
    return kUsage;
}

const Format* FormatNamed(const std::string& name) {
    for (const Format& f : kFormats) {
        if (name == f.name) return &f;
    }
    return nullptr;
}

const Format* FormatOfFileName(const char* path) {
    const char* dot = strrchr(path, '.');
    return dot && !strchr(dot, '/') ? FormatNamed(dot + 1) : nullptr;
}

Status ParseArguments(int argc, char** argv, Options& options) {
    static const option kLong[] = {{"format", required_argument, nullptr, 'f'},
                                   {"output-dir", required_argument, nullptr, 'o'},
                                   {"info", no_argument, nullptr, 'i'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {"alpha", required_argument, nullptr, 'a'},
                                   {"stream", no_argument, nullptr, 's'},
                                   {nullptr, 0, nullptr, 0}};
    opterr = 0;
    for (int c; (c = getopt_long(argc, argv, ":f:o:ih", kLong, nullptr)) != -1;) {
        switch (c) {
            case 'f':
                options.format = FormatNamed(optarg);
                if (!options.format)
                    return UsageError(std::string("unknown format '") + optarg + "'");
                break;
            case 'o':
                options.outputDir = optarg;
                break;
            case 'i':
                options.info = true;
                break;
            case 's':
                options.stream = true;
                break;
            case 'a': {
                char* end = nullptr;
                errno = 0;
                options.alpha = strtoul(optarg, &end, 10);
                if (*optarg == '\0' || *end != '\0' || errno || options.alpha > 255)
                    return UsageError(std::string("--alpha wants 0 to 255, not '") + optarg + "'");
                break;
            }
            case 'h':
                options.help = true;
                break;
            case ':':
                return UsageError(std::string(argv[optind - 1]) + " needs a value");
            default:
                return UsageError(std::string("unknown option ") + argv[optind - 1]);
        }
    }
    options.operands.assign(argv + optind, argv + argc);
    return kSucceeded;
}

// The checks between options and operands that no single option can make.
Status CheckUsage(const Options& options) {
    const size_t n = options.operands.size();
    if (n == 0) return UsageError("no INPUT");
    if (options.info && (options.outputDir || options.format || options.stream))
        return UsageError("--info takes no -o, -f or --stream");
    const bool allInputs = options.info || options.outputDir;
    for (size_t i = 0; i < (allInputs ? n : 1); ++i) {
        if (!IsStdio(options.operands[i])) continue;
        if (options.outputDir) return UsageError("-o needs named INPUT files");
        if (options.stream) return UsageError("--stream needs named INPUT files");
    }
    if (allInputs) return kSucceeded;
    if (n > 2) return UsageError("several INPUT files need -o DIR");
    const char* output = n == 2 ? options.operands[1] : nullptr;
    if (output && !IsStdio(output) && !options.format && !FormatOfFileName(output)) {
        return UsageError(std::string("cannot tell the format of ") + output +
                          ": name it .pam, .ppm or .pgm, or give -f");
    }
    return kSucceeded;
}

// The whole input, or the reason in words why not.
bool ReadAll(const char* path, std::vector<unsigned char>& bytes, std::string& reason) {
    FILE* file = IsStdio(path) ? stdin : fopen(path, "rb");
    if (!file) {
        reason = std::string("cannot open: ") + strerror(errno);
        return false;
    }
    unsigned char block[65536];
    size_t n;
    while ((n = fread(block, 1, sizeof(block), file)) > 0)
        bytes.insert(bytes.end(), block, block + n);
    const bool ok = !ferror(file);
    if (!ok) reason = std::string("cannot read: ") + strerror(errno);
    if (file != stdin) fclose(file);
    return ok;
}

// Decoded pixels, released with the record.
struct Picture {
    STImageSimple image = {};
    double milliseconds = 0;
    ~Picture() { kau::mem::Delete(image.data); }
};

// Only the decode is timed, not reading the file or opening the stream.
bool Decode(const Options& options, const char* input, const Format& format, Picture& picture) {
    using Clock = std::chrono::steady_clock;
    kau::FirstReport report;
    std::vector<unsigned char> png;
    MMStream* stream = nullptr;
    if (options.stream) {
        MMAttri name = {};
        MMAttriFromString(&name, mmIdFileName, input);
        stream = MMStreamNew(&name, 1);
        if (!stream || !MMStreamReady(stream)) {
            MMStreamDelete(&stream);
            Complain(input, "cannot open as a file stream", &report);
            return false;
        }
    } else {
        std::string reason;
        if (!ReadAll(input, png, reason)) {
            Complain(input, reason);
            return false;
        }
    }
    kpng::DecodeOptions decodeOptions;
    decodeOptions.format = format.decoded;
    const Clock::time_point start = Clock::now();
    const int decoded =
        stream ? DecodePNG(stream, options.alpha, &picture.image, decodeOptions)
               : DecodePNG(png.data(), png.size(), options.alpha, &picture.image, decodeOptions);
    picture.milliseconds = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    MMStreamDelete(&stream);
    if (!decoded) ComplainDecode(input, report);
    return decoded;
}

bool WriteImage(FILE* file, const STImageSimple& image, const Format& format) {
    if (format.channels == 4) {
        fprintf(file, "P7\nWIDTH %u\nHEIGHT %u\nDEPTH 4\nMAXVAL 255\nTUPLTYPE RGB_ALPHA\nENDHDR\n",
                image.width, image.height);
    } else {
        fprintf(file, "P%d\n%u %u\n255\n", format.channels == 3 ? 6 : 5, image.width, image.height);
    }
    const size_t rowBytes = size_t(image.width) * format.channels;
    for (uint32_t y = 0; y < image.height; ++y) {
        if (fwrite(image.data + size_t(y) * image.stride, 1, rowBytes, file) != rowBytes)
            return false;
    }
    return fflush(file) == 0;
}

// A regular file is written beside its final name and renamed over it once complete, so that
// it is either whole or untouched; standard output, devices and pipes are written in place.
bool WriteOutput(const char* path, const STImageSimple& image, const Format& format,
                 std::string& reason) {
    struct stat info;
    const bool inPlace = IsStdio(path) || (stat(path, &info) == 0 && !S_ISREG(info.st_mode));
    std::string temporary = std::string(path) + ".XXXXXX";
    int fd = -1;
    FILE* file = nullptr;
    if (IsStdio(path)) {
        file = stdout;
    } else if (inPlace) {
        file = fopen(path, "wb");
    } else if ((fd = mkstemp(temporary.data())) >= 0) {
        const mode_t mask = umask(0);
        umask(mask);
        if (fchmod(fd, 0666 & ~mask) == 0) file = fdopen(fd, "wb");
    }
    bool ok = file && WriteImage(file, image, format);
    if (!ok) reason = std::string("cannot write: ") + strerror(errno);
    if (file && file != stdout && fclose(file) != 0 && ok) {
        ok = false;
        reason = std::string("cannot write: ") + strerror(errno);
    } else if (fd >= 0 && !file) {
        close(fd);
    }
    if (ok && fd >= 0 && rename(temporary.c_str(), path) != 0) {
        ok = false;
        reason = std::string("cannot write: ") + strerror(errno);
    }
    if (!ok && fd >= 0) unlink(temporary.c_str());
    return ok;
}

std::string OutputInDirectory(const char* dir, const char* input, const Format& format) {
    std::string name = input;
    const size_t slash = name.rfind('/');
    if (slash != std::string::npos) name.erase(0, slash + 1);
    if (name.size() > 4 && strcasecmp(name.c_str() + name.size() - 4, ".png") == 0)
        name.resize(name.size() - 4);
    return std::string(dir) + "/" + name + "." + format.name;
}

// Decodes `input` and writes it to `output` when there is one.
Status DecodeOne(const Options& options, const char* input, const char* output,
                 const Format& format) {
    Picture picture;
    if (!Decode(options, input, format, picture)) return kFailed;
    std::string reason;
    if (output && !WriteOutput(output, picture.image, format, reason)) {
        Complain(output, reason);
        return kFailed;
    }
    if (!output || !IsStdio(output)) {
        printf("%s: %u x %u, %.3f ms\n", input, picture.image.width, picture.image.height,
               picture.milliseconds);
    }
    return kSucceeded;
}

// Only for a colour type that the decoder has accepted.
const char* ColourTypeName(int colourType) {
    static constexpr const char* kNames[] = {
        "grey", "", "RGB", "palette", "grey with alpha", "", "RGB with alpha"};
    return kNames[colourType];
}

// The chunk types in file order, runs of one type written once with their count, up to IEND
// or to where the file stops making sense.
std::string ChunkList(const std::vector<unsigned char>& png) {
    std::string list, last;
    int run = 0;
    auto flush = [&] {
        if (run == 0) return;
        list += (list.empty() ? "" : " ") + last + (run > 1 ? " x" + std::to_string(run) : "");
    };
    for (size_t at = 8; at + 8 <= png.size();) {
        uint32_t length = 0;
        try {
            length = kpng::ReadBigEndian31(&png[at]);
        } catch (const kau::Error&) {
            break;
        }
        const std::string type(png.begin() + at + 4, png.begin() + at + 8);
        if (type == last) {
            ++run;
        } else {
            flush();
            last = type;
            run = 1;
        }
        if (type == "IEND" || length > png.size() - at - 8) break;
        at += size_t(length) + 12;
    }
    flush();
    return list;
}

// The decoder's constructor checks the signature, the header and every chunk before the image
// data; the header's bytes are then where PNG puts them, right after the signature.
Status PrintInfo(const char* input) {
    std::vector<unsigned char> png;
    std::string reason;
    if (!ReadAll(input, png, reason)) {
        Complain(input, reason);
        return kFailed;
    }
    kau::FirstReport report;
    unsigned long width = 0, height = 0;
    try {
        const kpng::Decoder decoder(png.data(), png.size(), 255);
        width = decoder.OutputWidth();
        height = decoder.OutputHeight();
    } catch (const kau::Error&) {
        ComplainDecode(input, report);
        return kFailed;
    }
    const unsigned char* ihdr = png.data() + 16;
    const int depth = ihdr[8], colourType = ihdr[9], interlace = ihdr[12];
    printf("%s: %lu x %lu, colour type %d (%s), %d bits per sample, %s\n  chunks: %s\n", input,
           width, height, colourType, ColourTypeName(colourType), depth,
           interlace ? "Adam7 interlaced" : "not interlaced", ChunkList(png).c_str());
    return kSucceeded;
}

Status Run(const Options& options) {
    int failures = 0;
    const std::vector<const char*>& operands = options.operands;
    if (options.info) {
        for (const char* input : operands)
            failures += PrintInfo(input) != kSucceeded;
    } else if (options.outputDir) {
        const Format& format = options.format ? *options.format : kFormats[0];
        for (const char* input : operands) {
            const std::string output = OutputInDirectory(options.outputDir, input, format);
            failures += DecodeOne(options, input, output.c_str(), format) != kSucceeded;
        }
    } else {
        const char* output = operands.size() == 2 ? operands[1] : nullptr;
        const Format* format = options.format;
        if (!format && output && !IsStdio(output)) format = FormatOfFileName(output);
        failures +=
            DecodeOne(options, operands[0], output, format ? *format : kFormats[0]) != kSucceeded;
    }
    return failures ? kFailed : kSucceeded;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    Status status = ParseArguments(argc, argv, options);
    if (status != kSucceeded) return status;
    if (options.help)
        return fputs(kHelp, stdout) >= 0 && fflush(stdout) == 0 ? kSucceeded : kFailed;
    status = CheckUsage(options);
    return status != kSucceeded ? status : Run(options);
}
