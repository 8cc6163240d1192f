// The kalpng_dec element in a GstHarness, and in pipelines with GStreamer's own elements.
#include <gmock/gmock.h>
#include <gst/check/gstharness.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "test_png.h"

namespace element_test {
namespace {

using namespace pngtest;
using ::testing::ElementsAre;

// GLib warnings fail the test; plug-ins are scanned in-process, where a sanitizer's runtime is.
class GstEnvironment : public ::testing::Environment {
    void SetUp() override {
        g_log_set_default_handler(
            [](const gchar* domain, GLogLevelFlags level, const gchar* message, gpointer) {
                if (level & (G_LOG_LEVEL_ERROR | G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING))
                    ADD_FAILURE() << (domain ? domain : "") << ": " << message;
            },
            nullptr);
        gst_registry_fork_set_enabled(FALSE);
        gst_init(nullptr, nullptr);
    }
};

[[maybe_unused]] ::testing::Environment* const environment =
    ::testing::AddGlobalTestEnvironment(new GstEnvironment);

// The plug-in registers the element. The run that fills the registry runs this test alone.
TEST(ElementRegistry, HoldsTheElement) {
    g_autoptr(GstElementFactory) factory = gst_element_factory_find("kalpng_dec");
    EXPECT_NE(factory, nullptr);
}

// Test image `seed` as RGBA pixels, and as an RGBA PNG with a pHYs chunk {x, y, unit} if given.
Bytes Pixels(uint32_t width, uint32_t height, uint32_t seed) {
    return RandomImage(width, height, 8, 6, seed).pixels;
}

Bytes Png(uint32_t width, uint32_t height, uint32_t seed, std::vector<uint32_t> phys = {}) {
    const Bytes png = EncodePng(RandomImage(width, height, 8, 6, seed));
    if (phys.empty()) return png;
    PngWriter withPhys;  // the signature, then the IHDR
    withPhys.Raw(Slice(png, 8, 33))
        .Chunk("pHYs", Join({Be32(phys[0]), Be32(phys[1]), {uint8_t(phys[2])}}));
    return withPhys.Raw(Slice(png, 33, png.size())).bytes();
}

using Times = std::vector<std::pair<GstClockTime, GstClockTime>>;  // pts, duration

// What the sink got: unpadded rows, times, and each GstVideoMeta's bytes after a row (-1: none).
struct Frames {
    std::vector<Bytes> data;
    Times times;
    std::vector<int> padding;
};

constexpr GstClockTime kNone = GST_CLOCK_TIME_NONE, kMs = GST_MSECOND, kS = GST_SECOND;
const char kPacketized[] = "image/png, framerate=(fraction)25/1", kNotPacketized[] = "image/png";

// kalpng_dec, or "kalpng_dec <rest>" (its properties, downstream elements), in a GstHarness.
class Harness {
  public:
    explicit Harness(const char* sinkCaps, const std::string& rest = "")
        : h(rest.empty() ? gst_harness_new("kalpng_dec")
                         : gst_harness_new_parse(("kalpng_dec " + rest).c_str())) {
        gst_element_set_bus(h->element, bus);
        gst_harness_set_src_caps_str(h, sinkCaps);
    }
    ~Harness() {
        gst_bus_set_flushing(bus, TRUE);  // its messages hold the element
        gst_harness_teardown(h);
        gst_object_unref(bus);
    }

