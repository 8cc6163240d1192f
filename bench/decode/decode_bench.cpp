// The decode comparison over the benchmark images: DecodePNG in memory mode and in stream mode
// (a page-array stream) against libpng, libspng and stb_image, all to 8-bit RGBA; then the
// inflate table, the working memory of one decode of the largest image and the element's speed
// against DecodePNG on the same frames; then the same comparison on the photos and the painting
// as other encoders write them and as 8-bit grey, and per kind of image the time per pixel of
// DecodePNG, libpng and stb_image in the layout of the ARM instruction counts' table. Times are
// the best of several rounds in this one process; on each image the decoders take turns.
#include <dirent.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <png.h>
#include <spng.h>
#include <stb_image.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "CPNG.h"
#include "inflate_bench.h"
#include "kau.h"
#include "kpng.h"
#include "mmstream.h"
#include "reencode.h"

namespace {

using Bytes = std::vector<unsigned char>;

enum { kMemory, kStream, kPortable, kLibpng, kLibspng, kStb, kDecoders };
const char* const kDecoderNames[kDecoders] = {"kpng-memory", "kpng-stream", "kpng-portable",
                                              "libpng",      "libspng",     "stb_image"};

struct Image {
    std::string name, path, kind;
    Bytes png;
    uint32_t width = 0, height = 0;
    double seconds[kDecoders] = {};  // per decode, once timed; 0 when a decoder failed
};

std::vector<std::string> BenchFiles() {
    const std::string folder = KALPNG_TESTDATA "/bench";
    std::vector<std::string> paths;
    if (DIR* dir = opendir(folder.c_str())) {
        while (dirent* entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name.size() > 4 && name.substr(name.size() - 4) == ".png")
                paths.push_back(folder + "/" + name);
        }
        closedir(dir);
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

// A page-array stream holding the PNG, as the element's input keeps it.
MMStream* PageArrayStream(const Bytes& png) {
    MMAttri attributes[2] = {};
    MMAttriFromTag(&attributes[0], mmIdData, MMAttriTagAny);
    MMAttriFromTag(&attributes[1], mmIdPageSize, MMAttriTagU32);
    MMStream* stream = MMStreamNew(attributes, 2);
    if (!stream || !MMStreamReady(stream)) return stream;
    MMStreamPut(stream, png.data(), unsigned(png.size()));
    MMStreamReady(stream);
    return stream;
}

// ---- The decoders, each to 8-bit RGBA; false on failure ----

bool KpngMemory(const Image& image, Bytes* pixels,
                kpng::OutputFormat format = kpng::OutputFormat::kRgba) {
    STImageSimple out{};
    kpng::DecodeOptions options;
    options.format = format;
    if (!DecodePNG(image.png.data(), image.png.size(), 255, &out, options)) return false;
    if (pixels) pixels->assign(out.data, out.data + out.dataSize);
    kau::mem::Delete(out.data);
    return true;
}

bool KpngStream(MMStream* stream, Bytes* pixels) {
    STImageSimple out{};
    MMStreamReady(stream);
    if (!DecodePNG(stream, 255, &out)) return false;
    if (pixels) pixels->assign(out.data, out.data + out.dataSize);
    kau::mem::Delete(out.data);
    return true;
}

bool Libpng(const Image& image, Bytes& pixels) {
    png_image png{};
    png.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_memory(&png, image.png.data(), image.png.size())) return false;
    png.format = PNG_FORMAT_RGBA;
    pixels.resize(PNG_IMAGE_SIZE(png));
    const bool ok = png_image_finish_read(&png, nullptr, pixels.data(), 0, nullptr);
    png_image_free(&png);
    return ok;
}

bool Libspng(const Image& image, Bytes& pixels) {
    spng_ctx* ctx = spng_ctx_new(0);
    if (!ctx) return false;
    size_t size = 0;
    bool ok = spng_set_crc_action(ctx, SPNG_CRC_ERROR, SPNG_CRC_ERROR) == 0 &&
              spng_set_png_buffer(ctx, image.png.data(), image.png.size()) == 0 &&
              spng_decoded_image_size(ctx, SPNG_FMT_RGBA8, &size) == 0;
    if (ok) {
        pixels.resize(size);
        ok = spng_decode_image(ctx, pixels.data(), size, SPNG_FMT_RGBA8, SPNG_DECODE_TRNS) == 0;
    }
    spng_ctx_free(ctx);
    return ok;
}

bool Stb(const Image& image, Bytes* pixels) {
    int w, h, channels;
    stbi_uc* data =
        stbi_load_from_memory(image.png.data(), int(image.png.size()), &w, &h, &channels, 4);
    if (!data) return false;
    if (pixels) pixels->assign(data, data + size_t(w) * h * 4);
    stbi_image_free(data);
    return true;
}

// ---- The decode table ----

// The best time of each of the decodes in `runs`, in seconds per run, into `seconds`. Each round
// times every decode in turn, each for at least 20 ms, so that a change in the machine's load
// between rounds falls on all of them alike.
void BestSecondsInTurn(const std::vector<std::function<void()>>& runs, double* seconds) {
    using Clock = std::chrono::steady_clock;
    std::fill_n(seconds, runs.size(), 1e30);
    for (int round = 0; round < 7; ++round) {
        for (size_t r = 0; r < runs.size(); ++r) {
            int count = 0;
            const auto start = Clock::now();
            double elapsed;
            do {
                runs[r]();
                ++count;
                elapsed = std::chrono::duration<double>(Clock::now() - start).count();
            } while (elapsed < 0.02);
            seconds[r] = std::min(seconds[r], elapsed / count);
        }
    }
}

// Times every decoder on every image into its `seconds` and prints the table; `set` names the
// images in the last line.
bool RunDecodeComparison(std::vector<Image>& images, const char* set) {
    double totals[kDecoders] = {};
    double totalPixels = 0;
    bool allGood = true;
    std::printf("%-32s %9s", "image", "MPix");
    for (const char* name : kDecoderNames)
        std::printf(" %12s", name);
    std::printf("   time of each over kpng-memory:  stream  portable  libpng  libspng  stb\n");
    Bytes reference, pixels;
    for (Image& image : images) {
        MMStream* stream = PageArrayStream(image.png);
        bool good = stream && KpngMemory(image, &reference) && KpngStream(stream, &pixels) &&
                    pixels == reference && Libspng(image, pixels) && Libpng(image, pixels) &&
                    Stb(image, nullptr);
        if (!good) {
            std::printf("%s: a decoder failed or the modes differ\n", image.name.c_str());
            allGood = false;
            MMStreamDelete(&stream);
            continue;
        }
        double* t = image.seconds;
        BestSecondsInTurn({
                              [&] { KpngMemory(image, nullptr); },
                              [&] { KpngStream(stream, nullptr); },
                              [&] {
                                  kpng::UseVectorRowPaths(false);
                                  KpngMemory(image, nullptr);
                                  kpng::UseVectorRowPaths(true);
                              },
                              [&] { Libpng(image, pixels); },
                              [&] { Libspng(image, pixels); },
                              [&] { Stb(image, nullptr); },
                          },
                          t);
        MMStreamDelete(&stream);
        const double mpix = double(image.width) * image.height / 1e6;
        std::printf("%-32s %9.3f", image.name.c_str(), mpix);
        for (int d = 0; d < kDecoders; ++d) {
            std::printf(" %12.1f", mpix / t[d]);
            totals[d] += t[d];
        }
        std::printf("   %38.2f  %8.2f  %6.2f  %7.2f  %4.2f\n", t[kStream] / t[kMemory],
                    t[kPortable] / t[kMemory], t[kLibpng] / t[kMemory], t[kLibspng] / t[kMemory],
                    t[kStb] / t[kMemory]);
        totalPixels += mpix;
    }
    std::printf("%-32s %9.3f", "total", totalPixels);
    for (int d = 0; d < kDecoders; ++d)
        std::printf(" %12.1f", totalPixels / totals[d]);
    std::printf("   %38.2f  %8.2f  %6.2f  %7.2f  %4.2f\n", totals[kStream] / totals[kMemory],
                totals[kPortable] / totals[kMemory], totals[kLibpng] / totals[kMemory],
                totals[kLibspng] / totals[kMemory], totals[kStb] / totals[kMemory]);
    std::printf(
        "%s: kpng-memory is %.2fx libpng, %.2fx libspng, %.2fx stb_image; "
        "stream mode runs at %.2f of memory mode's speed\n",
        set, totals[kLibpng] / totals[kMemory], totals[kLibspng] / totals[kMemory],
        totals[kStb] / totals[kMemory], totals[kMemory] / totals[kStream]);
    return allGood;
}

// ---- Working memory of one decode ----

// Live and peak bytes of the memory that passes through the allocator hooks.
struct Counter {
    std::unordered_map<void*, unsigned long> sizes;
    unsigned long live = 0, peak = 0;
};
Counter* counter = nullptr;

void* CountingNew(unsigned long size) {
    void* p = MMAllocate(size);
    if (p && counter) {
        counter->sizes[p] = size;
        counter->live += size;
        counter->peak = std::max(counter->peak, counter->live);
    }
    return p;
}

void CountingDelete(void* p) {
    if (counter) {
        auto found = counter->sizes.find(p);
        if (found != counter->sizes.end()) {
            counter->live -= found->second;
            counter->sizes.erase(found);
        }
    }
    MMFree(p);
}

// Peak bytes allocated through the hooks while `decode` runs, the output buffer included.
template <typename Decode>
unsigned long PeakBytes(Decode decode) {
    Counter counted;
    kau::mem::SetExternalNewAndDelete(CountingNew, CountingDelete);
    counter = &counted;
    decode();
    counter = nullptr;
    kau::mem::SetExternalNewAndDelete(MMAllocate, MMFree);
    return counted.peak;
}

void ReportWorkingMemory(const std::vector<Image>& images) {
    const Image& largest = *std::max_element(images.begin(), images.end(), [](auto& a, auto& b) {
        return uint64_t{a.width} * a.height < uint64_t{b.width} * b.height;
    });
    const unsigned long output = 4ul * largest.width * largest.height;
    MMStream* stream = PageArrayStream(largest.png);
    const unsigned long memoryPeak = PeakBytes([&] { KpngMemory(largest, nullptr); });
    const unsigned long streamPeak = PeakBytes([&] { KpngStream(stream, nullptr); });
    MMStreamDelete(&stream);
    uint32_t largestIdat = 0;
    for (size_t pos = 8; pos + 12 <= largest.png.size();) {
        const uint32_t length = zinbench::BigEndian32(&largest.png[pos]);
        if (std::memcmp(&largest.png[pos + 4], "IDAT", 4) == 0)
            largestIdat = std::max(largestIdat, length);
        pos += 12 + size_t{length};
    }
    const unsigned long object = sizeof(kpng::Decoder);
    std::printf(
        "\nworking memory of one decode of %s (%ux%u, output %lu bytes; decoder object "
        "%lu bytes from operator new, largest IDAT chunk %u bytes):\n",
        largest.name.c_str(), largest.width, largest.height, output, object, largestIdat);
    std::printf("  memory mode: peak %lu bytes through the hooks, %lu KiB beyond the output\n",
                memoryPeak, (memoryPeak - output + object + 1023) / 1024);
    std::printf("  stream mode: peak %lu bytes through the hooks, %lu KiB beyond the output\n",
                streamPeak, (streamPeak - output + object + 1023) / 1024);
}

// ---- The element ----

// Counts the frames that leave the decoder.
struct FrameCount {
    std::mutex lock;
    std::condition_variable changed;
    uint64_t frames = 0;
};

GstPadProbeReturn CountFrame(GstPad*, GstPadProbeInfo*, gpointer data) {
    auto* count = static_cast<FrameCount*>(data);
    std::lock_guard<std::mutex> hold(count->lock);
    ++count->frames;
    count->changed.notify_all();
    return GST_PAD_PROBE_OK;
}

// appsrc ! kalpng_dec ! video/x-raw,format=FORMAT ! fakesink, fed timed PNG frames.
class ElementPipeline {
  public:
    explicit ElementPipeline(const char* format) {
        GError* error = nullptr;
        const std::string description =
            std::string("appsrc name=src caps=image/png,framerate=25/1 format=time block=true "
                        "max-bytes=16777216 ! kalpng_dec name=dec ! video/x-raw,format=") +
            format + " ! fakesink sync=false";
        pipeline = gst_parse_launch(description.c_str(), &error);
        if (!pipeline) {
            std::printf("\nelement: no pipeline (%s)\n", error ? error->message : "?");
            if (error) g_error_free(error);
            return;
        }
        src = gst_bin_get_by_name(GST_BIN(pipeline), "src");
        GstElement* dec = gst_bin_get_by_name(GST_BIN(pipeline), "dec");
        GstPad* decodedPad = gst_element_get_static_pad(dec, "src");
        gst_pad_add_probe(decodedPad, GST_PAD_PROBE_TYPE_BUFFER, CountFrame, &count, nullptr);
        gst_object_unref(decodedPad);
        gst_object_unref(dec);
        gst_element_set_state(pipeline, GST_STATE_PLAYING);
    }
    ~ElementPipeline() {
        if (!pipeline) return;
        gst_app_src_end_of_stream(GST_APP_SRC(src));
        gst_element_set_state(pipeline, GST_STATE_NULL);
        gst_object_unref(src);
        gst_object_unref(pipeline);
    }
    explicit operator bool() const { return pipeline != nullptr; }

