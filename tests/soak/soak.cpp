// kalpng-soak [FRAMES [tolerant]] (default 10000): pushes PNG frames of mixed sizes, colour types
// and bit depths, every 500th one corrupt, through appsrc ! kalpng_dec ! appsink, and reports
// frames decoded, errors and resident memory every 1000 frames. A corrupt frame stops the stream
// with an error; the pipeline then goes down to READY and back up, as an application would do it.
// In tolerant mode (max-errors=-1) it gives a warning and the stream goes on, and every 500th frame
// from the 250th is also cut short, which the next frame's arrival reports. The plug-in comes from
// GST_PLUGIN_PATH, or from the build's plugin folder when unset.
#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>

#include "test_png.h"

using namespace pngtest;

namespace {

constexpr int kCorruptEvery = 500;
constexpr int kCutAt = 250;                      // of every kCorruptEvery, in tolerant mode
constexpr GstClockTime kWait = 60 * GST_SECOND;  // generous, for runs under valgrind

struct Frame {
    uint32_t width, height;
    bool corrupt, cut;
    Bytes png;
};

// A PNG of a size, format, interlacing and compression level drawn from the frame number, in IDAT
// chunks of 8 KiB as encoders write them. A corrupt frame has the byte after its first "IDAT"
// flipped (image data, or by chance a palette entry), the CRC kept; a cut one ends halfway.
Frame MakeFrame(int index, bool tolerant) {
    std::mt19937 draw{uint32_t(index)};
    const Format format = kEveryFormat[draw() % std::size(kEveryFormat)];
    const bool large = index % 100 == 0;
    const uint32_t width = large ? 640 : 1 + draw() % 200, height = large ? 480 : 1 + draw() % 200;
    PngOptions options;
    options.interlaced = index % 4 == 3;
    options.level = int(draw() % 10);
    options.idatSize = 8192;
    if (format.colourType == 3) {
        const uint32_t entries = 1u << format.depth;
        options.plte = RandomBytes(3 * entries, draw());
        // Some of the palette's random bytes serve as alphas.
        if (draw() % 2) options.trns = Slice(options.plte, 0, 1 + draw() % entries);
    }
    const RawImage image = RandomImage(width, height, format.depth, format.colourType, draw());
    Frame frame{width, height, index % kCorruptEvery == 0,
                tolerant && index % kCorruptEvery == kCutAt, EncodePng(image, options)};
    const char idat[] = "IDAT";
    if (frame.corrupt) std::search(frame.png.begin(), frame.png.end(), idat, idat + 4)[4] ^= 0x55;
    if (frame.cut) frame.png.resize(frame.png.size() / 2);
    return frame;
}

long ResidentKilobytes() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmRSS:", 0) == 0) return atol(line.c_str() + 6);
    return -1;
}

[[noreturn]] void Fatal(const char* what) {
    fprintf(stderr, "kalpng-soak: %s\n", what);
    exit(2);
}

