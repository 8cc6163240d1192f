// kalpng_dec's output formats: each format downstream asks for comes out as videoconvert makes
// it from the element's RGBA frames, in the element's own buffers and in a downstream pool whose
// rows are padded. GStreamer is started by this executable's test environment.
#include <gst/check/gstharness.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "test_png.h"

namespace format_test {
namespace {

using pngtest::Bytes;

// A frame as the sink got it: its format and its rows without any padding.
struct Frame {
    std::string format;
    guint width = 0;
    Bytes rows;
};

// Offers downstream's own pool, whose rows are padded by 3 pixels: the element must ask for the
// GstVideoMeta that carries their layout.
GstPadProbeReturn OfferPaddedPool(GstPad*, GstPadProbeInfo* info, gpointer) {
    GstQuery* query = GST_PAD_PROBE_INFO_QUERY(info);
    if (GST_QUERY_TYPE(query) != GST_QUERY_ALLOCATION) return GST_PAD_PROBE_OK;
    GstCaps* caps = nullptr;
    gst_query_parse_allocation(query, &caps, nullptr);
    GstVideoInfo video;
    gst_video_info_from_caps(&video, caps);
    GstBufferPool* pool = gst_video_buffer_pool_new();
    GstStructure* config = gst_buffer_pool_get_config(pool);
    gst_buffer_pool_config_set_params(config, caps, guint(video.size), 0, 0);
    gst_buffer_pool_config_add_option(config, GST_BUFFER_POOL_OPTION_VIDEO_ALIGNMENT);
    GstVideoAlignment align;
    gst_video_alignment_reset(&align);
    align.padding_right = 3;
    gst_buffer_pool_config_set_video_alignment(config, &align);
    gst_buffer_pool_set_config(pool, config);
    gst_query_add_allocation_pool(query, pool, guint(video.size), 0, 0);
    gst_object_unref(pool);
    return GST_PAD_PROBE_HANDLED;
}

// The frames of the PNGs, one a buffer, through "kalpng_dec <properties> ! <downstream>", in a
// pool of downstream's with padded rows when asked.
std::vector<Frame> Decode(const std::vector<Bytes>& pngs, const std::string& downstream,
                          bool paddedPool, const std::string& properties = "") {
    GstHarness* h =
        gst_harness_new_parse(("kalpng_dec " + properties + " ! " + downstream).c_str());
    gst_harness_set_src_caps_str(h, "image/png,framerate=25/1");
    if (paddedPool) {
        gst_pad_add_probe(h->sinkpad, GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM, OfferPaddedPool, nullptr,
                          nullptr);
    }
    std::vector<Frame> frames;
    for (const Bytes& png : pngs) {
        EXPECT_EQ(gst_harness_push(h, gst_buffer_new_memdup(png.data(), png.size())), GST_FLOW_OK);
        GstBuffer* buffer = gst_harness_try_pull(h);
        if (!buffer) continue;
        GstVideoInfo info;
        GstCaps* caps = gst_pad_get_current_caps(h->sinkpad);
        gst_video_info_from_caps(&info, caps);
        gst_caps_unref(caps);
        // Both the element's pool and downstream's give frames their layout.
        EXPECT_NE(gst_buffer_get_video_meta(buffer), nullptr);
        GstVideoFrame video;
        EXPECT_TRUE(gst_video_frame_map(&video, &info, buffer, GST_MAP_READ));
        Frame frame{GST_VIDEO_INFO_NAME(&info), guint(info.width), {}};
        const size_t rowBytes = size_t(GST_VIDEO_INFO_COMP_PSTRIDE(&info, 0)) * info.width;
        const size_t stride = size_t(GST_VIDEO_FRAME_PLANE_STRIDE(&video, 0));
        EXPECT_TRUE(!paddedPool || stride > rowBytes);
        const auto* data = static_cast<const unsigned char*>(GST_VIDEO_FRAME_PLANE_DATA(&video, 0));
        for (int y = 0; y < info.height; ++y)
            frame.rows.insert(frame.rows.end(), data + y * stride, data + y * stride + rowBytes);
        gst_video_frame_unmap(&video);
        gst_buffer_unref(buffer);
        frames.push_back(std::move(frame));
    }
    gst_harness_teardown(h);
    return frames;
}

// The largest difference of one sample: RGB16 in its 5- and 6-bit fields, the others in bytes
// but for the unused bytes (x), which the element writes 255 and videoconvert 0.
int LargestDifference(const std::string& format, const Bytes& a, const Bytes& b) {
    int most = 0;
    const size_t unused = format.find('x');
    if (format == "RGB16") {
        for (size_t i = 0; i + 1 < a.size(); i += 2) {
            uint16_t x, y;
            memcpy(&x, &a[i], 2);
            memcpy(&y, &b[i], 2);
            for (const auto& [shift, mask] : {std::pair{11, 31}, {5, 63}, {0, 31}})
                most = std::max(most, std::abs((x >> shift & mask) - (y >> shift & mask)));
        }
    } else {
        for (size_t i = 0; i < a.size(); ++i)
            if (i % 4 != unused) most = std::max(most, std::abs(int(a[i]) - int(b[i])));
    }
    return most;
}

struct FormatCase {
    const char* format;
    int tolerance;  // from videoconvert's rounding and dithering
};
constexpr FormatCase kFormats[] = {{"RGBA", 0}, {"BGRA", 0}, {"ARGB", 0},  {"ABGR", 0},
                                   {"RGBx", 0}, {"BGRx", 0}, {"xRGB", 0},  {"xBGR", 0},
                                   {"RGB", 0},  {"BGR", 0},  {"RGB16", 1}, {"GRAY8", 1}};

class OutputFormat : public testing::TestWithParam<FormatCase> {};

// Every PngSuite image and the benchmark icons of at most 128 x 128 pixels, in the element's own
// buffers and in downstream's padded ones, equal videoconvert's conversion of the element's RGBA
// frames (the element gives videoconvert RGBA, since it takes that).
TEST_P(OutputFormat, EqualsVideoconvertOfTheRgbaFrames) {
    static const std::vector<Bytes> files = [] {
        std::vector<Bytes> files;
        for (const std::string& file : pngtest::ConformanceAndBenchFiles(128 * 128))
            files.push_back(pngtest::ReadDataFile(file));
        return files;
    }();
    const std::string caps = std::string("capsfilter caps=video/x-raw,format=") + GetParam().format;
    const std::vector<Frame> reference = Decode(files, "videoconvert ! " + caps, false);
    ASSERT_EQ(reference.size(), files.size());
    for (bool padded : {false, true}) {
        SCOPED_TRACE(padded ? "downstream's padded pool" : "the element's pool");
        const std::vector<Frame> direct = Decode(files, caps, padded);
        ASSERT_EQ(direct.size(), files.size());
        for (size_t i = 0; i < files.size(); ++i) {
            EXPECT_EQ(direct[i].format, GetParam().format);
            // videoconvert leaves some frames one pixel wide unwritten; the decoder's own
            // tests cover them.
            if (direct[i].width == 1) continue;
            ASSERT_EQ(direct[i].rows.size(), reference[i].rows.size()) << "file " << i;
            EXPECT_LE(LargestDifference(GetParam().format, direct[i].rows, reference[i].rows),
                      GetParam().tolerance)
                << "file " << i;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, OutputFormat, testing::ValuesIn(kFormats),
                         [](const auto& info) { return std::string(info.param.format); });

// The frame limit counts the bytes of the format downstream takes: a 40 x 40 frame is 1600
// bytes in GRAY8 and 3200 in RGB16 (its PNG far fewer). A PNG over the limit is skipped.
TEST(OutputFormatLimit, CountsTheBytesOfTheNegotiatedFormat) {
    const Bytes png = pngtest::EncodePng({40, 40, 8, 2, Bytes(40 * 40 * 3)});
    for (const auto& [format, limit, frames] :
         {std::tuple{"GRAY8", 1600, 1u}, {"RGB16", 3199, 0u}, {"RGB16", 3200, 1u}}) {
        const std::string properties = "max-errors=-1 max-frame-bytes=" + std::to_string(limit);
        EXPECT_EQ(Decode({png}, std::string("capsfilter caps=video/x-raw,format=") + format, false,
                         properties)
                      .size(),
                  frames)
            << format << " " << limit;
    }
}

}  // namespace
}  // namespace format_test