    // Pushes the frames and waits until the decoder has sent them all on.
    void Decode(const std::vector<GstBuffer*>& frames) {
        for (GstBuffer* frame : frames) {
            GstBuffer* buffer = gst_buffer_copy(frame);
            GST_BUFFER_PTS(buffer) = pushed * GST_SECOND / 25;
            gst_app_src_push_buffer(GST_APP_SRC(src), buffer);
            ++pushed;
        }
        std::unique_lock<std::mutex> hold(count.lock);
        count.changed.wait(hold, [&] { return count.frames >= pushed; });
    }

  private:
    GstElement* pipeline = nullptr;
    GstElement* src = nullptr;
    FrameCount count;
    uint64_t pushed = 0;
};

std::vector<GstBuffer*> Frames(const std::vector<const Image*>& order) {
    std::vector<GstBuffer*> frames;
    for (const Image* image : order)
        frames.push_back(gst_buffer_new_memdup(image->png.data(), image->png.size()));
    return frames;
}

void ReleaseFrames(std::vector<GstBuffer*>& frames) {
    for (GstBuffer* frame : frames)
        gst_buffer_unref(frame);
    frames.clear();
}

void ReportElementBgrx(const std::vector<Image>& images) {
    ElementPipeline element("BGRx");
    if (!element) return;
    std::vector<const Image*> order;
    for (const Image& image : images)
        order.insert(order.end(), 8, &image);
    std::vector<GstBuffer*> frames = Frames(order);
    element.Decode(frames);
    const double inElement = zinbench::BestSeconds([&] { element.Decode(frames); });
    const double rgba = zinbench::BestSeconds([&] {
        for (const Image* image : order)
            KpngMemory(*image, nullptr);
    });
    const double bgrx = zinbench::BestSeconds([&] {
        for (const Image* image : order)
            KpngMemory(*image, nullptr, kpng::OutputFormat::kBgrx);
    });
    std::printf(
        "  BGRx, 8 frames of each image in a row, %zu frames: element %.2f ms, DecodePNG "
        "memory mode %.2f ms in RGBA, %.2f ms in BGRx\n",
        frames.size(), inElement * 1e3, rgba * 1e3, bgrx * 1e3);
    std::printf("    element speed over memory mode in RGBA: %.2f; in BGRx: %.2f\n",
                rgba / inElement, bgrx / inElement);
    ReleaseFrames(frames);
}

// The element against DecodePNG alone on the same frames, in two orders: every image once
// (the size, and so the caps and the output pool, change with every frame) and each image as
// a run of frames of one size, as a video stream sends them. Then runs of frames in BGRx, the
// first format the element writes for a downstream that takes no RGBA.
void ReportElement(const std::vector<Image>& images) {
    ElementPipeline element("RGBA");
    if (!element) return;
    std::printf(
        "\nelement (appsrc ! kalpng_dec ! video/x-raw,format=RGBA ! fakesink) against DecodePNG on "
        "the same frames:\n");
    for (size_t run : {size_t{1}, size_t{8}}) {
        std::vector<const Image*> order;
        for (const Image& image : images)
            order.insert(order.end(), run, &image);
        std::vector<GstBuffer*> frames = Frames(order);
        element.Decode(frames);
        const double inElement = zinbench::BestSeconds([&] { element.Decode(frames); });
        const double memory = zinbench::BestSeconds([&] {
            for (const Image* image : order)
                KpngMemory(*image, nullptr);
        });
        const double stream = zinbench::BestSeconds([&] {
            for (const Image* image : order) {
                MMStream* pages = PageArrayStream(image->png);
                KpngStream(pages, nullptr);
                MMStreamDelete(&pages);
            }
        });
        std::printf(
            "  %zu frame(s) of each image in a row, %zu frames: element %.2f ms, "
            "DecodePNG memory mode %.2f ms, stream mode with stream set-up %.2f ms\n",
            run, frames.size(), inElement * 1e3, memory * 1e3, stream * 1e3);
        std::printf("    element speed over memory mode: %.2f; over stream mode: %.2f\n",
                    memory / inElement, stream / inElement);
        ReleaseFrames(frames);
    }
    ReportElementBgrx(images);
}

// ---- Kinds of image ----

// The kind of each benchmark image, by the start of its name; the first match wins.
const std::pair<const char*, const char*> kKindsByName[] = {
    {"kodim", "photos"},
    {"fantasy-painting", "painting"},
    {"exoplanet-diagram-indexed", "palette"},
    {"exoplanet-diagram", "RGB diagram"},
    {"paletted-", "palette"},
    {"lorem-ipsum-optimized", "palette"},
    {"lorem-ipsum-screenshot", "RGBA screenshot/transparency"},
    {"transparency", "RGBA screenshot/transparency"},
    {"tango-icon", "icons"},
};

std::string KindOf(const std::string& name) {
    for (const auto& [start, kind] : kKindsByName)
        if (name.compare(0, std::strlen(start), start) == 0) return kind;
    return "other";
}

// kpng-memory's speed over libpng's that the whole benchmark set should reach.
constexpr double kWholeSetGoal = 2.4;

// ---- The re-encoded images ----

// A kind made from each photo and the painting by one encoder, named `tag/<source name>`, and
// the speed over libpng kpng-memory should reach on it. `make` returns the PNG, or nothing and
// why.
struct Reencoding {
    const char* kind;
    const char* tag;
    double goal;
    reencode::Bytes (*make)(const Image& source, const reencode::Pixels& rgb, std::string* why);
};

reencode::Bytes ByTool(const reencode::Tool& tool, const Image& source, std::string* why) {
    return reencode::ByTool(tool, source.png, source.name, KALPNG_REENCODED_DIR, why);
}

const Reencoding kReencodings[] = {
    {"photos by zlib 1, per-row filter", "zlib1", 2.3,
     [](const Image&, const reencode::Pixels& rgb, std::string*) {
         return reencode::WritePng(rgb, 1, PNG_ALL_FILTERS);
     }},
    {"photos by optipng -o2", "optipng", 2.3,
     [](const Image& source, const reencode::Pixels&, std::string* why) {
         return ByTool({"optipng", {"-quiet", "-force", "-o2", "-out", "OUT", "IN"}}, source, why);
     }},
    // One iteration of zopfli's search: the default number takes minutes for the painting alone.
    {"photos by zopflipng", "zopflipng", 2.3,
     [](const Image& source, const reencode::Pixels&, std::string* why) {
         return ByTool({"zopflipng", {"-y", "--always_zopflify", "--iterations=1", "IN", "OUT"}},
                       source, why);
     }},
    {"grey photos, Paeth rows", "grey-paeth", 2.0,
     [](const Image&, const reencode::Pixels& rgb, std::string*) {
         return reencode::WritePng(reencode::GreyOf(rgb), 6, PNG_FILTER_PAETH);
     }},
    {"grey photos, per-row filter", "grey-adapt", 2.0,
     [](const Image&, const reencode::Pixels& rgb, std::string*) {
         return reencode::WritePng(reencode::GreyOf(rgb), 6, PNG_ALL_FILTERS);
     }},
};

// The re-encodings of the photos and the painting; a kind whose encoder is missing is left out
// with a line that says so.
std::vector<Image> Reencoded(const std::vector<Image>& originals) {
    std::vector<std::pair<const Image*, reencode::Pixels>> sources;
    for (const Image& image : originals) {
        Bytes rgba;
        if ((image.kind == "photos" || image.kind == "painting") && KpngMemory(image, &rgba))
            sources.push_back({&image, reencode::RgbOf(rgba, image.width, image.height)});
    }
    std::vector<Image> made;
    for (const Reencoding& r : kReencodings) {
        std::vector<Image> kind;
        std::string why;
        for (const auto& [source, rgb] : sources) {
            Image image;
            image.png = r.make(*source, rgb, &why);
            if (image.png.empty()) break;
            image.name = std::string(r.tag) + "/" + source->name;
            image.kind = r.kind;
            image.width = source->width;
            image.height = source->height;
            kind.push_back(std::move(image));
        }
        if (kind.size() < sources.size())
            std::printf("%s: left out, %s\n", r.kind, why.c_str());
        else
            made.insert(made.end(), kind.begin(), kind.end());
    }
    return made;
}

// ---- Per kind ----

// The decoders of the per-kind table and their names there.
const std::pair<int, const char*> kKindColumns[] = {
    {kMemory, "kpng"}, {kLibpng, "libpng"}, {kStb, "stb_image"}};

// One kind's files and pixels, each decoder's time, and the sum over files of the log of
// kpng-memory's time over the decoder's.
struct KindSums {
    std::string kind;
    int files = 0;
    double pixels = 0, seconds[kDecoders] = {}, logRatios[kDecoders] = {};

