// The kalpng_dec element in a GstHarness (framing, caps, timing, clipping, failures, state
// changes) and inside real pipelines with GStreamer's own sources, encoder and sinks.
#include <gmock/gmock.h>
#include <gst/app/gstappsink.h>
#include <gst/check/gstharness.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <future>
#include <iostream>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "test_png.h"

namespace element_test {
namespace {

using pngtest::Bytes;
using pngtest::kModules;
using pngtest::Printed;
using pngtest::Report;
using ::testing::ElementsAre;

// Starts GStreamer once, every GLib warning or critical ("Sticky event misordering" among them)
// a test failure; plug-ins are scanned in-process so a sanitizer build's finds its runtime.
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

// The RGBA pixels of test image `seed` of a size, and an 8-bit RGBA PNG of them in one IDAT.
Bytes Pixels(uint32_t width, uint32_t height, uint32_t seed) {
    return pngtest::RandomImage(width, height, 8, 6, seed).pixels;
}

Bytes Png(uint32_t width, uint32_t height, uint32_t seed) {
    return pngtest::EncodePng(pngtest::RandomImage(width, height, 8, 6, seed));
}

// A 4 x 4 PNG whose IDAT chunk fails its CRC.
Bytes CorruptPng() {
    Bytes png = Png(4, 4, 0);
    png[png.size() - 16] ^= 0xFF;
    return png;
}

using Times = std::vector<std::pair<GstClockTime, GstClockTime>>;  // pts, duration

// Frames as the harness's sink received them: their bytes and times.
struct Frames {
    std::vector<Bytes> data;
    Times times;
    void Add(GstBuffer* buffer) {
        data.emplace_back(gst_buffer_get_size(buffer));
        gst_buffer_extract(buffer, 0, data.back().data(), data.back().size());
        times.push_back({GST_BUFFER_PTS(buffer), GST_BUFFER_DURATION(buffer)});
    }
};

constexpr GstClockTime kNone = GST_CLOCK_TIME_NONE, kMs = GST_MSECOND, kS = GST_SECOND;
const char kPacketized[] = "image/png, framerate=(fraction)25/1";
const char kNotPacketized[] = "image/png";

// The element between a harness source (PNG bytes in) and a harness sink (frames out).
class Harness {
  public:
    explicit Harness(const char* sinkCaps) : h(gst_harness_new("kalpng_dec")) {
        gst_element_set_bus(h->element, bus);
        gst_harness_set_src_caps_str(h, sinkCaps);
    }
    ~Harness() {
        gst_harness_teardown(h);
        gst_object_unref(bus);
    }