    GstFlowReturn Push(const Bytes& bytes, GstClockTime pts = kNone, GstClockTime dur = kNone) {
        GstBuffer* buffer = gst_buffer_new_allocate(nullptr, bytes.size(), nullptr);
        gst_buffer_fill(buffer, 0, bytes.data(), bytes.size());
        GST_BUFFER_PTS(buffer) = pts;
        GST_BUFFER_DURATION(buffer) = dur;
        return gst_harness_push(h, buffer);
    }
    void PushSegment(GstFormat format, guint64 start, guint64 stop) {
        GstSegment segment;
        gst_segment_init(&segment, format);
        segment.start = segment.time = segment.position = start;
        segment.stop = stop;
        ASSERT_TRUE(gst_harness_push_event(h, gst_event_new_segment(&segment)));
    }
    void Flush() {
        ASSERT_TRUE(gst_harness_push_event(h, gst_event_new_flush_start()));
        ASSERT_TRUE(gst_harness_push_event(h, gst_event_new_flush_stop(TRUE)));
        PushSegment(GST_FORMAT_TIME, 0, kNone);
    }
    // `frames` and those that reached the sink since the last call, read in its current caps.
    Frames Take(Frames frames = {}) {
        while (GstBuffer* buffer = gst_harness_try_pull(h)) {
            GstVideoInfo info;
            g_autoptr(GstCaps) caps = gst_pad_get_current_caps(h->sinkpad);
            gst_video_info_from_caps(&info, caps);
            GstVideoFrame frame;
            EXPECT_TRUE(gst_video_frame_map(&frame, &info, buffer, GST_MAP_READ));
            const int row = GST_VIDEO_INFO_COMP_PSTRIDE(&info, 0) * info.width,
                      stride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0);
            const auto* data = static_cast<const uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
            Bytes& rows = frames.data.emplace_back();
            for (int y = 0; y < info.height; ++y)
                rows.insert(rows.end(), data + y * stride, data + y * stride + row);
            const GstVideoMeta* meta = gst_buffer_get_video_meta(buffer);
            frames.padding.push_back(meta ? meta->stride[0] - row : -1);
            frames.times.push_back({GST_BUFFER_PTS(buffer), GST_BUFFER_DURATION(buffer)});
            gst_video_frame_unmap(&frame);
            gst_buffer_unref(buffer);
        }
        return frames;
    }
    // Messages since the last call: "error|warning: <text> (<debug's last line>)" or the type.
    std::vector<std::string> TakeMessages() {
        std::vector<std::string> messages;
        while (GstMessage* message = gst_bus_pop(bus)) {
            g_autoptr(GError) error = nullptr;
            g_autofree gchar* debug = nullptr;
            const std::string kind = GST_MESSAGE_TYPE_NAME(message);
            if (kind == "error") gst_message_parse_error(message, &error, &debug);
            if (kind == "warning") gst_message_parse_warning(message, &error, &debug);
            const char* detail = debug ? strrchr(debug, '\n') : nullptr;
            detail = detail ? detail + 1 : debug;
            messages.push_back(error ? kind + ": " + error->message + " (" + detail + ")" : kind);
            gst_message_unref(message);
        }
        return messages;
    }
    // The events that reached the sink since the last call: type names, or the caps.
    std::vector<std::string> TakeEvents() {
        std::vector<std::string> events;
        while (GstEvent* event = gst_harness_try_pull_event(h)) {
            GstCaps* caps = nullptr;
            if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS) gst_event_parse_caps(event, &caps);
            g_autofree gchar* text =
                caps ? gst_caps_to_string(caps) : g_strdup(GST_EVENT_TYPE_NAME(event));
            events.push_back(text);
            gst_event_unref(event);
        }
        return events;
    }

    GstBus* bus = gst_bus_new();
    GstHarness* h;
};

std::string Caps(int width, int height, const char* framerate, const char* aspect = "1/1") {
    return "video/x-raw, format=(string)RGBA, width=(int)" + std::to_string(width) +
           ", height=(int)" + std::to_string(height) +
           ", interlace-mode=(string)progressive, pixel-aspect-ratio=(fraction)" + aspect +
           ", colorimetry=(string)sRGB, framerate=(fraction)" + framerate;
}