    void Add(const Image& image) {
        if (image.seconds[kMemory] == 0) return;
        ++files;
        pixels += double(image.width) * image.height;
        for (int d = 0; d < kDecoders; ++d) {
            seconds[d] += image.seconds[d];
            logRatios[d] += std::log(image.seconds[kMemory] / image.seconds[d]);
        }
    }
    double Ratio(int d) const { return seconds[kMemory] / seconds[d]; }
    double Geomean(int d) const { return std::exp(logRatios[d] / files); }
};

// The whole benchmark set, then its kinds, then the re-encoded kinds, in the order they come.
std::vector<KindSums> SumByKind(const std::vector<Image>& originals,
                                const std::vector<Image>& reencoded) {
    std::vector<KindSums> kinds(1);
    kinds[0].kind = "whole set";
    for (const Image& image : originals)
        kinds[0].Add(image);
    for (const std::vector<Image>* set : {&originals, &reencoded}) {
        for (const Image& image : *set) {
            auto kind = std::find_if(kinds.begin() + 1, kinds.end(),
                                     [&](const KindSums& k) { return k.kind == image.kind; });
            if (kind == kinds.end()) {
                kinds.push_back({});
                kinds.back().kind = image.kind;
                kind = kinds.end() - 1;
            }
            kind->Add(image);
        }
    }
    return kinds;
}

// The companion of the ARM instruction counts' table: times instead of instructions, and the
// kind of image where the ARM table has the variant.
void ReportKinds(const std::vector<KindSums>& kinds) {
    std::printf(
        "\nper kind of image on x86-64, best times; ns/px = the kind's time over its pixels; "
        "kpng/it = kpng's time over the decoder's; geomean = of the per-file ratios\n");
    std::printf("%-32s%6s%10s  %-12s%9s%9s%9s\n", "kind", "files", "kpix", "decoder", "ns/px",
                "kpng/it", "geomean");
    for (const KindSums& k : kinds) {
        if (k.files == 0) continue;
        bool first = true;
        for (const auto& [d, name] : kKindColumns) {
            if (first)
                std::printf("%-32s%6d%10.1f  ", k.kind.c_str(), k.files, k.pixels / 1e3);
            else
                std::printf("%48s  ", "");
            std::printf("%-12s%9.2f%9.2f%9.2f\n", name, k.seconds[d] / k.pixels * 1e9, k.Ratio(d),
                        k.Geomean(d));
            first = false;
        }
    }
}

void ReportGoal(const KindSums& k, double goal) {
    const double speed = 1 / k.Ratio(kLibpng);
    std::printf("  %-32s%6.2fx  (geomean %.2fx)  goal %.1fx: %s\n", k.kind.c_str(), speed,
                1 / k.Geomean(kLibpng), goal, speed >= goal ? "met" : "below");
}

// kpng-memory's speed over libpng's on the whole set and on each re-encoded kind, against the
// speed each should reach.
void ReportGoals(const std::vector<KindSums>& kinds) {
    std::printf("\nkpng-memory's speed over libpng's, over the kind's pixels:\n");
    ReportGoal(kinds[0], kWholeSetGoal);
    for (const Reencoding& r : kReencodings) {
        for (const KindSums& k : kinds)
            if (k.kind == r.kind && k.files > 0) ReportGoal(k, r.goal);
    }
}

}  // namespace