    // Pushes bytes [from, to) of `bytes`, all of them by default, in one buffer.
    GstFlowReturn Push(const Bytes& bytes, GstClockTime pts = kNone, GstClockTime dur = kNone,
                       size_t from = 0, size_t to = SIZE_MAX) {
        to = std::min(to, bytes.size());
        GstBuffer* buffer = gst_buffer_new_allocate(nullptr, to - from, nullptr);
        gst_buffer_fill(buffer, 0, bytes.data() + from, to - from);
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
    // READY and back, then a new stream: the sink pad has forgotten its sticky events.
    void Restart(const char* sinkCaps) {
        for (GstState state : {GST_STATE_READY, GST_STATE_PLAYING})
            ASSERT_EQ(gst_element_set_state(h->element, state), GST_STATE_CHANGE_SUCCESS);
        GstCaps* caps = gst_caps_from_string(sinkCaps);
        gst_harness_push_event(h, gst_event_new_stream_start("restart"));
        gst_harness_push_event(h, gst_event_new_caps(caps));
        gst_caps_unref(caps);
        PushSegment(GST_FORMAT_TIME, 0, kNone);
    }
    // The frames that reached the sink since the last call.
    Frames Take() {
        Frames frames;
        while (GstBuffer* buffer = gst_harness_try_pull(h)) {
            frames.Add(buffer);
            gst_buffer_unref(buffer);
        }
        return frames;
    }
    // The messages posted since the last call: "error: <text> (<debug>)", "warning: ..."
    // or the message type's name. GStreamer opens the debug text with the place it was posted
    // from, on a line of its own.
    std::vector<std::string> TakeMessages() {
        std::vector<std::string> messages;
        while (GstMessage* message = gst_bus_pop(bus)) {
            GError* error = nullptr;
            gchar* debug = nullptr;
            std::string kind = GST_MESSAGE_TYPE_NAME(message);
            if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR)
                gst_message_parse_error(message, &error, &debug);
            if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_WARNING)
                gst_message_parse_warning(message, &error, &debug);
            const char* detail = debug ? strrchr(debug, '\n') : nullptr;
            detail = detail ? detail + 1 : debug;
            messages.push_back(error ? kind + ": " + error->message + " (" + detail + ")" : kind);
            g_clear_error(&error);
            g_free(debug);
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
            gchar* text = caps ? gst_caps_to_string(caps) : g_strdup(GST_EVENT_TYPE_NAME(event));
            events.push_back(text);
            g_free(text);
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

// The frame comes with the last piece, stamped with the first piece's timestamp.
TEST(ElementFraming, PiecesOfAnySizeGiveTheFrameWithTheLastPiece) {
    const Bytes png = Png(5, 3, 1);
    for (size_t piece : {size_t(1), size_t(20), png.size() - 2}) {
        Harness h(kPacketized);
        for (size_t from = 0; from < png.size(); from += piece) {
            ASSERT_EQ(h.Push(png, from ? kNone : 7 * kS, kNone, from, from + piece), GST_FLOW_OK);
            ASSERT_EQ(gst_harness_buffers_received(h.h), from + piece >= png.size() ? 1u : 0u)
                << from;
        }
        const Frames frames = h.Take();
        EXPECT_THAT(frames.data, ElementsAre(Pixels(5, 3, 1)));
        EXPECT_EQ(frames.times, Times({{7 * kS, 40 * kMs}}));
    }
}

TEST(ElementFraming, SecondPngOfABufferWaitsForTheNextBuffer) {
    const Bytes c = Png(4, 4, 3);
    Harness h(kPacketized);
    ASSERT_EQ(h.Push(pngtest::Join({Png(4, 4, 1), Png(4, 4, 2)})), GST_FLOW_OK);
    EXPECT_THAT(h.Take().data, ElementsAre(Pixels(4, 4, 1)));
    // One byte releases the PNG already held, and starts the next one.
    ASSERT_EQ(h.Push(c, kNone, kNone, 0, 1), GST_FLOW_OK);
    EXPECT_THAT(h.Take().data, ElementsAre(Pixels(4, 4, 2)));
    ASSERT_EQ(h.Push(c, kNone, kNone, 1), GST_FLOW_OK);
    EXPECT_THAT(h.Take().data, ElementsAre(Pixels(4, 4, 3)));
}

// Caps are set once for frames of one size, again when the height or the width changes.
TEST(ElementCaps, SetOnceForEqualFramesAgainOnSizeChange) {
    Harness h(kPacketized);
    const struct {
        uint32_t width, height;
        std::vector<std::string> events;
    } frames[] = {{1, 1, {"stream-start", Caps(1, 1, "25/1"), "segment"}},
                  {1, 1, {}},
                  {1, 7, {Caps(1, 7, "25/1")}},
                  {1, 7, {}},
                  {3, 7, {Caps(3, 7, "25/1")}}};
    for (const auto& f : frames) {
        ASSERT_EQ(h.Push(Png(f.width, f.height, 9)), GST_FLOW_OK);
        EXPECT_EQ(h.TakeEvents(), f.events) << (&f - frames);
        EXPECT_THAT(h.Take().data, ElementsAre(Pixels(f.width, f.height, 9)));
    }
}

// A pool that the harness's sink offers in answer to the element's allocation query.
struct Offer {
    GstBufferPool* pool = gst_buffer_pool_new();
    guint max;  // buffers; 0: no limit

    Offer(GstHarness* h, guint max) : max(max) {
        gst_pad_add_probe(h->sinkpad, GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM, Answer, this, nullptr);
    }
    ~Offer() {
        gst_buffer_pool_set_active(pool, FALSE);
        gst_object_unref(pool);
    }
    static GstPadProbeReturn Answer(GstPad*, GstPadProbeInfo* info, gpointer self) {
        GstQuery* query = GST_PAD_PROBE_INFO_QUERY(info);
        if (GST_QUERY_TYPE(query) != GST_QUERY_ALLOCATION) return GST_PAD_PROBE_OK;
        const Offer* offer = static_cast<Offer*>(self);
        gst_query_add_allocation_pool(query, offer->pool, 0, 0, offer->max);
        return GST_PAD_PROBE_HANDLED;
    }
};

// Frames come from the pool downstream offers when it takes their caps and size, otherwise
// from the element's own. A frame reuses the memory of one already returned when it has the
// same size, and in the element's own pool also when it is smaller; a larger one gets new
// buffers.
TEST(ElementAllocation, FramesComeFromTheAgreedPoolAndReuseItsMemory) {
    enum Offered { kNothing, kIdlePool, kActivePool };  // an active pool refuses a new config
    const struct {
        unsigned size, seed;
        bool reusedOwn, reusedOffered;
    } frames[] = {{6, 1, false, false},
                  {6, 2, true, true},
                  {3, 3, true, false},
                  {8, 4, false, false},
                  {8, 5, true, true}};
    for (Offered offer : {kNothing, kIdlePool, kActivePool}) {
        Harness h(kPacketized);
        std::optional<Offer> offered;
        if (offer != kNothing) offered.emplace(h.h, 0);
        if (offer == kActivePool) {
            GstStructure* config = gst_buffer_pool_get_config(offered->pool);
            gst_buffer_pool_config_set_params(config, nullptr, 16, 0, 0);
            ASSERT_TRUE(gst_buffer_pool_set_config(offered->pool, config));
            ASSERT_TRUE(gst_buffer_pool_set_active(offered->pool, TRUE));
        }
        GstMemory* previous = nullptr;
        for (const auto& f : frames) {
            ASSERT_EQ(h.Push(Png(f.size, f.size, f.seed)), GST_FLOW_OK);
            GstBuffer* buffer = gst_harness_pull(h.h);
            Frames frame;
            frame.Add(buffer);
            EXPECT_THAT(frame.data, ElementsAre(Pixels(f.size, f.size, f.seed)));
            ASSERT_NE(buffer->pool, nullptr);
            EXPECT_EQ(offered && buffer->pool == offered->pool, offer == kIdlePool) << offer;
            if (offer == kIdlePool ? f.reusedOffered : f.reusedOwn) {
                EXPECT_EQ(gst_buffer_peek_memory(buffer, 0), previous) << offer << " " << f.seed;
            }
            previous = gst_buffer_peek_memory(buffer, 0);
            gst_buffer_unref(buffer);
        }
    }
}

// A bounded pool that counts the acquires begun on it, so that a test can wait until a frame is
// blocked in one instead of guessing how long that takes.
struct AcquireWatch {
    std::mutex lock;
    std::condition_variable begun;
    int count = 0;
    GstFlowReturn (*acquire)(GstBufferPool*, GstBuffer**, GstBufferPoolAcquireParams*) = nullptr;
} acquireWatch;

GstFlowReturn WatchedAcquire(GstBufferPool* pool, GstBuffer** buffer,
                             GstBufferPoolAcquireParams* params) {
    {
        std::lock_guard<std::mutex> hold(acquireWatch.lock);
        ++acquireWatch.count;
    }
    acquireWatch.begun.notify_all();
    return acquireWatch.acquire(pool, buffer, params);
}

GstBufferPool* NewWatchedPool() {
    static const GType type = g_type_register_static_simple(
        GST_TYPE_BUFFER_POOL, "KalpngTestWatchedPool", sizeof(GstBufferPoolClass),
        [](gpointer klass, gpointer) {
            GstBufferPoolClass* pool = GST_BUFFER_POOL_CLASS(klass);
            acquireWatch.acquire = pool->acquire_buffer;
            pool->acquire_buffer = WatchedAcquire;
        },
        sizeof(GstBufferPool), nullptr, GTypeFlags(0));
    return GST_BUFFER_POOL(gst_object_ref_sink(g_object_new(type, nullptr)));
}

bool WaitForAcquires(int count) {
    std::unique_lock<std::mutex> hold(acquireWatch.lock);
    return acquireWatch.begun.wait_for(hold, std::chrono::seconds(10),
                                       [&] { return acquireWatch.count >= count; });
}

// With downstream's only buffer still held, the next frame waits for it until a flush, which
// ends the frame with the flushing flow.
TEST(ElementAllocation, FlushReleasesAFrameWaitingForABoundedPool) {
    Harness h(kPacketized);
    Offer offer(h.h, 1);
    gst_object_unref(offer.pool);
    offer.pool = NewWatchedPool();
    ASSERT_EQ(h.Push(Png(4, 4, 1)), GST_FLOW_OK);
    GstBuffer* held = gst_harness_pull(h.h);
    const int acquired = acquireWatch.count;
    std::promise<GstFlowReturn> pushed;
    std::future<GstFlowReturn> flow = pushed.get_future();
    std::thread waiting([&] { pushed.set_value(h.Push(Png(4, 4, 2))); });
    EXPECT_TRUE(WaitForAcquires(acquired + 1)) << "the second frame never asked the pool";
    EXPECT_TRUE(gst_harness_push_event(h.h, gst_event_new_flush_start()));
    const bool released = flow.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    // Returning the held buffer ends a wait that the flush left alone, so the thread ends anyway.
    gst_buffer_unref(held);
    waiting.join();
    ASSERT_TRUE(released) << "the flush left the frame waiting for the pool";
    EXPECT_EQ(flow.get(), GST_FLOW_FLUSHING);
    EXPECT_TRUE(gst_harness_push_event(h.h, gst_event_new_flush_stop(TRUE)));
    h.PushSegment(GST_FORMAT_TIME, 0, kNone);
    ASSERT_EQ(h.Push(Png(4, 4, 3)), GST_FLOW_OK);
    EXPECT_THAT(h.Take().data, ElementsAre(Pixels(4, 4, 3)));
}

TEST(ElementTiming, FramesAreStamped) {
    const struct {
        const char* sinkCaps;
        Times in, out;  // one complete PNG per buffer
    } cases[] = {
        // clang-format off
        {kPacketized, {{kNone, kNone}, {kNone, kNone}, {kNone, kNone}},
         {{0, 40 * kMs}, {40 * kMs, 40 * kMs}, {80 * kMs, 40 * kMs}}},
        {kPacketized, {{0, 10 * kMs}, {kNone, 20 * kMs}, {kNone, kNone}},
         {{0, 10 * kMs}, {10 * kMs, 20 * kMs}, {30 * kMs, 40 * kMs}}},
        {"image/png, framerate=(fraction)30000/1001", {{kS, kNone}, {3 * kS, kNone}},
         {{kS, 33366666}, {3 * kS, 33366666}}},
        {"image/png, framerate=(fraction)0/1", {{2 * kS, kNone}, {kNone, kNone}},
         {{2 * kS, kNone}, {kNone, kNone}}},
        {kNotPacketized, {{kNone, kNone}, {kNone, kNone}}, {{0, kNone}, {kNone, kNone}}},
        {kNotPacketized, {{5 * kS, 100 * kMs}, {kNone, kNone}, {7 * kS, kNone}},
         {{5 * kS, kNone}, {kNone, kNone}, {7 * kS, kNone}}},
        {"image/png, width=(int)2", {{kNone, kNone}, {kNone, kNone}}, {{0, kNone}, {kNone, kNone}}},
        // clang-format on
    };
    for (const auto& c : cases) {
        Harness h(c.sinkCaps);
        for (const auto& [pts, duration] : c.in)
            ASSERT_EQ(h.Push(Png(2, 2, 0), pts, duration), GST_FLOW_OK);
        EXPECT_EQ(h.Take().times, c.out) << (&c - cases);
    }
}

// Downstream gets a time segment whatever came; the element's own clips only time input.
TEST(ElementClipping, FramesAreCutOrDroppedAtTheSegment) {
    const struct {
        const char* sinkCaps;
        GstFormat format;
        guint64 start, stop;  // of the segment
        Times in, out;        // one frame in; none out: dropped
    } cases[] = {
        {kPacketized, GST_FORMAT_TIME, kS, kNone, {{kS / 2, kS}}, {{kS, kS / 2}}},
        {kPacketized, GST_FORMAT_TIME, 0, 2 * kS, {{3 * kS / 2, kS}}, {{3 * kS / 2, kS / 2}}},
        {kPacketized, GST_FORMAT_TIME, 0, 2 * kS, {{3 * kS, kNone}}, {}},
        {kNotPacketized, GST_FORMAT_TIME, kS, kNone, {{kS / 2, kNone}}, {}},
        {kNotPacketized, GST_FORMAT_TIME, kS, kNone, {{2 * kS, kNone}}, {{2 * kS, kNone}}},
        {kPacketized, GST_FORMAT_BYTES, 1, 2, {{kS / 2, kS}}, {{kS / 2, kS}}},
    };
    for (const auto& c : cases) {
        Harness h(c.sinkCaps);
        h.PushSegment(c.format, c.start, c.stop);
        EXPECT_EQ(h.Push(Png(2, 2, 0), c.in[0].first, c.in[0].second), GST_FLOW_OK);
        EXPECT_EQ(h.Take().times, c.out) << (&c - cases);
        GstEvent* sent = gst_pad_get_sticky_event(h.h->sinkpad, GST_EVENT_SEGMENT, 0);
        const GstSegment* segment;
        gst_event_parse_segment(sent, &segment);
        EXPECT_EQ(segment->format, GST_FORMAT_TIME);
        EXPECT_EQ(segment->start, c.format == GST_FORMAT_TIME ? c.start : 0);
        gst_event_unref(sent);
    }
}

// A corrupt PNG, or bytes the input refuses before any decoding: an error flow, the reports of
// where it failed and one error message. The failed stream keeps what it holds, even at its
// end, until READY -> PAUSED starts afresh.
TEST(ElementFailure, ErrorFlowWithReportsUntilTheNextStart) {
    Bytes badSignature = Png(4, 4, 0);
    badSignature[0] ^= 0xFF;
    const std::string kpng = kModules + "kpng/kpng";
    const struct {
        Bytes png;
        std::string reports, message;
    } cases[] = {
        {CorruptPng(),
         Report(kpng, 576) + Report(kModules + "kpng/CPNG", 64) +
             Report(kModules + "gst.kpng.d", 132),
         "error: a chunk's CRC does not match its data (kpng +576)"},
        {badSignature, Report(kpng, 944), "error: not a PNG: the signature is wrong (kpng +944)"}};
    for (const auto& c : cases) {
        Harness h(kPacketized);
        ASSERT_EQ(h.Push(Png(4, 4, 1)), GST_FLOW_OK);
        GstFlowReturn flow = GST_FLOW_OK;
        EXPECT_EQ(Printed([&] { flow = h.Push(c.png); }), c.reports);
        EXPECT_EQ(flow, GST_FLOW_ERROR);
        EXPECT_EQ(Printed([&] { gst_harness_push_event(h.h, gst_event_new_eos()); }), "");
        EXPECT_THAT(h.TakeMessages(), ElementsAre(c.message));
        EXPECT_EQ(h.Take().data.size(), 1u);
        h.Restart(kPacketized);
        EXPECT_EQ(Printed([&] { h.Push(pngtest::Join({Png(4, 4, 5), Png(4, 4, 6)})); }), "");
        ASSERT_TRUE(gst_harness_push_event(h.h, gst_event_new_eos()));
        EXPECT_THAT(h.Take().data, ElementsAre(Pixels(4, 4, 5), Pixels(4, 4, 6)));
    }
}

// A pool that refuses because it is flushing ends the push quietly; an empty buffer is a push
// of nothing.
TEST(ElementFlow, FlushingPoolAndEmptyBuffersAreNoFailures) {
    Harness h(kPacketized);
    Offer offer(h.h, 0);
    ASSERT_EQ(h.Push(Png(4, 4, 1)), GST_FLOW_OK);
    gst_buffer_pool_set_flushing(offer.pool, TRUE);
    GstFlowReturn flow = GST_FLOW_OK;
    EXPECT_EQ(Printed([&] { flow = h.Push(Png(4, 4, 2)); }), "");
    EXPECT_EQ(flow, GST_FLOW_FLUSHING);
    gst_buffer_pool_set_flushing(offer.pool, FALSE);

    const Bytes png = Png(4, 4, 3);
    const std::pair<size_t, size_t> pieces[] = {{0, 0}, {0, 30}, {30, 30}, {30, png.size()}};
    EXPECT_EQ(Printed([&] {
                  for (const auto& [from, to] : pieces)
                      EXPECT_EQ(h.Push(png, kNone, kNone, from, to), GST_FLOW_OK);
              }),
              "");
    EXPECT_THAT(h.Take().data, ElementsAre(Pixels(4, 4, 1), Pixels(4, 4, 3)));
    EXPECT_THAT(h.TakeMessages(), ::testing::IsEmpty());
}

// At the end of the stream the PNGs still held come out in order, then a warning for the
// bytes of an unfinished one, then the end of the stream.
TEST(ElementEnd, HeldPngsComeOutAndAnUnfinishedOneIsReported) {
    const Bytes half = pngtest::Slice(Png(4, 4, 9), 0, 40);
    const struct {
        Bytes in;
        size_t framesAtEnd;
        std::vector<std::string> messages;
    } cases[] = {
        {pngtest::Join({Png(4, 4, 1), Png(4, 4, 2), Png(4, 4, 3), half}),
         2,
         {"warning: a PNG ends early (40 bytes discarded)"}},
        {Png(4, 4, 1), 0, {}},
        {half, 0, {"warning: a PNG ends early (40 bytes discarded)"}},
    };
    for (const auto& c : cases) {
        Harness h(kPacketized);
        ASSERT_EQ(h.Push(c.in), GST_FLOW_OK);
        const size_t before = h.Take().data.size();
        h.TakeEvents();
        ASSERT_TRUE(gst_harness_push_event(h.h, gst_event_new_eos()));
        Frames frames = h.Take();
        EXPECT_EQ(frames.data.size(), c.framesAtEnd) << (&c - cases);
        for (size_t i = 0; i < frames.data.size(); ++i)
            EXPECT_EQ(frames.data[i], Pixels(4, 4, uint32_t(before + i + 1)));
        EXPECT_EQ(h.TakeMessages(), c.messages);
        EXPECT_EQ(h.TakeEvents().back(), "eos");
    }
}

// Corrupt and cut PNGs in a packetized stream: with max-errors 0 the first ends the stream,
// otherwise up to max-errors in a row are dropped with a warning, the bytes after them kept.
TEST(ElementTolerance, MaxErrorsFailedPngsInARowAreSkipped) {
    const Bytes corrupt = CorruptPng(), whole = Png(4, 4, 0), cut = pngtest::Slice(whole, 0, 50),
                rest = pngtest::Slice(whole, 50, whole.size());
    const Bytes garbage = pngtest::RandomBytes(5, 1);
    const std::string crc = "warning: a chunk's CRC does not match its data (kpng +576)";
    const std::string fatal = "error: a chunk's CRC does not match its data (kpng +576)";
    const std::string early = "warning: a PNG ends early (50 bytes discarded)";
    const GstFlowReturn ok = GST_FLOW_OK, error = GST_FLOW_ERROR;
    const struct {
        int maxErrors;
        std::vector<Bytes> in;
        std::vector<GstFlowReturn> flows;
        std::vector<uint32_t> frames;  // seeds
        std::vector<std::string> messages;
    } cases[] = {
        // clang-format off
        {0, {Png(4, 4, 1), corrupt, Png(4, 4, 2)}, {ok, error, error}, {1}, {fatal, fatal}},
        // Each good PNG ends a run of failures; garbage before a signature is skipped.
        {2, {corrupt, Png(4, 4, 1), cut, Png(4, 4, 2), corrupt, pngtest::Join({garbage, Png(4, 4, 3)})},
         {ok, ok, ok, ok, ok, ok}, {1, 2, 3}, {crc, early, crc}},
        {2, {corrupt, cut, corrupt, Png(4, 4, 1)}, {ok, ok, error, error}, {}, {crc, early, fatal, fatal}},
        {-1, {corrupt, cut, corrupt, Png(4, 4, 1)}, {ok, ok, ok, ok}, {1}, {crc, early, crc}},
        // Only a buffer that opens with a signature starts a PNG.
        {1, {cut, rest}, {ok, ok}, {0}, {}},
        // The PNG behind a failed one in the same buffer is kept.
        {-1, {pngtest::Join({corrupt, Png(4, 4, 1)}), Png(4, 4, 2)}, {ok, ok}, {1}, {crc}},
        // clang-format on
    };
    for (const auto& c : cases) {
        Harness h(kPacketized);
        g_object_set(h.h->element, "max-errors", c.maxErrors, nullptr);
        std::vector<GstFlowReturn> flows;
        Printed([&] {
            for (const Bytes& png : c.in)
                flows.push_back(h.Push(png));
        });
        EXPECT_EQ(flows, c.flows) << (&c - cases);
        std::vector<Bytes> frames;
        for (uint32_t seed : c.frames)
            frames.push_back(Pixels(4, 4, seed));
        EXPECT_EQ(h.Take().data, frames) << (&c - cases);
        EXPECT_EQ(h.TakeMessages(), c.messages) << (&c - cases);
    }
}

// Tolerating bad input, a flush forgets the unfinished PNG; by default its bytes survive.
TEST(ElementTolerance, FlushForgetsAnUnfinishedPngOnlyWhenTolerant) {
    const Bytes png = Png(4, 4, 1);
    for (int maxErrors : {0, 1}) {
        Harness h(kNotPacketized);
        g_object_set(h.h->element, "max-errors", maxErrors, nullptr);
        ASSERT_EQ(h.Push(png, kNone, kNone, 0, 30), GST_FLOW_OK);
        ASSERT_TRUE(gst_harness_push_event(h.h, gst_event_new_flush_start()));
        ASSERT_TRUE(gst_harness_push_event(h.h, gst_event_new_flush_stop(TRUE)));
        h.PushSegment(GST_FORMAT_TIME, 0, kNone);
        ASSERT_EQ(h.Push(png), GST_FLOW_OK);
        EXPECT_EQ(h.Take().data.size(), maxErrors ? 1u : 0u);
    }
}

// Downstream reports frames up to 300 ms late: with QoS those that end before then are skipped,
// each with a QoS message, and time goes on as if they had been sent.
TEST(ElementQos, LateFramesAreSkipped) {
    // QoS is on unless switched off.
    for (bool qos : {true, false}) {
        Harness h(kPacketized);
        if (!qos) g_object_set(h.h->element, "qos", FALSE, nullptr);
        ASSERT_TRUE(gst_harness_push_upstream_event(
            h.h, gst_event_new_qos(GST_QOS_TYPE_UNDERFLOW, 1.0, 100 * kMs, 100 * kMs)));
        for (int i = 0; i < 10; ++i)
            ASSERT_EQ(h.Push(Png(2, 2, 0)), GST_FLOW_OK);
        const Times times = h.Take().times;
        ASSERT_EQ(times.size(), qos ? 3u : 10u);
        EXPECT_EQ(times[0].first, qos ? 280 * kMs : 0);
        const auto messages = h.TakeMessages();
        EXPECT_EQ(std::count(messages.begin(), messages.end(), "qos"), qos ? 7 : 0);
    }
}

// max-frame-bytes bounds the decoded frame, refused at the header, and the bytes collected for
// one PNG, refused as soon as they pass it.
TEST(ElementLimits, MaxFrameBytesBoundsTheFrameAndThePng) {
    pngtest::RawImage image{64, 64, 8, 6, Bytes(64 * 64 * 4)};  // compresses to little
    const Bytes big =
        pngtest::PngWriter()
            .Ihdr(64, 64, 8, 6)
            .Chunk("tEXt", pngtest::RandomBytes(1000, 2))
            .Idat(pngtest::Zlib(pngtest::Scanlines(image, false, [](int) { return 0; })))
            .Iend()
            .bytes();
    const std::string kpng = kModules + "kpng/kpng";
    const std::string decodeReports = Report(kpng, 101) + Report(kModules + "gst.kpng.d", 132);
    const struct {
        guint64 limit;
        GstFlowReturn firstHalf, secondHalf;
        std::string reports, message;
    } cases[] = {
        // clang-format off
        {0, GST_FLOW_OK, GST_FLOW_OK, "", ""},
        {64 * 64 * 4 - 1, GST_FLOW_OK, GST_FLOW_ERROR, decodeReports,
         "error: the image is larger than the limit set for a frame (kpng +101)"},
        {600, GST_FLOW_ERROR, GST_FLOW_ERROR, Report(kpng, 1040) + Report(kpng, 1040),
         "error: the PNG is larger than the limit set for a frame (kpng +1040)"},
        // clang-format on
    };
    for (const auto& c : cases) {
        Harness h(kPacketized);
        g_object_set(h.h->element, "max-frame-bytes", c.limit, nullptr);
        GstFlowReturn first = GST_FLOW_OK, second = GST_FLOW_OK;
        const auto halves = [&] {
            first = h.Push(big, kNone, kNone, 0, 601);
            second = h.Push(big, kNone, kNone, 601);
        };
        EXPECT_EQ(Printed(halves), c.reports) << (&c - cases);
        EXPECT_EQ(first, c.firstHalf);
        EXPECT_EQ(second, c.secondHalf);
        const auto messages = h.TakeMessages();
        EXPECT_EQ(messages.empty() ? "" : messages[0], c.message);
        EXPECT_EQ(h.Take().data.size(), c.reports.empty() ? 1u : 0u);
    }
}

// The pixel aspect ratio comes from a pHYs chunk in pixels per metre with a sane ratio.
TEST(ElementCaps, AspectRatioFromPhys) {
    const pngtest::RawImage image = pngtest::RandomImage(2, 2, 8, 6, 1);
    const struct {
        uint32_t x, y;
        uint8_t unit;
        const char* aspect;
    } cases[] = {{0, 0, 0, nullptr},     {2835, 2835, 1, "1/1"}, {1000, 2000, 1, "2/1"},
                 {3000, 2000, 1, "2/3"}, {1000, 2000, 0, "1/1"}, {1, 1000, 1, "1/1"}};
    for (const auto& c : cases) {
        pngtest::PngWriter png;
        png.Ihdr(2, 2, 8, 6);
        if (c.aspect)
            png.Chunk("pHYs", pngtest::Join({pngtest::Be32(c.x), pngtest::Be32(c.y), {c.unit}}));
        png.Idat(pngtest::Zlib(pngtest::Scanlines(image, false, [](int) { return 0; }))).Iend();
        Harness h(kPacketized);
        ASSERT_EQ(h.Push(png.bytes()), GST_FLOW_OK);
        EXPECT_THAT(h.TakeEvents(),
                    ::testing::Contains(Caps(2, 2, "25/1", c.aspect ? c.aspect : "1/1")))
            << (&c - cases);
        EXPECT_THAT(h.Take().data, ElementsAre(image.pixels));
    }
}

TEST(ElementState, ReadyToPausedStartsAfresh) {
    const Bytes png = Png(8, 8, 0);
    Harness h(kPacketized);
    ASSERT_EQ(h.Push(png), GST_FLOW_OK);
    ASSERT_EQ(h.Push(png), GST_FLOW_OK);
    ASSERT_EQ(h.Push(png, kNone, kNone, 0, 40), GST_FLOW_OK);  // half a PNG, then forgotten
    EXPECT_EQ(h.Take().times, Times({{0, 40 * kMs}, {40 * kMs, 40 * kMs}}));
    h.TakeEvents();

    // The same stream again: caps are announced anew and time starts over; then caps without
    // a frame rate: the earlier rate and packetized mode are forgotten.
    for (const char* sinkCaps : {kPacketized, kNotPacketized}) {
        const bool packetized = sinkCaps == kPacketized;
        h.Restart(sinkCaps);
        ASSERT_EQ(h.Push(png), GST_FLOW_OK);
        EXPECT_EQ(h.Take().times, Times({{0, packetized ? 40 * kMs : kNone}}));
        EXPECT_THAT(
            h.TakeEvents(),
            ElementsAre("stream-start", Caps(8, 8, packetized ? "25/1" : "0/1"), "segment"));
    }
}

const std::string kOut = " ! appsink name=out sync=false wait-on-eos=false";

// Plays the pipeline to its end and answers how many frames its appsink "out", if any, received.
size_t RunToEnd(const std::string& description) {
    GError* error = nullptr;
    GstElement* pipeline = gst_parse_launch(description.c_str(), &error);
    EXPECT_EQ(error, nullptr) << error->message;
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    GstBus* bus = gst_element_get_bus(pipeline);
    GstMessage* message = gst_bus_timed_pop_filtered(
        bus, 60 * GST_SECOND, GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    EXPECT_TRUE(message && GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS) << "no EOS in a minute";
    size_t frames = 0;
    if (GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "out")) {
        while (GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 0)) {
            gst_sample_unref(sample);
            ++frames;
        }
        gst_object_unref(sink);
    }
    if (message) gst_message_unref(message);
    gst_object_unref(bus);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
    return frames;
}

// A fresh folder of `count` numbered PNG frames, frame%d.png.
std::filesystem::path WriteFrames(const char* name, int count) {
    namespace fs = std::filesystem;
    const fs::path folder = fs::path(::testing::TempDir()) / name;
    fs::remove_all(folder);
    fs::create_directories(folder);
    for (int i = 0; i < count; ++i) {
        const Bytes png = Png(32, 24, uint32_t(i));
        FILE* file = fopen((folder / ("frame" + std::to_string(i) + ".png")).c_str(), "wb");
        fwrite(png.data(), 1, png.size(), file);
        fclose(file);
    }
    return folder;
}

// Encoders and muxers take every frame: the file holds as many as were decoded.
TEST(ElementPipeline, EncodedVideoHoldsEveryFrame) {
    const auto folder = WriteFrames("kalpng-encoded", 30);
    const std::string file = (folder / "out").string();
    const struct {
        const char *encoder, *encode, *demux;
    } cases[] = {{"vp8enc", "vp8enc deadline=1 ! webmmux", "matroskademux"},
                 {"x264enc", "x264enc ! mp4mux", "qtdemux"}};  // x264enc: only where installed
    for (const auto& c : cases) {
        GstElementFactory* factory = gst_element_factory_find(c.encoder);
        if (!factory) {
            std::cout << "skipped, not installed: " << c.encoder << "\n";
            continue;
        }
        gst_object_unref(factory);
        RunToEnd("multifilesrc location=" + (folder / "frame%d.png").string() +
                 " caps=\"image/png,framerate=30/1\" ! kalpng_dec ! videoconvert ! " + c.encode +
                 " ! filesink location=" + file);
        EXPECT_EQ(RunToEnd("filesrc location=" + file + " ! " + c.demux + kOut), 30u) << c.encode;
    }
    std::filesystem::remove_all(folder);
}

// Mixers and freezers need full caps and a time segment: a PNG over a test picture, and a
// frozen PNG, run to the end every time.
TEST(ElementPipeline, CompositorAndImagefreezeRunToTheEnd) {
    const auto folder = WriteFrames("kalpng-composited", 1);
    const std::string png =
        "filesrc location=" + (folder / "frame0.png").string() + " ! kalpng_dec";
    EXPECT_EQ(RunToEnd(png + " ! compositor name=mix" + kOut +
                       " videotestsrc num-buffers=10 ! video/x-raw,width=64,height=48 ! mix."),
              10u);
    for (int run = 0; run < 10; ++run)
        EXPECT_EQ(RunToEnd(png + " ! imagefreeze num-buffers=3 ! compositor" + kOut), 3u);
    std::filesystem::remove_all(folder);
}

// Flushing seeks while frames are decoded as fast as they come: the pool flushes, nothing fails.
TEST(ElementPipeline, FlushingSeeksDuringPlaybackGiveNoError) {
    GstElement* pipeline = gst_parse_launch(
        "videotestsrc ! video/x-raw,width=640,height=480,framerate=30/1 ! pngenc "
        "! kalpng_dec ! queue max-size-buffers=2 ! fakesink sync=false",
        nullptr);
    ASSERT_NE(pipeline, nullptr);
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    ASSERT_EQ(gst_element_get_state(pipeline, nullptr, nullptr, 10 * kS), GST_STATE_CHANGE_SUCCESS);
    GstBus* bus = gst_element_get_bus(pipeline);
    for (int seek = 0; seek < 20; ++seek) {
        g_usleep(20 * 1000);
        EXPECT_TRUE(gst_element_seek_simple(pipeline, GST_FORMAT_TIME, GST_SEEK_FLAG_FLUSH,
                                            seek * kS / 10));
    }
    g_usleep(100 * 1000);
    GstMessage* error = gst_bus_pop_filtered(bus, GST_MESSAGE_ERROR);
    EXPECT_EQ(error, nullptr);
    if (error) gst_message_unref(error);
    gst_object_unref(bus);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
}

}  // namespace
}  // namespace element_test
