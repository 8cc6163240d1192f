// kalpng-soak: pushes PNG frames of mixed sizes, colour types and bit depths, every 500th one
// corrupt, through appsrc ! kalpng_dec ! appsink, and reports frames decoded, errors and the
// process's resident memory every 1000 frames. A corrupt frame stops the stream with an error;
// the program then takes the pipeline down to READY and back up, as an application would.
//   kalpng-soak [FRAMES]      (default 10000)
// The plug-in is taken from GST_PLUGIN_PATH, or from the build's plugin folder when unset.
#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

constexpr int kCorruptEvery = 500;
constexpr int kReportEvery = 1000;
constexpr GstClockTime kFrameDuration = GST_SECOND / 25;
// Generous, for runs under valgrind.
constexpr GstClockTime kWait = 60 * GST_SECOND;

class Random {
  public:
    explicit Random(uint32_t seed) : state_(seed * 2654435761u + 1) {}
    uint32_t Next() {
        state_ ^= state_ << 13;
        state_ ^= state_ >> 17;
        state_ ^= state_ << 5;
        return state_;
    }
    uint32_t Below(uint32_t n) { return Next() % n; }

  private:
    uint32_t state_;
};

void AppendBig32(Bytes& out, uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(static_cast<uint8_t>(v >> shift));
}

void AppendChunk(Bytes& png, const char* type, const Bytes& data) {
    AppendBig32(png, static_cast<uint32_t>(data.size()));
    const size_t start = png.size();
    png.insert(png.end(), type, type + 4);
    png.insert(png.end(), data.begin(), data.end());
    AppendBig32(
        png, static_cast<uint32_t>(crc32(0, &png[start], static_cast<uInt>(png.size() - start))));
}

struct Frame {
    uint32_t width, height;
    Bytes png;
};

// Image data for one pass: rows of a filter byte (0-4; any bytes unfilter to some image)
// followed by random filtered bytes.
void AppendRows(Bytes& raw, uint32_t width, uint32_t height, uint32_t bitsPerPixel,
                Random& random) {
    if (width == 0 || height == 0) return;
    const size_t rowBytes = (size_t{width} * bitsPerPixel + 7) / 8;
    for (uint32_t y = 0; y < height; ++y) {
        raw.push_back(static_cast<uint8_t>(random.Below(5)));
        for (size_t i = 0; i < rowBytes; ++i)
            raw.push_back(static_cast<uint8_t>(random.Next() >> 24));
    }
}

// The seven Adam7 passes: first column and row, column and row steps.
constexpr uint32_t kAdam7[7][4] = {{0, 0, 8, 8}, {4, 0, 8, 8}, {0, 4, 4, 8}, {2, 0, 4, 4},
                                   {0, 2, 2, 4}, {1, 0, 2, 2}, {0, 1, 1, 2}};

// A valid PNG of a size, colour type, bit depth and interlacing drawn from the frame number.
Frame MakeFrame(int index) {
    Random random(static_cast<uint32_t>(index));
    static constexpr struct {
        uint8_t colourType, depth, channels;
    } kKinds[] = {{0, 1, 1}, {0, 2, 1},  {0, 4, 1},  {0, 8, 1}, {0, 16, 1},
                  {2, 8, 3}, {2, 16, 3}, {3, 1, 1},  {3, 2, 1}, {3, 4, 1},
                  {3, 8, 1}, {4, 8, 2},  {4, 16, 2}, {6, 8, 4}, {6, 16, 4}};
    const auto& kind = kKinds[random.Below(sizeof kKinds / sizeof kKinds[0])];
    Frame frame;
    const bool large = index % 100 == 0;
    frame.width = large ? 640 : 1 + random.Below(200);
    frame.height = large ? 480 : 1 + random.Below(200);
    const bool interlaced = index % 4 == 3;

    const uint8_t signature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    frame.png.assign(signature, signature + 8);
    Bytes header;
    AppendBig32(header, frame.width);
    AppendBig32(header, frame.height);
    header.insert(header.end(), {kind.depth, kind.colourType, 0, 0, uint8_t{interlaced}});
    AppendChunk(frame.png, "IHDR", header);
    if (kind.colourType == 3) {
        const uint32_t entries = 1u << kind.depth;
        Bytes palette(3 * entries);
        for (uint8_t& b : palette)
            b = static_cast<uint8_t>(random.Next());
        AppendChunk(frame.png, "PLTE", palette);
        if (random.Below(2)) {
            Bytes alpha(1 + random.Below(entries));
            for (uint8_t& b : alpha)
                b = static_cast<uint8_t>(random.Next());
            AppendChunk(frame.png, "tRNS", alpha);
        }
    }

    const uint32_t bitsPerPixel = uint32_t{kind.depth} * kind.channels;
    Bytes raw;
    if (!interlaced) {
        AppendRows(raw, frame.width, frame.height, bitsPerPixel, random);
    } else {
        for (const auto& pass : kAdam7) {
            const uint32_t w =
                frame.width > pass[0] ? (frame.width - pass[0] + pass[2] - 1) / pass[2] : 0;
            const uint32_t h =
                frame.height > pass[1] ? (frame.height - pass[1] + pass[3] - 1) / pass[3] : 0;
            AppendRows(raw, w, h, bitsPerPixel, random);
        }
    }
    uLongf size = compressBound(static_cast<uLong>(raw.size()));
    Bytes compressed(size);
    compress2(compressed.data(), &size, raw.data(), static_cast<uLong>(raw.size()),
              static_cast<int>(random.Below(10)));
    compressed.resize(size);
    // Large image data goes into several IDAT chunks, as encoders write it.
    for (size_t at = 0; at < compressed.size(); at += 8192) {
        const size_t n = std::min<size_t>(8192, compressed.size() - at);
        AppendChunk(frame.png, "IDAT", Bytes(compressed.begin() + at, compressed.begin() + at + n));
    }
    AppendChunk(frame.png, "IEND", {});
    return frame;
}