int main(int argc, char** argv) {
    setenv("GST_PLUGIN_PATH", KALPNG_PLUGIN_DIR, 0);
    gst_init(&argc, &argv);
    // --kinds: the decode tables and the kinds only, without the inflate, memory and element parts.
    const bool kindsOnly = argc > 1 && std::strcmp(argv[1], "--kinds") == 0;
    std::vector<Image> images;
    for (const std::string& path : BenchFiles()) {
        Image image;
        image.path = path;
        image.name = path.substr(path.find_last_of('/') + 1);
        image.png = reencode::ReadFile(path);
        STImageSimple out{};
        if (!DecodePNG(image.png.data(), image.png.size(), 255, &out)) {
            std::printf("%s: DecodePNG failed\n", image.name.c_str());
            return 1;
        }
        image.width = out.width;
        image.height = out.height;
        image.kind = KindOf(image.name);
        kau::mem::Delete(out.data);
        images.push_back(std::move(image));
    }
    if (images.empty()) {
        std::printf("no images in %s/bench\n", KALPNG_TESTDATA);
        return 1;
    }
    bool good = RunDecodeComparison(images, "whole set");
    if (!kindsOnly) {
        std::printf("\ninflate, row-driven as the decoder drives it (MB/s of inflated data):\n");
        std::vector<std::string> paths;
        for (const Image& image : images)
            paths.push_back(image.path);
        good = zinbench::RunInflateComparison(paths) && good;
        ReportWorkingMemory(images);
        ReportElement(images);
    }
    std::printf(
        "\nthe photos and the painting re-encoded (the files of optipng and zopflipng are kept in "
        "%s; making them takes minutes):\n",
        KALPNG_REENCODED_DIR);
    std::vector<Image> reencoded = Reencoded(images);
    good = RunDecodeComparison(reencoded, "re-encoded set") && good;
    const std::vector<KindSums> kinds = SumByKind(images, reencoded);
    ReportKinds(kinds);
    ReportGoals(kinds);
    return good ? 0 : 1;
}
