// The kalpng_dec element in a GstHarness: framing, caps, timing, clipping, failures, state
// changes, events and its log.
#include <gmock/gmock.h>
#include <gst/check/gstharness.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "element_support.h"

namespace element_test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsSupersetOf;
using ::testing::StartsWith;

constexpr GstClockTime kNone = GST_CLOCK_TIME_NONE;
constexpr GstClockTime kMs = GST_MSECOND;

const char kPacketized[] = "image/png, framerate=(fraction)25/1";
const char kNotPacketized[] = "image/png";

struct Frame {
    GstClockTime pts;
    GstClockTime duration;
    Bytes data;
};

struct Timing {
    GstClockTime pts;
    GstClockTime duration;
    bool operator==(const Timing& other) const {
        return pts == other.pts && duration == other.duration;
    }
};

void PrintTo(const Timing& t, std::ostream* os) {
    *os << TimeText(t.pts) << "/" << TimeText(t.duration);
}

// The element between a harness source (PNG bytes in) and a harness sink (frames out).
class Harness {
  public:
    explicit Harness(const char* sinkCaps) : h_(gst_harness_new("kalpng_dec")) {
        gst_harness_set_src_caps_str(h_, sinkCaps);
    }
    ~Harness() { gst_harness_teardown(h_); }
    Harness(const Harness&) = delete;
    Harness& operator=(const Harness&) = delete;

    GstHarness* get() { return h_; }

    GstFlowReturn Push(GstBuffer* buffer, GstClockTime pts = kNone, GstClockTime dur = kNone) {
        GST_BUFFER_PTS(buffer) = pts;
        GST_BUFFER_DURATION(buffer) = dur;
        return gst_harness_push(h_, buffer);
    }
    GstFlowReturn Push(const Bytes& bytes, GstClockTime pts = kNone, GstClockTime dur = kNone) {
        return Push(MakeBuffer(bytes), pts, dur);
    }

    void PushSegment(GstFormat format, guint64 start, guint64 stop) {
        GstSegment segment;
        gst_segment_init(&segment, format);
        segment.start = start;
        segment.stop = stop;
        segment.time = start;
        segment.position = start;
        ASSERT_TRUE(gst_harness_push_event(h_, gst_event_new_segment(&segment)));
    }

    // Starts a new stream after a state change: the sink pad forgot the sticky events.
    void RestartStream(const char* sinkCaps) {
        gst_harness_push_event(h_, gst_event_new_stream_start("restart"));
        gst_harness_push_event(h_, gst_event_new_caps(gst_caps_from_string(sinkCaps)));
        PushSegment(GST_FORMAT_TIME, 0, kNone);
    }

    void SetState(GstState state) {
        ASSERT_EQ(gst_element_set_state(h_->element, state), GST_STATE_CHANGE_SUCCESS);
    }

    std::vector<Frame> TakeFrames() {
        std::vector<Frame> frames;
        while (GstBuffer* buffer = gst_harness_try_pull(h_)) {
            frames.push_back(
                {GST_BUFFER_PTS(buffer), GST_BUFFER_DURATION(buffer), BufferBytes(buffer)});
            gst_buffer_unref(buffer);
        }
        return frames;
    }

    std::vector<Timing> TakeTimings() {
        std::vector<Timing> timings;
        for (const Frame& f : TakeFrames()) {
            timings.push_back({f.pts, f.duration});
        }
        return timings;
    }

    // Every event that reached the sink since the last call: its type name, and for caps
    // events the caps.
    std::vector<std::string> TakeEvents() {
        std::vector<std::string> events;
        while (GstEvent* event = gst_harness_try_pull_event(h_)) {
            std::string text = GST_EVENT_TYPE_NAME(event);
            if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS) {
                GstCaps* caps;
                gst_event_parse_caps(event, &caps);
                gchar* capsText = gst_caps_to_string(caps);
                text += " " + std::string(capsText);
                g_free(capsText);
            }
            events.push_back(text);
            gst_event_unref(event);
        }
        return events;
    }

  private:
    GstHarness* h_;
};

std::string RgbaCaps(int width, int height, const char* framerate) {
    return "caps video/x-raw, format=(string)RGBA, width=(int)" + std::to_string(width) +
           ", height=(int)" + std::to_string(height) + ", framerate=(fraction)" + framerate;
}