// Caps come again when the size or the aspect (a sane pHYs in pixels per metre) changes.
TEST(ElementCaps, SetAgainWhenTheSizeOrTheAspectChanges) {
    Harness h(kPacketized);
    const std::tuple<uint32_t, uint32_t, std::vector<uint32_t>, std::vector<std::string>> frames[] =
        {{1, 1, {}, {"stream-start", Caps(1, 1, "25/1"), "segment"}},
         {1, 1, {2835, 2835, 1}, {}},
         {1, 7, {}, {Caps(1, 7, "25/1")}},
         {3, 7, {}, {Caps(3, 7, "25/1")}},
         {3, 7, {1000, 2000, 1}, {Caps(3, 7, "25/1", "2/1")}},
         {3, 7, {1000, 2000, 0}, {Caps(3, 7, "25/1")}},
         {3, 7, {3000, 2000, 1}, {Caps(3, 7, "25/1", "2/3")}},
         {3, 7, {1, 1000, 1}, {Caps(3, 7, "25/1")}}};
    for (const auto& [width, height, phys, events] : frames) {
        ASSERT_EQ(h.Push(Png(width, height, 9, phys)), GST_FLOW_OK);
        EXPECT_EQ(h.TakeEvents(), events) << width << "x" << height << " " << phys.size();
        EXPECT_THAT(h.Take().data, ElementsAre(Pixels(width, height, 9)));
    }
}

// Offers `pool` (kept by the harness) in allocation queries, of at most `max` buffers (0: any).
GstBufferPool* Offer(GstHarness* h, guint max, GstBufferPool* pool = gst_buffer_pool_new()) {
    g_object_set_data(G_OBJECT(pool), "max", GUINT_TO_POINTER(max));
    auto answer = [](GstPad*, GstPadProbeInfo* info, gpointer pool) {
        GstQuery* query = GST_PAD_PROBE_INFO_QUERY(info);
        if (GST_QUERY_TYPE(query) != GST_QUERY_ALLOCATION) return GST_PAD_PROBE_OK;
        const guint max = GPOINTER_TO_UINT(g_object_get_data(G_OBJECT(pool), "max"));
        gst_query_add_allocation_pool(query, GST_BUFFER_POOL(pool), 0, 0, max);
        return GST_PAD_PROBE_HANDLED;
    };
    gst_pad_add_probe(h->sinkpad, GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM, answer, pool,
                      gst_object_unref);
    return pool;
}

// Frames come from downstream's pool if it takes them, else from the element's, and reuse
// returned memory of their size, in the element's pool also larger.
TEST(ElementAllocation, FramesComeFromTheAgreedPoolAndReuseItsMemory) {
    enum Offered { kNothing, kIdlePool, kActivePool };  // an active pool refuses a new config
    const std::tuple<unsigned, unsigned, bool, bool> frames[] = {
        {6, 1, false, false}, {6, 2, true, true}, {3, 3, true, false},
        {8, 4, false, false}, {8, 5, true, true},
    };
    for (Offered offer : {kNothing, kIdlePool, kActivePool}) {
        Harness h(kPacketized);
        GstBufferPool* offered = offer == kNothing ? nullptr : Offer(h.h, 0);
        if (offer == kActivePool) {
            GstStructure* config = gst_buffer_pool_get_config(offered);
            gst_buffer_pool_config_set_params(config, nullptr, 16, 0, 0);
            ASSERT_TRUE(gst_buffer_pool_set_config(offered, config));
            ASSERT_TRUE(gst_buffer_pool_set_active(offered, TRUE));
        }
        GstMemory* previous = nullptr;
        for (const auto& [size, seed, reusedOwn, reusedOffered] : frames) {
            ASSERT_EQ(h.Push(Png(size, size, seed)), GST_FLOW_OK);
            GstBuffer* buffer = gst_harness_pull(h.h);
            const Bytes pixels = Pixels(size, size, seed);
            EXPECT_EQ(gst_buffer_memcmp(buffer, 0, pixels.data(), pixels.size()), 0);
            EXPECT_EQ(buffer->pool == offered, offer == kIdlePool) << offer;  // never poolless
            if (offer == kIdlePool ? reusedOffered : reusedOwn) {
                EXPECT_EQ(gst_buffer_peek_memory(buffer, 0), previous) << offer << " " << seed;
            }
            previous = gst_buffer_peek_memory(buffer, 0);
            gst_buffer_unref(buffer);
        }
    }
}

