// Shared helpers of the kalpng_dec tests: test PNGs, buffers, and the element's log lines.
#pragma once

#include <gst/gst.h>

#include <cstdint>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace element_test {

using Bytes = std::vector<uint8_t>;

// RGBA pixels that differ per position and per seed, alpha included.
Bytes TestPixels(uint32_t width, uint32_t height, uint8_t seed);

// An 8-bit RGBA PNG (colour type 6, no interlace) of `rgba`, in one IDAT chunk.
Bytes MakePng(uint32_t width, uint32_t height, const Bytes& rgba);

// A PNG of TestPixels(width, height, seed).
Bytes MakeTestPng(uint32_t width, uint32_t height, uint8_t seed);

// A buffer holding bytes [offset, offset + size) of `bytes`.
GstBuffer* MakeBuffer(const Bytes& bytes, size_t offset, size_t size);
GstBuffer* MakeBuffer(const Bytes& bytes);

Bytes BufferBytes(GstBuffer* buffer);

// Time values as the element prints them.
std::string TimeText(GstClockTime t);

// Collects what the element logs in its debug category, at every level, while alive.
class ElementLog {
  public:
    struct Line {
        GstDebugLevel level;
        bool onObject;
        std::string text;
        bool operator==(const Line& other) const {
            return level == other.level && onObject == other.onObject && text == other.text;
        }
    };

    friend void PrintTo(const Line& line, std::ostream* os) {
        *os << gst_debug_level_get_name(line.level) << (line.onObject ? " on element: " : ": ")
            << line.text;
    }

    ElementLog();
    ~ElementLog();
    ElementLog(const ElementLog&) = delete;
    ElementLog& operator=(const ElementLog&) = delete;

    std::vector<Line> Lines();

  private:
    static void Collect(GstDebugCategory* category, GstDebugLevel level, const gchar* file,
                        const gchar* function, gint line, GObject* object, GstDebugMessage* message,
                        gpointer self);

    std::mutex mutex_;
    std::vector<Line> lines_;
};

}  // namespace element_test