Bytes Concat(const Bytes& a, const Bytes& b) {
    Bytes out = a;
    out.insert(out.end(), b.begin(), b.end());
    return out;
}

// Runs `push` with standard output captured and answers what was printed.
template <typename Push>
std::string CaptureReports(Push push) {
    ::testing::internal::CaptureStdout();
    push();
    return ::testing::internal::GetCapturedStdout();
}

// In a test PNG: the first deflate byte of the IDAT data (signature, IHDR chunk, IDAT length
// and type, zlib header before it). Inverting it breaks the chunk's CRC.
constexpr size_t kFirstDeflateByte = 8 + 25 + 8 + 2;

const std::string kElementReport =
    "\n?!exception@ middleware/multimedia-framework/media-service/gstreamer/"
    "gst-plugins-extension/Codec/SW/PNG/gst.kpng.d +132 !?\n\n\n";

// --- Framing: pieces of any size in, one frame per completed PNG out --------------------------

struct SplitCase {
    const char* name;
    // Piece boundaries, counted from the end when negative; none: every byte on its own.
    std::vector<long> cuts;
};

void PrintTo(const SplitCase& c, std::ostream* os) {
    *os << c.name;
}

class PiecesOfOnePng : public ::testing::TestWithParam<SplitCase> {};

TEST_P(PiecesOfOnePng, OnlyTheLastPieceGivesTheFrame) {
    const Bytes png = MakeTestPng(5, 3, 1);
    std::vector<size_t> ends;
    for (long cut : GetParam().cuts)
        ends.push_back(cut < 0 ? png.size() + cut : size_t(cut));
    if (ends.empty()) {
        for (size_t i = 1; i < png.size(); ++i)
            ends.push_back(i);
    }
    ends.push_back(png.size());

    Harness h(kPacketized);
    size_t from = 0;
    for (size_t i = 0; i < ends.size(); ++i) {
        ASSERT_EQ(h.Push(MakeBuffer(png, from, ends[i] - from)), GST_FLOW_OK) << "piece " << i;
        from = ends[i];
        if (i + 1 < ends.size()) {
            ASSERT_EQ(gst_harness_buffers_received(h.get()), 0u);
        }
    }
    const std::vector<Frame> frames = h.TakeFrames();
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].data, TestPixels(5, 3, 1));
}

INSTANTIATE_TEST_SUITE_P(Splits, PiecesOfOnePng,
                         ::testing::Values(SplitCase{"ThreePieces", {20, 50}},
                                           SplitCase{"InSignatureAndInIendCrc", {3, -2}},
                                           SplitCase{"InLengthAndTypeFields", {35, 39}},
                                           SplitCase{"ByteByByte", {}}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(ElementFraming, SecondPngOfABufferWaitsForTheNextBuffer) {
    const Bytes a = MakeTestPng(4, 4, 1), b = MakeTestPng(4, 4, 2), c = MakeTestPng(4, 4, 3);
    Harness h(kPacketized);

    ASSERT_EQ(h.Push(Concat(a, b)), GST_FLOW_OK);
    std::vector<Frame> frames = h.TakeFrames();
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].data, TestPixels(4, 4, 1));

    // One byte is enough to release the PNG already held; it starts the next one.
    ASSERT_EQ(h.Push(MakeBuffer(c, 0, 1)), GST_FLOW_OK);
    frames = h.TakeFrames();
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].data, TestPixels(4, 4, 2));

    ASSERT_EQ(h.Push(MakeBuffer(c, 1, c.size() - 1)), GST_FLOW_OK);
    frames = h.TakeFrames();
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].data, TestPixels(4, 4, 3));
}

TEST(ElementFraming, OnePixelFrame) {
    Harness h(kNotPacketized);
    ASSERT_EQ(h.Push(MakePng(1, 1, {10, 20, 30, 40})), GST_FLOW_OK);
    const std::vector<Frame> frames = h.TakeFrames();
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].data, (Bytes{10, 20, 30, 40}));
    EXPECT_THAT(h.TakeEvents(), ElementsAre("stream-start", RgbaCaps(1, 1, "0/1"), "segment"));
}