// With downstream's only buffer held, the next frame waits in its pool until a flush ends it with
// the flushing flow. The pool counts the acquires begun, to know when the frame waits.
TEST(ElementAllocation, FlushReleasesAFrameWaitingForABoundedPool) {
    static std::atomic<int> acquires{0};
    static const GType counting = g_type_register_static_simple(
        GST_TYPE_BUFFER_POOL, "KalpngTestCountingPool", sizeof(GstBufferPoolClass),
        [](gpointer klass, gpointer) {
            GST_BUFFER_POOL_CLASS(klass)->acquire_buffer = [](GstBufferPool* pool, GstBuffer** out,
                                                              GstBufferPoolAcquireParams* params) {
                ++acquires;
                const auto parent = g_type_class_peek(GST_TYPE_BUFFER_POOL);
                return GST_BUFFER_POOL_CLASS(parent)->acquire_buffer(pool, out, params);
            };
        },
        sizeof(GstBufferPool), nullptr, GTypeFlags(0));
    Harness h(kPacketized);
    GstBufferPool* pool =
        Offer(h.h, 1, GST_BUFFER_POOL(gst_object_ref_sink(g_object_new(counting, nullptr))));
    ASSERT_EQ(h.Push(Png(4, 4, 1)), GST_FLOW_OK);
    GstBuffer* held = gst_harness_pull(h.h);
    const int acquired = acquires;
    auto flow = std::async(std::launch::async, [&] { return h.Push(Png(4, 4, 2)); });
    for (int wait = 0; wait < 1000 && acquires == acquired; ++wait)
        g_usleep(10 * 1000);
    EXPECT_GT(acquires, acquired) << "the second frame never asked the pool";
    EXPECT_TRUE(gst_harness_push_event(h.h, gst_event_new_flush_start()));
    const bool released = flow.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    // Whatever the element did, the wait ends here, so that the test fails instead of hanging.
    gst_buffer_pool_set_flushing(pool, TRUE);
    gst_buffer_unref(held);
    ASSERT_TRUE(released) << "the flush left the frame waiting for the pool";
    EXPECT_EQ(flow.get(), GST_FLOW_FLUSHING);
    EXPECT_TRUE(gst_harness_push_event(h.h, gst_event_new_flush_stop(TRUE)));
    h.PushSegment(GST_FORMAT_TIME, 0, kNone);
    ASSERT_EQ(h.Push(Png(4, 4, 3)), GST_FLOW_OK);
    EXPECT_THAT(h.Take().data, ElementsAre(Pixels(4, 4, 3)));
}

