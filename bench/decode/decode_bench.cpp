// The decode comparison over the benchmark images: DecodePNG in memory mode and in stream mode
// (a page-array stream) against libpng, libspng and stb_image, all to 8-bit RGBA; then the
// inflate table, the working memory of one decode of the largest image and the element's speed
// against DecodePNG on the same frames. Times are the best of five rounds in this one process.
#include <dirent.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <png.h>
#include <spng.h>
#include <stb_image.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "CPNG.h"
#include "inflate_bench.h"
#include "kau.h"
#include "kpng.h"
#include "mmstream.h"

namespace {

using Bytes = std::vector<unsigned char>;

struct Image {
    std::string name, path;
    Bytes png;
    uint32_t width = 0, height = 0;
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

enum { kMemory, kStream, kPortable, kLibpng, kLibspng, kStb, kDecoders };
const char* const kDecoderNames[kDecoders] = {"kpng-memory", "kpng-stream", "kpng-portable",
                                              "libpng",      "libspng",     "stb_image"};

bool RunDecodeComparison(const std::vector<Image>& images) {
    double totals[kDecoders] = {};
    double totalPixels = 0;
    bool allGood = true;
    std::printf("%-32s %9s", "image", "MPix");
    for (const char* name : kDecoderNames)
        std::printf(" %12s", name);
    std::printf("   time of each over kpng-memory:  stream  portable  libpng  libspng  stb\n");
    Bytes reference, pixels;
    for (const Image& image : images) {
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
        double t[kDecoders];
        t[kMemory] = zinbench::BestSeconds([&] { KpngMemory(image, nullptr); });
        t[kStream] = zinbench::BestSeconds([&] { KpngStream(stream, nullptr); });
        kpng::UseVectorRowPaths(false);
        t[kPortable] = zinbench::BestSeconds([&] { KpngMemory(image, nullptr); });
        kpng::UseVectorRowPaths(true);
        t[kLibpng] = zinbench::BestSeconds([&] { Libpng(image, pixels); });
        t[kLibspng] = zinbench::BestSeconds([&] { Libspng(image, pixels); });
        t[kStb] = zinbench::BestSeconds([&] { Stb(image, nullptr); });
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
        "whole set: kpng-memory is %.2fx libpng, %.2fx libspng, %.2fx stb_image; "
        "stream mode runs at %.2f of memory mode's speed\n",
        totals[kLibpng] / totals[kMemory], totals[kLibspng] / totals[kMemory],
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

}  // namespace

int main(int argc, char** argv) {
    setenv("GST_PLUGIN_PATH", KALPNG_PLUGIN_DIR, 0);
    gst_init(&argc, &argv);
    std::vector<Image> images;
    for (const std::string& path : BenchFiles()) {
        Image image;
        image.path = path;
        image.name = path.substr(path.find_last_of('/') + 1);
        image.png = ReadFile(path);
        STImageSimple out{};
        if (!DecodePNG(image.png.data(), image.png.size(), 255, &out)) {
            std::printf("%s: DecodePNG failed\n", image.name.c_str());
            return 1;
        }
        image.width = out.width;
        image.height = out.height;
        kau::mem::Delete(out.data);
        images.push_back(std::move(image));
    }
    if (images.empty()) {
        std::printf("no images in %s/bench\n", KALPNG_TESTDATA);
        return 1;
    }
    bool good = RunDecodeComparison(images);
    std::printf("\ninflate, row-driven as the decoder drives it (MB/s of inflated data):\n");
    std::vector<std::string> paths;
    for (const Image& image : images)
        paths.push_back(image.path);
    good = zinbench::RunInflateComparison(paths) && good;
    ReportWorkingMemory(images);
    ReportElement(images);
    return good ? 0 : 1;
}
