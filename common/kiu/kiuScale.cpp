// Scaling with a separable quadratic B-spline. The weights of every output row are computed
// once, those of an output column once per column, and the image is walked column by
// column through one buffer holding a horizontally filtered source column.
#include <cmath>

#include "kiu.h"

namespace kiu {
namespace {

float BSpline(float t) {
    float a = std::fabs(t);
    if (a < 0.5f) return 0.75f - a * a;
    if (a < 1.5f) return 0.5f * (a - 1.5f) * (a - 1.5f);
    return 0.0f;
}

// A sum of weighted samples as a byte: rounded half up, clamped to 0..255.
inline unsigned char ToByte(float sum) {
    if (!(sum > 0.0f)) return 0;
    if (sum >= 255.0f) return 255;
    uint32_t whole = static_cast<uint32_t>(sum);
    return static_cast<unsigned char>(whole + (sum - static_cast<float>(whole) >= 0.5f ? 1 : 0));
}

struct Contribution {
    uint32_t index;
    float weight;
};

// Working memory of `count` elements; a size past 32 bits fails as the allocation would.
template <typename T>
T* WorkingMemory(kau::mem::Heap& heap, uint64_t count) {
    uint64_t bytes = count * sizeof(T);
    if (bytes > UINT32_MAX) kau::Error::Throw(kau::kKauFile, kau::kErrHeapAllocate);
    return static_cast<T*>(heap.Allocate(static_cast<uint32_t>(bytes)));
}

// The contribution lists of one axis, from `source` samples to `output` samples.
class Axis {
  public:
    Axis(uint32_t source, uint32_t output)
        : source_(source), output_(output), shrinking_(output < source) {
        scale_ = shrinking_ ? static_cast<float>(source) / static_cast<float>(output) : 1.0f;
        halfWidth_ = 1.5f * scale_;
        float room = shrinking_ ? 2.0f * halfWidth_ + 1.0f : 4.0f;
        if (!(room < 4294967296.0f)) kau::Error::Throw(kau::kKauFile, kau::kErrHeapAllocate);
        room_ = static_cast<uint32_t>(room);
    }

    // Entries that one list may hold.
    uint32_t Room() const { return room_; }

    // Fills the list of output index i and answers its length. The centre is the truncated
    // quotient, so every output sample is centred on a source sample.
    uint32_t Build(uint32_t i, Contribution* list) const {
        float centre = static_cast<float>(uint64_t{i} * source_ / output_);
        int64_t first = static_cast<int64_t>(std::ceil(centre - halfWidth_));
        int64_t last = static_cast<int64_t>(std::floor(centre + halfWidth_));
        uint32_t count = 0;
        for (int64_t j = first; j <= last && count < room_; ++j) {
            float t = centre - static_cast<float>(j);
            float weight = shrinking_ ? BSpline(t / scale_) / scale_ : BSpline(t);
            list[count++] = Contribution{Reflect(j), weight};
        }
        return count;
    }

  private:
    // Mirrors an index into the source: the edge sample repeats once before the mirror image
    // begins (-1 reads 0, n reads n - 1).
    uint32_t Reflect(int64_t j) const {
        int64_t k = j < 0 ? -j - 1 : j;
        if (k >= source_) k = source_ - 1 - k % source_;
        return static_cast<uint32_t>(k);
    }

    uint32_t source_;
    uint32_t output_;
    bool shrinking_;
    float scale_;
    float halfWidth_;
    uint32_t room_;
};

struct Sizes {
    uint32_t srcWidth, srcHeight, dstWidth, dstHeight;