void Start(GstElement* pipeline) {
    if (gst_element_set_state(pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE)
        Fatal("the pipeline does not start");
}

struct Soak {
    explicit Soak(bool tolerant) : tolerant_(tolerant) {
        const std::string description =
            "appsrc name=src format=time caps=\"image/png,framerate=25/1\" ! kalpng_dec" +
            std::string(tolerant ? " max-errors=-1" : "") + " ! appsink name=sink sync=false";
        pipeline_ = gst_parse_launch(description.c_str(), nullptr);
        if (!pipeline_) Fatal("cannot build the pipeline (is GST_PLUGIN_PATH right?)");
        src_ = gst_bin_get_by_name(GST_BIN(pipeline_), "src");
        bus_ = gst_element_get_bus(pipeline_);
        // Samples are taken as they arrive: a pull would answer at once with the end-of-stream
        // that followed an error, even after the pipeline went down to READY and back.
        GstAppSinkCallbacks callbacks{};
        callbacks.new_sample = [](GstAppSink* sink, gpointer samples) {
            g_async_queue_push(static_cast<GAsyncQueue*>(samples), gst_app_sink_pull_sample(sink));
            return GST_FLOW_OK;
        };
        g_autoptr(GstElement) sink = gst_bin_get_by_name(GST_BIN(pipeline_), "sink");
        gst_app_sink_set_callbacks(GST_APP_SINK(sink), &callbacks, samples_, nullptr);
        Start(pipeline_);
    }

    ~Soak() {
        gst_element_set_state(pipeline_, GST_STATE_NULL);
        gst_object_unref(bus_);
        gst_object_unref(src_);
        gst_object_unref(pipeline_);
        g_async_queue_unref(samples_);
    }

    // Pushes one frame in one to three buffers; true when it came out of its size with a clean
    // bus, or, for a corrupt frame, when the stream stopped with an error (the input then stays
    // stuck until READY -> PAUSED gives the element a fresh one) or went on after a warning. A
    // cut frame waits for the next one.
    bool Push(const Frame& frame, int index) {
        const size_t pieces = 1 + index % 3;
        const size_t step = (frame.png.size() + pieces - 1) / pieces;
        for (size_t at = 0; at < frame.png.size(); at += step) {
            GstBuffer* buffer =
                gst_buffer_new_memdup(&frame.png[at], std::min(step, frame.png.size() - at));
            if (at == 0) GST_BUFFER_PTS(buffer) = index * GST_SECOND / 25;
            gst_app_src_push_buffer(GST_APP_SRC(src_), buffer);
        }
        if (frame.cut) return true;
        if (frame.corrupt) {
            g_autoptr(GstMessage) message = gst_bus_timed_pop_filtered(
                bus_, kWait, tolerant_ ? GST_MESSAGE_WARNING : GST_MESSAGE_ERROR);
            if (!message) return false;
            warnings_ += tolerant_;
            if (!tolerant_) {
                gst_element_set_state(pipeline_, GST_STATE_READY);
                gst_bus_set_flushing(bus_, TRUE);
                gst_bus_set_flushing(bus_, FALSE);
                Start(pipeline_);
            }
            return true;
        }
        g_autoptr(GstSample) sample =
            static_cast<GstSample*>(g_async_queue_timeout_pop(samples_, kWait / GST_USECOND));
        if (!sample) return false;
        int width = 0, height = 0;
        gst_structure_get(gst_caps_get_structure(gst_sample_get_caps(sample), 0), "width",
                          G_TYPE_INT, &width, "height", G_TYPE_INT, &height, nullptr);
        const size_t size = gst_buffer_get_size(gst_sample_get_buffer(sample));
        bool clean = true;
        while (GstMessage* message = gst_bus_pop(bus_)) {
            clean = clean && GST_MESSAGE_TYPE(message) != GST_MESSAGE_ERROR;
            warnings_ += GST_MESSAGE_TYPE(message) == GST_MESSAGE_WARNING;
            gst_message_unref(message);
        }
        return clean && uint32_t(width) == frame.width && uint32_t(height) == frame.height &&
               size == size_t{frame.width} * frame.height * 4;
    }

    const bool tolerant_;
    int warnings_ = 0;
    GstElement* pipeline_;
    GstElement* src_;
    GstBus* bus_;
    GAsyncQueue* samples_ = g_async_queue_new_full(GDestroyNotify(gst_sample_unref));
};

}  // namespace

int main(int argc, char** argv) {
    const int frames = argc > 1 ? atoi(argv[1]) : 10000;
    const bool tolerant = argc > 2 && g_str_equal(argv[2], "tolerant");
    g_setenv("GST_PLUGIN_PATH", KALPNG_PLUGIN_DIR, FALSE);
    gst_init(&argc, &argv);

    int decoded = 0, errors = 0, cut = 0, wrong = 0, warnings = 0;
    {
        Soak soak(tolerant);
        for (int i = 1; i <= frames; ++i) {
            const Frame frame = MakeFrame(i, tolerant);
            if (soak.Push(frame, i)) {
                ++(frame.corrupt ? errors : frame.cut ? cut : decoded);
            } else {
                ++wrong;
                fprintf(stderr, "frame %d (%ux%u%s) did not come out as expected\n", i, frame.width,
                        frame.height, frame.corrupt ? ", corrupt" : "");
            }
            if (i % 1000 == 0 || i == frames)
                printf("frames %d: decoded %d, errors %d, VmRSS %ld kB\n", i, decoded, errors,
                       ResidentKilobytes());
            fflush(stdout);
        }
        warnings = soak.warnings_;
    }
    gst_deinit();
    printf("%d frames: %d decoded, %d errors (expected %d), %d cut, %d warnings, %d wrong\n",
           frames, decoded, errors, frames / kCorruptEvery, cut, warnings, wrong);
    // A cut frame is only reported when the next frame arrives.
    const int expectedWarnings = tolerant ? errors + cut - (frames % kCorruptEvery == kCutAt) : 0;
    return wrong == 0 && warnings == expectedWarnings ? 0 : 1;
}