// --- Caps on the source pad ------------------------------------------------------------------

TEST(ElementCaps, SetOnceForEqualFramesAgainOnSizeChange) {
    Harness h(kPacketized);
    const std::vector<std::pair<int, int>> sizes = {{8, 8}, {8, 8}, {3, 7}, {3, 7}, {8, 8}};
    const std::vector<std::vector<std::string>> expected = {
        {"stream-start", RgbaCaps(8, 8, "25/1"), "segment"},
        {},
        {RgbaCaps(3, 7, "25/1")},
        {},
        {RgbaCaps(8, 8, "25/1")},
    };
    for (size_t i = 0; i < sizes.size(); ++i) {
        const auto [w, hgt] = sizes[i];
        ASSERT_EQ(h.Push(MakeTestPng(w, hgt, uint8_t(i))), GST_FLOW_OK);
        EXPECT_THAT(h.TakeEvents(), ElementsAreArray(expected[i])) << "frame " << i;
        const std::vector<Frame> frames = h.TakeFrames();
        ASSERT_EQ(frames.size(), 1u);
        EXPECT_EQ(frames[0].data, TestPixels(w, hgt, uint8_t(i)));
    }
}

// --- Timestamps and durations ----------------------------------------------------------------

struct TimingCase {
    const char* name;
    const char* sinkCaps;
    std::vector<Timing> in;  // one complete PNG per buffer
    std::vector<Timing> out;
};

void PrintTo(const TimingCase& c, std::ostream* os) {
    *os << c.name;
}

class ElementTiming : public ::testing::TestWithParam<TimingCase> {};

TEST_P(ElementTiming, FramesAreStamped) {
    const TimingCase& c = GetParam();
    Harness h(c.sinkCaps);
    for (const Timing& t : c.in) {
        ASSERT_EQ(h.Push(MakeTestPng(2, 2, 0), t.pts, t.duration), GST_FLOW_OK);
    }
    EXPECT_THAT(h.TakeTimings(), ElementsAreArray(c.out));
}