    bool OutputEmpty() const { return dstWidth == 0 || dstHeight == 0; }
    uint64_t OutputBytes(uint32_t pixelBytes) const {
        return uint64_t{dstWidth} * dstHeight * pixelBytes;
    }
};

// The reflection needs at least one source sample on each axis.
void RequireSource(const unsigned char* data, const Sizes& sizes) {
    if (sizes.OutputEmpty()) return;
    if (!data || sizes.srcWidth == 0 || sizes.srcHeight == 0)
        kau::Error::Throw(kKiuFile, kErrScaleNoSource);
}

// Filters the first kChannels bytes of every kPixelBytes-byte pixel; the others are left
// as they are in `out`.
template <uint32_t kPixelBytes, uint32_t kChannels>
void Resample(const unsigned char* in, const Sizes& sizes, unsigned char* out,
              kau::mem::Heap& heap) {
    if (sizes.OutputEmpty()) return;
    Axis horizontal(sizes.srcWidth, sizes.dstWidth);
    Axis vertical(sizes.srcHeight, sizes.dstHeight);
    uint32_t rowRoom = vertical.Room();
    Contribution* rowLists = WorkingMemory<Contribution>(heap, uint64_t{sizes.dstHeight} * rowRoom);
    uint32_t* rowLengths = WorkingMemory<uint32_t>(heap, sizes.dstHeight);
    Contribution* columnList = WorkingMemory<Contribution>(heap, horizontal.Room());
    unsigned char* column =
        WorkingMemory<unsigned char>(heap, uint64_t{sizes.srcHeight} * kChannels);

    for (uint32_t y = 0; y < sizes.dstHeight; ++y)
        rowLengths[y] = vertical.Build(y, rowLists + size_t{y} * rowRoom);

    size_t inStride = size_t{sizes.srcWidth} * kPixelBytes;
    size_t outStride = size_t{sizes.dstWidth} * kPixelBytes;
    for (uint32_t x = 0; x < sizes.dstWidth; ++x) {
        uint32_t length = horizontal.Build(x, columnList);
        for (uint32_t r = 0; r < sizes.srcHeight; ++r) {
            const unsigned char* row = in + inStride * r;
            float sums[kChannels] = {};
            for (uint32_t e = 0; e < length; ++e) {
                const unsigned char* px = row + size_t{columnList[e].index} * kPixelBytes;
                for (uint32_t c = 0; c < kChannels; ++c)
                    sums[c] += columnList[e].weight * px[c];
            }
            for (uint32_t c = 0; c < kChannels; ++c)
                column[r * kChannels + c] = ToByte(sums[c]);
        }
        unsigned char* target = out + size_t{x} * kPixelBytes;
        for (uint32_t y = 0; y < sizes.dstHeight; ++y, target += outStride) {
            const Contribution* list = rowLists + size_t{y} * rowRoom;
            float sums[kChannels] = {};
            for (uint32_t e = 0; e < rowLengths[y]; ++e) {
                const unsigned char* px = column + size_t{list[e].index} * kChannels;
                for (uint32_t c = 0; c < kChannels; ++c)
                    sums[c] += list[e].weight * px[c];
            }
            for (uint32_t c = 0; c < kChannels; ++c)
                target[c] = ToByte(sums[c]);
        }
    }
}

using Resampler = void (*)(const unsigned char*, const Sizes&, unsigned char*, kau::mem::Heap&);

// The colour scalers: a new output from kau::mem::New replaces the caller's buffer.
void ScaleImage(unsigned char*& data, unsigned long& width, unsigned long& height,
                unsigned long newWidth, unsigned long newHeight, kau::mem::Heap& heap,
                uint32_t pixelBytes, Resampler resample, int outputError, int catchLine) {
    Sizes sizes{static_cast<uint32_t>(width), static_cast<uint32_t>(height),
                static_cast<uint32_t>(newWidth), static_cast<uint32_t>(newHeight)};
    RequireSource(data, sizes);
    unsigned char* out = kau::CatchAndReport(kKiuFile, catchLine, nullptr, [&] {
        uint64_t bytes = sizes.OutputBytes(pixelBytes);
        void* p = bytes <= UINT32_MAX ? kau::mem::New(static_cast<uint32_t>(bytes)) : nullptr;
        if (!p) kau::Error::Throw(kKiuFile, outputError);
        return static_cast<unsigned char*>(p);
    });
    if (!out) {
        data = nullptr;
        return;
    }
    try {
        resample(data, sizes, out, heap);
    } catch (...) {
        kau::mem::Delete(out);
        data = nullptr;
        throw;
    }
    if (data) kau::mem::Delete(data);
    data = out;
    width = sizes.dstWidth;
    height = sizes.dstHeight;
}

}  // namespace

unsigned char* ScaleComponent(unsigned char*& data, unsigned long srcWidth, unsigned long srcHeight,
                              unsigned long dstWidth, unsigned long dstHeight,
                              kau::mem::Heap& heap) {
    Sizes sizes{static_cast<uint32_t>(srcWidth), static_cast<uint32_t>(srcHeight),
                static_cast<uint32_t>(dstWidth), static_cast<uint32_t>(dstHeight)};
    RequireSource(data, sizes);
    unsigned char* out = kau::CatchAndReport(kKiuFile, kCatchScaleComponent, nullptr, [&] {
        return WorkingMemory<unsigned char>(heap, sizes.OutputBytes(1));
    });
    if (!out) {
        data = nullptr;
        return nullptr;
    }
    try {
        Resample<1, 1>(data, sizes, out, heap);
    } catch (...) {
        data = nullptr;
        throw;
    }
    data = out;
    return out;
}

void ScaleImageRGB(unsigned char*& data, unsigned long& width, unsigned long& height,
                   unsigned long newWidth, unsigned long newHeight, kau::mem::Heap& heap) {
    ScaleImage(data, width, height, newWidth, newHeight, heap, 4, Resample<4, 3>,
               kErrScaleRGBOutput, kCatchScaleImageRGB);
}

void ScaleImage24bpp(unsigned char*& data, unsigned long& width, unsigned long& height,
                     unsigned long newWidth, unsigned long newHeight, kau::mem::Heap& heap) {
    ScaleImage(data, width, height, newWidth, newHeight, heap, 3, Resample<3, 3>,
               kErrScale24bppOutput, kCatchScaleImage24bpp);
}

}  // namespace kiu