// Frames take the incoming times, else when packetized the previous end and the frame period; a
// PNG in pieces, those of its first. Time segments clip; downstream gets one whatever came.
TEST(ElementTiming, FramesAreStampedAndClippedToATimeSegment) {
    constexpr GstFormat kTime = GST_FORMAT_TIME;
    const Bytes png = Png(2, 2, 0);
    const char *ntsc = "image/png, framerate=(fraction)30000/1001",
               *still = "image/png, framerate=(fraction)0/1", *sized = "image/png, width=(int)2";
    const struct {
        const char* sinkCaps;
        Times in, out;  // one PNG each
        GstFormat format = kTime;
        guint64 start = 0, stop = kNone;  // of the segment
        size_t piece = SIZE_MAX;          // bytes per buffer
    } cases[] = {
        // clang-format off
        {kPacketized, {{kNone, kNone}, {kNone, kNone}}, {{0, 40 * kMs}, {40 * kMs, 40 * kMs}}},
        {kPacketized, {{0, 10 * kMs}, {kNone, 20 * kMs}, {kNone, kNone}},
         {{0, 10 * kMs}, {10 * kMs, 20 * kMs}, {30 * kMs, 40 * kMs}}},
        {ntsc, {{kS, kNone}, {3 * kS, kNone}}, {{kS, 33366666}, {3 * kS, 33366666}}},
        {still, {{2 * kS, kNone}, {kNone, kNone}}, {{2 * kS, kNone}, {kNone, kNone}}},
        {kNotPacketized, {{5 * kS, 100 * kMs}, {kNone, kNone}, {7 * kS, kNone}},
         {{5 * kS, kNone}, {kNone, kNone}, {7 * kS, kNone}}},
        {sized, {{kNone, kNone}, {kNone, kNone}}, {{0, kNone}, {kNone, kNone}}},
        {kPacketized, {{kS / 2, kS}}, {{kS, kS / 2}}, kTime, kS},
        {kPacketized, {{kS, 2 * kS}, {3 * kS, kNone}}, {{kS, kS}}, kTime, 0, 2 * kS},
        {kNotPacketized, {{kS / 2, kNone}, {2 * kS, kNone}}, {{2 * kS, kNone}}, kTime, kS},
        {kPacketized, {{kS / 2, kS}}, {{kS / 2, kS}}, GST_FORMAT_BYTES, 1, 2},
        {kPacketized, {{7 * kS, kNone}}, {{7 * kS, 40 * kMs}}, kTime, 0, kNone, 1},
        {kPacketized, {{7 * kS, kNone}}, {{7 * kS, 40 * kMs}}, kTime, 0, kNone, png.size() - 2},
        // clang-format on
    };
    for (const auto& c : cases) {
        Harness h(c.sinkCaps);
        h.PushSegment(c.format, c.start, c.stop);
        for (const auto& [pts, duration] : c.in)
            for (size_t from = 0; from < png.size(); from += c.piece) {
                const Bytes piece = Slice(png, from, std::min(png.size(), from + c.piece));
                ASSERT_EQ(h.Push(piece, from ? kNone : pts, from ? kNone : duration), GST_FLOW_OK);
            }
        const Frames frames = h.Take();
        EXPECT_EQ(frames.times, c.out) << (&c - cases);
        EXPECT_EQ(frames.data, std::vector(c.out.size(), Pixels(2, 2, 0)));
        g_autoptr(GstEvent) sent = gst_pad_get_sticky_event(h.h->sinkpad, GST_EVENT_SEGMENT, 0);
        const GstSegment* segment;
        gst_event_parse_segment(sent, &segment);
        EXPECT_EQ(std::pair(segment->format, segment->start),
                  std::pair(kTime, c.format == kTime ? c.start : 0));
    }
}