// Flips a byte in the first IDAT's data, leaving its CRC as it was.
void Corrupt(Frame& frame) {
    size_t pos = 8;
    while (memcmp(&frame.png[pos + 4], "IDAT", 4) != 0)
        pos += 12 + (size_t{frame.png[pos]} << 24 | size_t{frame.png[pos + 1]} << 16 |
                     size_t{frame.png[pos + 2]} << 8 | frame.png[pos + 3]);
    frame.png[pos + 8] ^= 0x55;
}

long ResidentKilobytes() {
    FILE* status = fopen("/proc/self/status", "r");
    if (!status) return -1;
    char line[256];
    long kb = -1;
    while (fgets(line, sizeof line, status))
        if (sscanf(line, "VmRSS: %ld kB", &kb) == 1) break;
    fclose(status);
    return kb;
}

class Soak {
  public:
    Soak() {
        pipeline_ = gst_parse_launch(
            "appsrc name=src format=time caps=\"image/png,framerate=25/1\" ! kalpng_dec ! "
            "appsink name=sink sync=false",
            nullptr);
        if (!pipeline_) Fatal("cannot build the pipeline (is GST_PLUGIN_PATH right?)");
        src_ = gst_bin_get_by_name(GST_BIN(pipeline_), "src");
        sink_ = gst_bin_get_by_name(GST_BIN(pipeline_), "sink");
        bus_ = gst_element_get_bus(pipeline_);
        g_mutex_init(&lock_);
        g_cond_init(&arrived_);
        // Samples are taken as they arrive rather than pulled: a pull answers at once while
        // appsink still remembers the end-of-stream that followed an error, even after the
        // pipeline went down to READY and back.
        GstAppSinkCallbacks callbacks{};
        callbacks.new_sample = OnSample;
        gst_app_sink_set_callbacks(GST_APP_SINK(sink_), &callbacks, this, nullptr);
        Start();
    }

    ~Soak() {
        gst_element_set_state(pipeline_, GST_STATE_NULL);
        gst_object_unref(bus_);
        gst_object_unref(sink_);
        gst_object_unref(src_);
        gst_object_unref(pipeline_);
        g_cond_clear(&arrived_);
        g_mutex_clear(&lock_);
    }

    // Pushes one frame in one to three buffers; true when it came out (or, for a corrupt
    // frame, when the stream stopped with an error).
    bool Push(const Frame& frame, int index, bool corrupt) {
        const size_t pieces = 1 + index % 3;
        const size_t step = (frame.png.size() + pieces - 1) / pieces;
        for (size_t at = 0; at < frame.png.size(); at += step) {
            const size_t n = std::min(step, frame.png.size() - at);
            GstBuffer* buffer = gst_buffer_new_memdup(&frame.png[at], n);
            if (at == 0) GST_BUFFER_PTS(buffer) = index * kFrameDuration;
            gst_app_src_push_buffer(GST_APP_SRC(src_), buffer);
        }
        return corrupt ? AwaitError() : AwaitFrame(frame);
    }

