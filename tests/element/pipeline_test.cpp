// kalpng_dec inside real pipelines with GStreamer's own sources, encoder and sinks.
#include <gmock/gmock.h>
#include <gst/app/gstappsink.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "element_support.h"

namespace element_test {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAreArray;

struct Sample {
    std::string caps;
    GstClockTime pts;
    GstClockTime duration;
    Bytes data;
};

class Pipeline {
  public:
    explicit Pipeline(const std::string& description) {
        GError* error = nullptr;
        pipeline_ = gst_parse_launch(description.c_str(), &error);
        EXPECT_EQ(error, nullptr) << error->message;
        if (error) g_error_free(error);
    }
    ~Pipeline() {
        if (!pipeline_) return;
        gst_element_set_state(pipeline_, GST_STATE_NULL);
        gst_object_unref(pipeline_);
    }
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    // Plays to the end; false with the error's text in `problem` if the pipeline failed.
    bool RunToEnd(std::string& problem) {
        if (gst_element_set_state(pipeline_, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
            problem = "cannot play";
            return false;
        }
        GstBus* bus = gst_element_get_bus(pipeline_);
        GstMessage* message = gst_bus_timed_pop_filtered(
            bus, 60 * GST_SECOND, GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
        gst_object_unref(bus);
        bool ended = message && GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS;
        if (!message) problem = "no end of stream within a minute";
        if (message && !ended) {
            GError* error = nullptr;
            gst_message_parse_error(message, &error, nullptr);
            problem = error->message;
            g_error_free(error);
        }
        if (message) gst_message_unref(message);
        return ended;
    }

    // Everything the named appsink received.
    std::vector<Sample> Samples(const char* sinkName) {
        GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline_), sinkName);
        std::vector<Sample> samples;
        while (GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 0)) {
            GstBuffer* buffer = gst_sample_get_buffer(sample);
            gchar* caps = gst_caps_to_string(gst_sample_get_caps(sample));
            samples.push_back(
                {caps, GST_BUFFER_PTS(buffer), GST_BUFFER_DURATION(buffer), BufferBytes(buffer)});
            g_free(caps);
            gst_sample_unref(sample);
        }
        gst_object_unref(sink);
        return samples;
    }

  private:
    GstElement* pipeline_ = nullptr;
};

TEST(ElementPipeline, PngEncodedFramesDecodeToTheSourceFrames) {
    Pipeline p(
        "videotestsrc num-buffers=5 pattern=smpte "
        "! video/x-raw,format=RGBA,width=48,height=30,framerate=25/1 ! tee name=t "
        "t. ! queue ! pngenc ! kalpng_dec ! appsink name=decoded sync=false wait-on-eos=false "
        "t. ! queue ! appsink name=raw sync=false wait-on-eos=false");
    std::string problem;
    ASSERT_TRUE(p.RunToEnd(problem)) << problem;

    const std::vector<Sample> raw = p.Samples("raw");
    const std::vector<Sample> decoded = p.Samples("decoded");
    ASSERT_EQ(raw.size(), 5u);
    ASSERT_EQ(decoded.size(), raw.size());
    for (size_t i = 0; i < raw.size(); ++i) {
        EXPECT_EQ(decoded[i].caps,
                  "video/x-raw, format=(string)RGBA, width=(int)48, height=(int)30, "
                  "framerate=(fraction)25/1")
            << "frame " << i;
        EXPECT_EQ(decoded[i].pts, raw[i].pts) << "frame " << i;
        EXPECT_EQ(decoded[i].duration, raw[i].duration) << "frame " << i;
        EXPECT_TRUE(decoded[i].data == raw[i].data) << "frame " << i;
    }
}

TEST(ElementPipeline, NumberedFilesOfMixedSizesRenegotiateCaps) {
    struct File {
        const char* name;
        int size;
    };
    const std::vector<File> files = {{"s01n3p01.png", 1},  {"s05n3p02.png", 5},
                                     {"s05i3p02.png", 5},  {"basn6a08.png", 32},
                                     {"s32i3p04.png", 32}, {"s09n3p02.png", 9}};
    const fs::path folder = fs::path(::testing::TempDir()) / "kalpng-mixed-sizes";
    fs::remove_all(folder);
    fs::create_directories(folder);
    for (size_t i = 0; i < files.size(); ++i) {
        fs::copy_file(fs::path(KALPNG_TESTDATA) / "pngsuite" / files[i].name,
                      folder / ("frame" + std::to_string(i) + ".png"));
    }

    Pipeline p("multifilesrc location=" + (folder / "frame%d.png").string() +
               " caps=\"image/png,framerate=25/1\" ! kalpng_dec ! appsink name=out sync=false "
               "wait-on-eos=false");
    std::string problem;
    ASSERT_TRUE(p.RunToEnd(problem)) << problem;

    std::vector<std::string> expected, got;
    for (size_t i = 0; i < files.size(); ++i) {
        const std::string size = std::to_string(files[i].size);
        expected.push_back("video/x-raw, format=(string)RGBA, width=(int)" + size +
                           ", height=(int)" + size + ", framerate=(fraction)25/1 at " +
                           TimeText(i * 40 * GST_MSECOND) + " bytes " +
                           std::to_string(files[i].size * files[i].size * 4));
    }
    for (const Sample& s : p.Samples("out")) {
        got.push_back(s.caps + " at " + TimeText(s.pts) + " bytes " +
                      std::to_string(s.data.size()));
    }
    EXPECT_THAT(got, ElementsAreArray(expected));
    fs::remove_all(folder);
}

}  // namespace
}  // namespace element_test