INSTANTIATE_TEST_SUITE_P(
    Modes, ElementTiming,
    ::testing::Values(
        TimingCase{"PacketizedFrameRateOnly",
                   kPacketized,
                   {{kNone, kNone}, {kNone, kNone}, {kNone, kNone}},
                   {{0, 40 * kMs}, {40 * kMs, 40 * kMs}, {80 * kMs, 40 * kMs}}},
        TimingCase{"PacketizedIncomingDurations",
                   kPacketized,
                   {{0, 10 * kMs}, {kNone, 20 * kMs}, {kNone, kNone}},
                   {{0, 10 * kMs}, {10 * kMs, 20 * kMs}, {30 * kMs, 40 * kMs}}},
        TimingCase{"PacketizedStampedBuffers",
                   "image/png, framerate=(fraction)30000/1001",
                   {{GST_SECOND, kNone}, {3 * GST_SECOND, kNone}},
                   {{GST_SECOND, 33366666}, {3 * GST_SECOND, 33366666}}},
        TimingCase{"PacketizedZeroFrameRate",
                   "image/png, framerate=(fraction)0/1",
                   {{2 * GST_SECOND, kNone}, {kNone, kNone}, {5 * GST_SECOND, kNone}},
                   {{2 * GST_SECOND, kNone}, {kNone, kNone}, {5 * GST_SECOND, kNone}}},
        TimingCase{"NotPacketizedUnstamped",
                   kNotPacketized,
                   {{kNone, kNone}, {kNone, kNone}},
                   {{0, kNone}, {kNone, kNone}}},
        TimingCase{"NotPacketizedStamped",
                   kNotPacketized,
                   {{5 * GST_SECOND, 100 * kMs}, {kNone, kNone}, {7 * GST_SECOND, kNone}},
                   {{5 * GST_SECOND, kNone}, {kNone, kNone}, {7 * GST_SECOND, kNone}}},
        TimingCase{"CapsWithoutFrameRateKeepTheMode",
                   "image/png, width=(int)2",
                   {{kNone, kNone}, {kNone, kNone}},
                   {{0, kNone}, {kNone, kNone}}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(ElementTiming, TimestampOfAnEarlierPieceStampsTheFrame) {
    const Bytes png = MakeTestPng(3, 3, 0);
    Harness h(kPacketized);
    ASSERT_EQ(h.Push(MakeBuffer(png, 0, 30), 7 * GST_SECOND, kNone), GST_FLOW_OK);
    ASSERT_EQ(h.Push(MakeBuffer(png, 30, png.size() - 30)), GST_FLOW_OK);
    ASSERT_EQ(h.Push(png), GST_FLOW_OK);
    EXPECT_THAT(h.TakeTimings(), ElementsAre(Timing{7 * GST_SECOND, 40 * kMs},
                                             Timing{7 * GST_SECOND + 40 * kMs, 40 * kMs}));
}

// --- Clipping against the segment ------------------------------------------------------------

struct ClipCase {
    const char* name;
    const char* sinkCaps;
    GstFormat format;
    guint64 start, stop;  // of the segment
    Timing in;
    std::vector<Timing> out;  // empty: dropped
};

void PrintTo(const ClipCase& c, std::ostream* os) {
    *os << c.name;
}

class ElementClipping : public ::testing::TestWithParam<ClipCase> {};

TEST_P(ElementClipping, FrameIsCutOrDropped) {
    const ClipCase& c = GetParam();
    Harness h(c.sinkCaps);
    h.PushSegment(c.format, c.start, c.stop);
    EXPECT_EQ(h.Push(MakeTestPng(2, 2, 0), c.in.pts, c.in.duration), GST_FLOW_OK);
    EXPECT_THAT(h.TakeTimings(), ElementsAreArray(c.out));
}

constexpr GstClockTime kS = GST_SECOND;
constexpr GstFormat kTime = GST_FORMAT_TIME;

// clang-format off
INSTANTIATE_TEST_SUITE_P(Segments, ElementClipping, ::testing::Values(
    ClipCase{"HeadCut", kPacketized, kTime, kS, kNone, {kS / 2, kS}, {{kS, kS / 2}}},
    ClipCase{"TailCut", kPacketized, kTime, 0, 2 * kS, {3 * kS / 2, kS}, {{3 * kS / 2, kS / 2}}},
    ClipCase{"AfterStop", kPacketized, kTime, 0, 2 * kS, {3 * kS, kNone}, {}},
    ClipCase{"InstantBeforeStart", kNotPacketized, kTime, kS, kNone, {kS / 2, kNone}, {}},
    ClipCase{"InstantInside", kNotPacketized, kTime, kS, kNone, {2 * kS, kNone}, {{2 * kS, kNone}}},
    ClipCase{"BytesNotClipped", kPacketized, GST_FORMAT_BYTES, 1, 2, {kS / 2, kS}, {{kS / 2, kS}}}),
    [](const auto& info) { return std::string(info.param.name); });
// clang-format on

// --- Failures --------------------------------------------------------------------------------

// The reports printed by one push, each without its closing "!?" line.
std::vector<std::string> SplitReports(const std::string& printed) {
    std::vector<std::string> reports;
    const std::string end = " !?\n\n\n";
    for (size_t from = 0, at; (at = printed.find(end, from)) != std::string::npos;
         from = at + end.size()) {
        reports.push_back(printed.substr(from, at - from));
    }
    return reports;
}

const std::string kReportStart =
    "\n?!exception@ middleware/multimedia-framework/media-service/gstreamer/"
    "gst-plugins-extension/Codec/SW/PNG/";

struct FailureCase {
    const char* name;
    size_t offset;  // byte of a valid PNG to invert
    std::vector<::testing::Matcher<std::string>> reports;
};

void PrintTo(const FailureCase& c, std::ostream* os) {
    *os << c.name;
}

class ElementFailure : public ::testing::TestWithParam<FailureCase> {};

TEST_P(ElementFailure, ErrorFlowWithPrintedReports) {
    const FailureCase& c = GetParam();
    Bytes png = MakeTestPng(4, 4, 0);
    png[c.offset] ^= 0xFF;

    Harness h(kPacketized);
    GstFlowReturn flow = GST_FLOW_OK;
    const std::string printed = CaptureReports([&] { flow = h.Push(png); });

    EXPECT_EQ(flow, GST_FLOW_ERROR);
    EXPECT_EQ(gst_harness_buffers_received(h.get()), 0u);
    EXPECT_THAT(SplitReports(printed), ElementsAreArray(c.reports)) << printed;
}

INSTANTIATE_TEST_SUITE_P(Inputs, ElementFailure,
                         ::testing::Values(
                             // The decoder reports where the CRC failed, DecodePNG that no pixels
                             // came, and the element that the decode failed.
                             FailureCase{"CorruptImageData",
                                         kFirstDeflateByte,
                                         {StartsWith(kReportStart + "kpng/kpng +"),
                                          kReportStart + "kpng/CPNG +64",
                                          kReportStart + "gst.kpng.d +132"}},
                             // The input itself refuses the signature, before any decoding.
                             FailureCase{"BadSignature", 0, {kReportStart + "kpng/kpng +944"}}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(ElementFailureRecovery, StuckAfterFailedDecodeUntilReadyToPaused) {
    Bytes corrupt = MakeTestPng(4, 4, 0);
    corrupt[kFirstDeflateByte] ^= 0xFF;
    const Bytes good = MakeTestPng(4, 4, 5);

    Harness h(kPacketized);
    std::string printed = CaptureReports([&] { EXPECT_EQ(h.Push(corrupt), GST_FLOW_ERROR); });
    EXPECT_NE(printed.find(kElementReport), std::string::npos);

    // The failed PNG stays held: a good one behind it fails the same way.
    printed = CaptureReports([&] { EXPECT_EQ(h.Push(good), GST_FLOW_ERROR); });
    EXPECT_NE(printed.find(kElementReport), std::string::npos);

    h.SetState(GST_STATE_READY);
    h.SetState(GST_STATE_PLAYING);
    h.RestartStream(kPacketized);
    printed = CaptureReports([&] { EXPECT_EQ(h.Push(good), GST_FLOW_OK); });
    EXPECT_EQ(printed, "");
    const std::vector<Frame> frames = h.TakeFrames();
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].data, TestPixels(4, 4, 5));
}

// --- State changes ---------------------------------------------------------------------------

TEST(ElementState, ReadyToPausedStartsAfresh) {
    const Bytes png = MakeTestPng(8, 8, 0);
    Harness h(kPacketized);
    ASSERT_EQ(h.Push(png), GST_FLOW_OK);
    ASSERT_EQ(h.Push(png), GST_FLOW_OK);
    ASSERT_EQ(h.Push(MakeBuffer(png, 0, 40)), GST_FLOW_OK);  // half a PNG, then forgotten
    EXPECT_THAT(h.TakeTimings(), ElementsAre(Timing{0, 40 * kMs}, Timing{40 * kMs, 40 * kMs}));
    h.TakeEvents();

    // The same stream again: caps are announced anew and time starts over.
    h.SetState(GST_STATE_READY);
    h.SetState(GST_STATE_PLAYING);
    h.RestartStream(kPacketized);
    ASSERT_EQ(h.Push(png), GST_FLOW_OK);
    EXPECT_THAT(h.TakeTimings(), ElementsAre(Timing{0, 40 * kMs}));
    EXPECT_THAT(h.TakeEvents(), ElementsAre("stream-start", RgbaCaps(8, 8, "25/1"), "segment"));

    // Caps without a frame rate: the earlier rate and packetized mode are forgotten.
    h.SetState(GST_STATE_READY);
    h.SetState(GST_STATE_PLAYING);
    h.RestartStream(kNotPacketized);
    ASSERT_EQ(h.Push(png), GST_FLOW_OK);
    EXPECT_THAT(h.TakeTimings(), ElementsAre(Timing{0, kNone}));
    EXPECT_THAT(h.TakeEvents(), ElementsAre("stream-start", RgbaCaps(8, 8, "0/1"), "segment"));
}

// --- Events ----------------------------------------------------------------------------------

TEST(ElementEvents, SegmentWaitsForTheFirstCapsThenPassesAtOnce) {
    Harness h(kPacketized);
    EXPECT_THAT(h.TakeEvents(), ElementsAre("stream-start"));

    ASSERT_EQ(h.Push(MakeTestPng(2, 2, 0)), GST_FLOW_OK);
    EXPECT_THAT(h.TakeEvents(), ElementsAre(RgbaCaps(2, 2, "25/1"), "segment"));

    h.PushSegment(GST_FORMAT_TIME, GST_SECOND, kNone);
    EXPECT_THAT(h.TakeEvents(), ElementsAre("segment"));
}

TEST(ElementEvents, OtherEventsPassUnchanged) {
    Harness h(kPacketized);
    ASSERT_EQ(h.Push(MakeTestPng(2, 2, 0)), GST_FLOW_OK);
    h.TakeEvents();

    GstTagList* tags = gst_tag_list_new(GST_TAG_TITLE, "frames", nullptr);
    GstEvent* custom =
        gst_event_new_custom(GST_EVENT_CUSTOM_DOWNSTREAM, gst_structure_new_empty("kalpng-test"));
    ASSERT_TRUE(gst_harness_push_event(h.get(), gst_event_new_tag(tags)));
    ASSERT_TRUE(gst_harness_push_event(h.get(), custom));
    ASSERT_TRUE(gst_harness_push_event(h.get(), gst_event_new_eos()));
    EXPECT_THAT(h.TakeEvents(), ElementsAre("tag", "custom-downstream", "eos"));
}

TEST(ElementEvents, EndOfStreamBeforeAnyFrameBringsTheHeldSegment) {
    Harness h(kPacketized);
    ASSERT_TRUE(gst_harness_push_event(h.get(), gst_event_new_eos()));
    EXPECT_THAT(h.TakeEvents(), ElementsAre("stream-start", "segment", "eos"));
}

// --- Log -------------------------------------------------------------------------------------

TEST(ElementLogLines, EachAtItsLevel) {
    using Line = ElementLog::Line;
    ElementLog log;
    {
        Harness h(kPacketized);
        ASSERT_EQ(h.Push(MakeTestPng(2, 2, 0)), GST_FLOW_OK);
        h.PushSegment(GST_FORMAT_TIME, 0, 10 * kMs);
        ASSERT_EQ(h.Push(MakeTestPng(2, 2, 0)), GST_FLOW_OK);  // at 40 ms: outside
        // A sink that stops taking data refuses the next frame.
        h.PushSegment(GST_FORMAT_TIME, 0, kNone);
        gst_pad_set_active(h.get()->sinkpad, FALSE);
        EXPECT_EQ(h.Push(MakeTestPng(2, 2, 0)), GST_FLOW_FLUSHING);
    }
    {
        Harness h(kNotPacketized);
        ASSERT_EQ(h.Push(MakeTestPng(2, 2, 0)), GST_FLOW_OK);
        ASSERT_EQ(h.Push(MakeTestPng(2, 2, 0)), GST_FLOW_OK);
    }
    const std::vector<Line> expected = {
        {GST_LEVEL_INFO, true, "event : stream-start"},
        {GST_LEVEL_INFO, true, "event : caps"},
        {GST_LEVEL_INFO, false, "got framerate of 25/1 fps => packetized mode"},
        {GST_LEVEL_INFO, true, "event : segment"},
        {GST_LEVEL_INFO, true,
         "Got NEWSEGMENT [0:00:00.000000000 - 99:99:99.999999999 / 0:00:00.000000000]"},
        {GST_LEVEL_LOG, true, "Clipping start to 0:00:00.000000000"},
        {GST_LEVEL_LOG, true, "Clipping duration to 0:00:00.040000000"},
        {GST_LEVEL_INFO, true,
         "ready to push an output buffer, ts=0:00:00.000000000, dur=0:00:00.040000000"},
        {GST_LEVEL_INFO, true,
         "Got NEWSEGMENT [0:00:00.000000000 - 0:00:00.010000000 / 0:00:00.000000000]"},
        {GST_LEVEL_WARNING, true, "Outgoing buffer is outside configured segment"},
        {GST_LEVEL_INFO, true,
         "ready to push an output buffer, ts=0:00:00.080000000, dur=0:00:00.040000000"},
        {GST_LEVEL_ERROR, true, "could not push output buffer"},
        {GST_LEVEL_INFO, true,
         "ready to push an output buffer, ts=99:99:99.999999999, dur=99:99:99.999999999"},
    };
    EXPECT_THAT(log.Lines(), IsSupersetOf(expected));
}

}  // namespace
}  // namespace element_test