// Up to max-errors failed PNGs in a row are dropped with a warning, the bytes after them kept;
// one more ends the stream. A buffer gives one frame at most; at the end the PNGs held come out.
TEST(ElementTolerance, FailedPngsEndTheStreamBeyondMaxErrors) {
    Bytes corrupt = Png(4, 4, 0);
    corrupt[corrupt.size() - 16] ^= 0xFF;  // the IDAT's CRC
    const Bytes cut = Slice(Png(4, 4, 0), 0, 50);
    const Bytes p1 = Png(4, 4, 1), p2 = Png(4, 4, 2), p3 = Png(4, 4, 3);
    const Bytes f1 = Pixels(4, 4, 1), f2 = Pixels(4, 4, 2), f3 = Pixels(4, 4, 3);  // their frames
    const Bytes junkP3 = Join({RandomBytes(5, 1), p3}), p3Head = Slice(p3, 0, 1),
                p3Tail = Slice(p3, 1, p3.size());
    // A frame of 16384 bytes in a PNG of less than 600, and one of 1024 bytes in a PNG of more.
    const Bytes small = EncodePng({64, 64, 8, 6, Bytes(64 * 64 * 4)}), large = Png(16, 16, 1),
                largeHead = Slice(large, 0, 601), largeTail = Slice(large, 601, large.size());
    const std::string crcText = "a chunk's CRC does not match its data (kpng +576)",
                      limit = " larger than the limit set for a frame (kpng +";
    const std::string crc = "warning: " + crcText, fatal = "error: " + crcText,
                      early = "warning: a PNG ends early (50 bytes discarded)",
                      notPng = "error: not a PNG: the signature is wrong (kpng +944)",
                      largeFrame = "error: the image is" + limit + "101)",
                      largePng = "error: the PNG is" + limit + "1040)";
    constexpr size_t kNever = 99;
    const struct {
        int maxErrors;
        std::vector<Bytes> in;
        size_t failsFrom;  // the first push that fails
        std::vector<Bytes> frames, atEnd;
        std::vector<std::string> messages;
        guint64 maxFrameBytes = 0;
        size_t flushBefore = kNever;  // the push a flush comes before
    } cases[] = {
        // clang-format off
        {0, {p1, junkP3}, 1, {f1}, {}, {notPng}},
        // Each good PNG ends a run of failures; garbage before a signature is skipped.
        {2, {corrupt, p1, cut, p2, corrupt, junkP3}, kNever, {f1, f2, f3}, {}, {crc, early, crc}},
        {2, {corrupt, cut, corrupt, p1}, 2, {}, {}, {crc, early, fatal, fatal}},
        // The PNG behind a failed one in the same buffer is kept; an unfinished one is reported.
        {-1, {Join({corrupt, p1}), p2}, kNever, {f1}, {f2}, {crc}},
        {0, {Join({p1, p2, p3, cut})}, kNever, {f1}, {f2, f3}, {early}},
        {0, {Join({p1, p2}), p3Head, p3Tail}, kNever, {f1, f2, f3}, {}, {}},
        // max-frame-bytes bounds the frame at the header and the PNG as it comes.
        {0, {small}, 0, {}, {}, {largeFrame}, 64 * 64 * 4 - 1},
        {0, {largeHead, largeTail}, 0, {}, {}, {largePng, largePng}, 600},
        // Empty buffers, and those without a signature, go on with a PNG; a flush forgets an
        // unfinished PNG only in a tolerant stream.
        {1, {{}, p3Head, {}, p3Tail, p3Head, p1}, kNever, {f3, f1}, {}, {}, 0, 5},
        {0, {{}, p3Head, {}, p3Tail, p3Head, p1}, 5, {f3}, {}, {notPng}, 0, 5},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        Harness h(kPacketized);
        g_object_set(h.h->element, "max-errors", c.maxErrors, "max-frame-bytes", c.maxFrameBytes,
                     nullptr);
        Printed([&] {
            for (size_t i = 0; i < c.in.size(); ++i) {
                if (i == c.flushBefore) h.Flush();
                EXPECT_EQ(h.Push(c.in[i]), i < c.failsFrom ? GST_FLOW_OK : GST_FLOW_ERROR) << i;
            }
        });
        EXPECT_EQ(h.Take().data, c.frames);
        ASSERT_TRUE(gst_harness_push_event(h.h, gst_event_new_eos()));
        EXPECT_EQ(h.Take().data, c.atEnd);
        EXPECT_EQ(h.TakeMessages(), c.messages);
        EXPECT_THAT(h.TakeEvents(), ::testing::IsSupersetOf({"segment", "eos"}));
        // READY and back, then a new stream: time, caps and frame rate start afresh.
        for (GstState state : {GST_STATE_READY, GST_STATE_PLAYING})
            ASSERT_EQ(gst_element_set_state(h.h->element, state), GST_STATE_CHANGE_SUCCESS);
        gst_pad_set_active(h.h->sinkpad, FALSE);  // downstream forgets the sticky events too
        gst_pad_set_active(h.h->sinkpad, TRUE);
        gst_harness_push_event(h.h, gst_event_new_stream_start("restart"));
        gst_harness_set_src_caps_str(h.h, kNotPacketized);
        // Unframed, a piece that opens with a signature (here a pHYs chunk's) goes on with a PNG.
        const Bytes signed1 = Png(4, 4, 1, {0x89504E47, 0x0D0A1A0A, 0});
        ASSERT_EQ(h.Push(Slice(signed1, 0, 41)), GST_FLOW_OK);
        ASSERT_EQ(h.Push(Join({Slice(signed1, 41, signed1.size()), p2})), GST_FLOW_OK);
        ASSERT_TRUE(gst_harness_push_event(h.h, gst_event_new_eos()));
        const Frames frames = h.Take();
        EXPECT_EQ(frames.data, std::vector({f1, f2}));
        EXPECT_EQ(frames.times, Times({{0, kNone}, {kNone, kNone}}));
        EXPECT_THAT(h.TakeEvents(),
                    ElementsAre("stream-start", Caps(4, 4, "0/1"), "segment", "eos"));
    }
}

