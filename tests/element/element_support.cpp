#include "element_support.h"

#include <gtest/gtest.h>
#include <zlib.h>

#include <cstring>

namespace element_test {
namespace {

// Starts GStreamer once and turns every GLib warning or critical (GStreamer's "Sticky event
// misordering" among them) into a test failure. Plug-ins are scanned in this process, so that
// a sanitizer build's plug-in finds the sanitizer runtime it needs.
class GstEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        g_log_set_default_handler(FailOnWarning, nullptr);
        gst_registry_fork_set_enabled(FALSE);
        gst_init(nullptr, nullptr);
    }

  private:
    static void FailOnWarning(const gchar* domain, GLogLevelFlags level, const gchar* message,
                              gpointer) {
        if (level & (G_LOG_LEVEL_ERROR | G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING)) {
            ADD_FAILURE() << (domain ? domain : "") << ": " << message;
        }
    }
};

[[maybe_unused]] ::testing::Environment* const environment =
    ::testing::AddGlobalTestEnvironment(new GstEnvironment);

void PutBig32(Bytes& out, uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(uint8_t(v >> shift));
}

void PutChunk(Bytes& out, const char* type, const Bytes& data) {
    PutBig32(out, uint32_t(data.size()));
    const size_t typeAt = out.size();
    out.insert(out.end(), type, type + 4);
    out.insert(out.end(), data.begin(), data.end());
    uLong crc = crc32(0, out.data() + typeAt, uInt(4 + data.size()));
    PutBig32(out, uint32_t(crc));
}

}  // namespace

Bytes TestPixels(uint32_t width, uint32_t height, uint8_t seed) {
    Bytes rgba;
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x) {
            rgba.push_back(uint8_t(x * 7 + seed));
            rgba.push_back(uint8_t(y * 13 + seed * 3));
            rgba.push_back(uint8_t(x ^ y ^ seed));
            rgba.push_back(uint8_t(255 - x - y - seed));
        }
    }
    return rgba;
}

Bytes MakePng(uint32_t width, uint32_t height, const Bytes& rgba) {
    // Every row starts with filter type 0 (none).
    Bytes raw;
    const size_t rowBytes = size_t(width) * 4;
    for (uint32_t y = 0; y < height; ++y) {
        raw.push_back(0);
        raw.insert(raw.end(), rgba.begin() + y * rowBytes, rgba.begin() + (y + 1) * rowBytes);
    }
    uLongf deflatedSize = compressBound(uLong(raw.size()));
    Bytes deflated(deflatedSize);
    EXPECT_EQ(compress2(deflated.data(), &deflatedSize, raw.data(), uLong(raw.size()), 9), Z_OK);
    deflated.resize(deflatedSize);

    Bytes header;
    PutBig32(header, width);
    PutBig32(header, height);
    header.insert(header.end(), {8, 6, 0, 0, 0});

    Bytes png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    PutChunk(png, "IHDR", header);
    PutChunk(png, "IDAT", deflated);
    PutChunk(png, "IEND", {});
    return png;
}

Bytes MakeTestPng(uint32_t width, uint32_t height, uint8_t seed) {
    return MakePng(width, height, TestPixels(width, height, seed));
}

GstBuffer* MakeBuffer(const Bytes& bytes, size_t offset, size_t size) {
    GstBuffer* buffer = gst_buffer_new_allocate(nullptr, size, nullptr);
    gst_buffer_fill(buffer, 0, bytes.data() + offset, size);
    return buffer;
}

GstBuffer* MakeBuffer(const Bytes& bytes) {
    return MakeBuffer(bytes, 0, bytes.size());
}

Bytes BufferBytes(GstBuffer* buffer) {
    Bytes bytes(gst_buffer_get_size(buffer));
    gst_buffer_extract(buffer, 0, bytes.data(), bytes.size());
    return bytes;
}

std::string TimeText(GstClockTime t) {
    gchar* text = g_strdup_printf("%" GST_TIME_FORMAT, GST_TIME_ARGS(t));
    std::string result(text);
    g_free(text);
    return result;
}

ElementLog::ElementLog() {
    gst_debug_set_active(TRUE);
    (gst_debug_remove_log_function)(nullptr);
    gst_debug_add_log_function(Collect, this, nullptr);
    gst_debug_set_threshold_for_name("kalpng_dec", GST_LEVEL_LOG);
}

ElementLog::~ElementLog() {
    gst_debug_unset_threshold_for_name("kalpng_dec");
    gst_debug_remove_log_function_by_data(this);
    (gst_debug_add_log_function)(nullptr, nullptr, nullptr);
}

std::vector<ElementLog::Line> ElementLog::Lines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
}

void ElementLog::Collect(GstDebugCategory* category, GstDebugLevel level, const gchar*,
                         const gchar*, gint, GObject* object, GstDebugMessage* message,
                         gpointer self) {
    if (std::strcmp(gst_debug_category_get_name(category), "kalpng_dec") != 0) return;
    auto* log = static_cast<ElementLog*>(self);
    std::lock_guard<std::mutex> lock(log->mutex_);
    log->lines_.push_back({level, object != nullptr, gst_debug_message_get(message)});
}

}  // namespace element_test