  private:
    [[noreturn]] static void Fatal(const char* what) {
        fprintf(stderr, "kalpng-soak: %s\n", what);
        exit(2);
    }

    void Start() {
        if (gst_element_set_state(pipeline_, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE)
            Fatal("the pipeline does not start");
    }

    // Drops what the bus collected; false when it holds an error.
    bool DrainBus() {
        bool clean = true;
        while (GstMessage* message = gst_bus_pop(bus_)) {
            clean = clean && GST_MESSAGE_TYPE(message) != GST_MESSAGE_ERROR;
            gst_message_unref(message);
        }
        return clean;
    }

    // What the sink saw of one frame.
    struct Output {
        int width, height;
        size_t size;
    };

    static GstFlowReturn OnSample(GstAppSink* sink, gpointer data) {
        auto* self = static_cast<Soak*>(data);
        GstSample* sample = gst_app_sink_pull_sample(sink);
        if (!sample) return GST_FLOW_ERROR;
        Output output{0, 0, gst_buffer_get_size(gst_sample_get_buffer(sample))};
        GstStructure* caps = gst_caps_get_structure(gst_sample_get_caps(sample), 0);
        gst_structure_get_int(caps, "width", &output.width);
        gst_structure_get_int(caps, "height", &output.height);
        gst_sample_unref(sample);
        g_mutex_lock(&self->lock_);
        self->outputs_.push_back(output);
        g_cond_signal(&self->arrived_);
        g_mutex_unlock(&self->lock_);
        return GST_FLOW_OK;
    }

    bool AwaitFrame(const Frame& frame) {
        const gint64 deadline = g_get_monotonic_time() + kWait / GST_USECOND;
        g_mutex_lock(&lock_);
        while (outputs_.empty() && g_cond_wait_until(&arrived_, &lock_, deadline)) {
        }
        const bool arrived = !outputs_.empty();
        Output output{};
        if (arrived) {
            output = outputs_.front();
            outputs_.pop_front();
        }
        g_mutex_unlock(&lock_);
        return DrainBus() && arrived && static_cast<uint32_t>(output.width) == frame.width &&
               static_cast<uint32_t>(output.height) == frame.height &&
               output.size == size_t{frame.width} * frame.height * 4;
    }

    // The chain's GST_FLOW_ERROR reaches the bus as appsrc's error; the input then stays
    // stuck until READY -> PAUSED gives the element a fresh one.
    bool AwaitError() {
        GstMessage* message = gst_bus_timed_pop_filtered(bus_, kWait, GST_MESSAGE_ERROR);
        if (!message) return false;
        gst_message_unref(message);
        gst_element_set_state(pipeline_, GST_STATE_READY);
        gst_bus_set_flushing(bus_, TRUE);
        gst_bus_set_flushing(bus_, FALSE);
        Start();
        return true;
    }

    GstElement* pipeline_;
    GstElement* src_;
    GstElement* sink_;
    GstBus* bus_;
    GMutex lock_;
    GCond arrived_;
    std::deque<Output> outputs_;
};

}  // namespace

int main(int argc, char** argv) {
    const int frames = argc > 1 ? atoi(argv[1]) : 10000;
    g_setenv("GST_PLUGIN_PATH", KALPNG_PLUGIN_DIR, FALSE);
    gst_init(&argc, &argv);

    int decoded = 0, errors = 0, expectedErrors = 0, failures = 0;
    {
        Soak soak;
        for (int i = 1; i <= frames; ++i) {
            Frame frame = MakeFrame(i);
            const bool corrupt = i % kCorruptEvery == 0;
            if (corrupt) {
                Corrupt(frame);
                ++expectedErrors;
            }
            if (!soak.Push(frame, i, corrupt)) {
                ++failures;
                fprintf(stderr, "frame %d (%ux%u%s) did not come out as expected\n", i, frame.width,
                        frame.height, corrupt ? ", corrupt" : "");
            } else if (corrupt) {
                ++errors;
            } else {
                ++decoded;
            }
            if (i % kReportEvery == 0 || i == frames)
                printf("frames %d: decoded %d, errors %d, VmRSS %ld kB\n", i, decoded, errors,
                       ResidentKilobytes());
            fflush(stdout);
        }
    }
    gst_deinit();
    printf("%d frames: %d decoded, %d errors (expected %d), %d wrong\n", frames, decoded, errors,
           expectedErrors, failures);
    return failures == 0 && errors == expectedErrors ? 0 : 1;
}