// With QoS (the default), frames that end before the reported 300 ms of lateness are skipped with
// a message each, time going on as if they were sent. A flush forgets the report.
TEST(ElementQos, LateFramesAreSkipped) {
    for (bool qos : {true, false}) {
        Harness h(kPacketized, qos ? "" : "qos=false");
        ASSERT_TRUE(gst_harness_push_upstream_event(
            h.h, gst_event_new_qos(GST_QOS_TYPE_UNDERFLOW, 1.0, 100 * kMs, 100 * kMs)));
        for (int i = 0; i < 10; ++i)
            ASSERT_EQ(h.Push(Png(2, 2, 0)), GST_FLOW_OK);
        const Times times = h.Take().times;
        ASSERT_EQ(times.size(), qos ? 3u : 10u);
        EXPECT_EQ(times[0].first, qos ? 280 * kMs : 0);
        EXPECT_EQ(h.TakeMessages(), std::vector<std::string>(qos ? 7 : 0, "qos"));
        h.Flush();
        ASSERT_EQ(h.Push(Png(2, 2, 0), 0), GST_FLOW_OK);
        EXPECT_EQ(h.Take().times, Times({{0, 40 * kMs}}));
    }
}

// A video pool padding rows by 3 pixels, a layout that only a GstVideoMeta the element asks for
// carries. The element completes the configuration with its caps.
GstBufferPool* PaddedPool() {
    GstBufferPool* pool = gst_video_buffer_pool_new();
    GstStructure* config = gst_buffer_pool_get_config(pool);
    gst_buffer_pool_config_add_option(config, GST_BUFFER_POOL_OPTION_VIDEO_ALIGNMENT);
    GstVideoAlignment align = {0, 0, 0, 3, {}};  // top, bottom, left, right
    gst_buffer_pool_config_set_video_alignment(config, &align);
    gst_buffer_pool_set_config(pool, config);  // refused without caps, but kept
    return pool;
}

// The frames of the PNGs, one a buffer, through "kalpng_dec <rest>", in PaddedPool's if asked.
Frames Decode(const std::vector<Bytes>& pngs, const std::string& rest, bool padded = false) {
    Harness h(kPacketized, rest);
    if (padded) Offer(h.h, 0, PaddedPool());
    Frames frames;
    for (const Bytes& png : pngs) {
        EXPECT_EQ(h.Push(png), GST_FLOW_OK);
        frames = h.Take(std::move(frames));  // in the caps it came with
    }
    return frames;
}

class OutputFormat : public testing::TestWithParam<const char*> {};

// Every PngSuite image and the small benchmark icons, in the element's buffers and in padded ones
// and within a frame limit of the largest in the format taken, equal videoconvert's undithered
// conversion of the RGBA frames, but for its rounding of GRAY8.
TEST_P(OutputFormat, EqualsVideoconvertOfTheRgbaFrames) {
    const std::string format = GetParam();
    static std::vector<Bytes> files;  // read once for all the formats
    if (files.empty())
        for (const std::string& file : ConformanceAndBenchFiles(128 * 128))
            files.push_back(ReadDataFile(file));
    const std::string caps = " ! capsfilter caps=video/x-raw,format=" + format;
    const Frames reference = Decode(files, "! videoconvert dither=none" + caps);
    ASSERT_EQ(reference.data.size(), files.size());
    size_t limit = 0;  // the largest frame
    for (const Bytes& frame : reference.data)
        limit = std::max(limit, frame.size());
    for (bool padded : {false, true}) {
        SCOPED_TRACE(padded ? "downstream's padded pool" : "the element's pool");
        const Frames direct =
            Decode(files, "max-frame-bytes=" + std::to_string(limit) + caps, padded);
        ASSERT_EQ(direct.data.size(), files.size());
        EXPECT_THAT(direct.padding, ::testing::Each(::testing::Ge(padded ? 3 : 0)));
        for (size_t i = 0; i < files.size(); ++i) {
            ASSERT_EQ(direct.data[i].size(), reference.data[i].size()) << "file " << i;
            int most = 0;  // but in unused bytes (x): 255 from the element, 0 from videoconvert
            for (size_t b = 0; b < direct.data[i].size(); ++b)
                if (b % 4 != format.find('x'))
                    most = std::max(most, std::abs(direct.data[i][b] - reference.data[i][b]));
            EXPECT_LE(most, format == "GRAY8") << "file " << i;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, OutputFormat,
                         testing::Values("RGBA", "BGRA", "ARGB", "ABGR", "RGBx", "BGRx", "xRGB",
                                         "xBGR", "RGB", "BGR", "RGB16", "GRAY8"),
                         [](const auto& info) { return std::string(info.param); });

// Plays the pipeline to its end, a source without one after `seeks` flushing seeks in its first
// two seconds, and answers how many frames its sink "out" rendered.
guint64 RunToEnd(const std::string& description, int seeks = 0) {
    g_autoptr(GstElement) pipeline = gst_parse_launch(description.c_str(), nullptr);
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    gst_element_get_state(pipeline, nullptr, nullptr, 10 * kS);
    for (int seek = 0; seek < seeks; ++seek) {
        g_usleep(20 * 1000);
        EXPECT_TRUE(gst_element_seek_simple(pipeline, GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH,
                                            seek * 2 * kS / seeks));
    }
    if (seeks) gst_element_send_event(pipeline, gst_event_new_eos());
    g_autoptr(GstMessage) message = gst_bus_timed_pop_filtered(
        GST_ELEMENT_BUS(pipeline), 60 * kS, GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    EXPECT_TRUE(message && GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) << "no EOS in a minute";
    g_autoptr(GstElement) sink = gst_bin_get_by_name(GST_BIN(pipeline), "out");
    g_autoptr(GstStructure) stats = nullptr;
    g_object_get(sink, "stats", &stats, nullptr);
    guint64 frames = 0;
    gst_structure_get_uint64(stats, "rendered", &frames);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    return frames;
}

// Encoders and muxers take every frame; mixers and freezers (full caps, a time segment) run to
// the end every time; flushing seeks while frames are decoded flush the pool and fail nothing.
TEST(ElementPipeline, EncoderMixerFreezerAndSeeksRunToTheEnd) {
    const std::string file = KALPNG_TESTDATA "/pngsuite/basn6a08.png",
                      png = "filesrc location=" + file + " ! kalpng_dec",
                      out = " ! fakesink name=out sync=false";
    const std::string webm = "multifilesrc loop=true num-buffers=30 location=" + file +
                             " caps=image/png,framerate=30/1 ! kalpng_dec ! videoconvert"
                             " ! vp8enc deadline=1 ! webmmux ! matroskademux";
    EXPECT_EQ(RunToEnd(webm + out), 30u);
    EXPECT_EQ(RunToEnd(png + " ! compositor name=mix" + out +
                       " videotestsrc num-buffers=10 ! video/x-raw,width=64,height=48 ! mix."),
              10u);
    for (int run = 0; run < 10; ++run)
        EXPECT_EQ(RunToEnd(png + " ! imagefreeze num-buffers=3 ! compositor" + out), 3u);
    const std::string live = "videotestsrc ! video/x-raw,width=640,height=480,framerate=30/1";
    RunToEnd(live + " ! pngenc ! kalpng_dec ! queue max-size-buffers=2" + out, 20);
}

}  // namespace
}  // namespace element_test
