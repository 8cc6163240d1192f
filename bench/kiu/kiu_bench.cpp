// Scaling and colour conversion of a 1920x1080 picture. A plain copy of the same RGBA bytes
// runs alongside as the yardstick for the ratios.
#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "kiu.h"

namespace {

constexpr uint32_t kWidth = 1920, kHeight = 1080;

// A smooth picture with some detail, so that no stage sees constant input.
std::vector<unsigned char> Picture(uint32_t pixelBytes) {
    std::vector<unsigned char> bytes(size_t{kWidth} * kHeight * pixelBytes);
    for (uint32_t y = 0; y < kHeight; ++y)
        for (uint32_t x = 0; x < kWidth; ++x)
            for (uint32_t c = 0; c < pixelBytes; ++c)
                bytes[(size_t{y} * kWidth + x) * pixelBytes + c] =
                    static_cast<unsigned char>(x * (c + 1) / 8 + y / 4 + ((x ^ y) & 15));
    return bytes;
}

void CopyRgba(benchmark::State& state) {
    std::vector<unsigned char> source = Picture(4), target(source.size());
    for (auto _ : state) {
        std::memcpy(target.data(), source.data(), source.size());
        benchmark::DoNotOptimize(target.data());
    }
    state.SetBytesProcessed(state.iterations() * source.size());
}

// ScaleImageRGB takes over its input, so every round starts from a fresh copy (untimed).
void ScaleRgba(benchmark::State& state) {
    std::vector<unsigned char> picture = Picture(4);
    unsigned long newWidth = state.range(0), newHeight = state.range(1);
    for (auto _ : state) {
        state.PauseTiming();
        auto* data = static_cast<unsigned char*>(kau::mem::New(picture.size()));
        std::memcpy(data, picture.data(), picture.size());
        unsigned long width = kWidth, height = kHeight;
        kau::mem::Heap heap;
        state.ResumeTiming();
        kiu::ScaleImageRGB(data, width, height, newWidth, newHeight, heap);
        benchmark::DoNotOptimize(data);
        state.PauseTiming();
        kau::mem::Delete(data);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(state.iterations() * picture.size());
}

void ScaleGray(benchmark::State& state) {
    std::vector<unsigned char> picture = Picture(1);
    for (auto _ : state) {
        kau::mem::Heap heap;
        unsigned char* data = picture.data();
        benchmark::DoNotOptimize(
            kiu::ScaleComponent(data, kWidth, kHeight, state.range(0), state.range(1), heap));
    }
    state.SetBytesProcessed(state.iterations() * picture.size());
}

// Whole-image conversion from `from` to `to`.
void Convert(benchmark::State& state, kiu::Format from, kiu::Format to) {
    kau::mem::Heap heap;
    kiu::Image source, target;
    source.Create(kWidth, kHeight, from, &heap, nullptr);
    target.Create(kWidth, kHeight, to, &heap, nullptr);
    std::vector<unsigned char> picture = Picture(1);
    for (uint32_t i = 0; i < source.ImageDataSize(); ++i)
        source.data[i] = picture[i % picture.size()];
    for (auto _ : state) {
        source.ConvertTo(target);
        benchmark::DoNotOptimize(target.data);
    }
    state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}

// The row routine alone, row by row over the picture.
void RowRgbToYuv(benchmark::State& state) {
    std::vector<unsigned char> rgba = Picture(4), yuv(size_t{kWidth} * kHeight * 3);
    for (auto _ : state) {
        for (uint32_t y = 0; y < kHeight; ++y)
            kiu::ConvertRGBtoYUV(kWidth, &rgba[size_t{y} * kWidth * 4],
                                 &yuv[size_t{y} * kWidth * 3]);
        benchmark::DoNotOptimize(yuv.data());
    }
    state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}

BENCHMARK(CopyRgba)->Unit(benchmark::kMillisecond);
BENCHMARK(ScaleRgba)->Args({1280, 720})->Args({2560, 1440})->Unit(benchmark::kMillisecond);
BENCHMARK(ScaleGray)->Args({1280, 720})->Args({2560, 1440})->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Convert, RgbaToI420, kiu::RGBA, kiu::I420)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Convert, I420ToRgba, kiu::I420, kiu::RGBA)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Convert, RgbToYuv, kiu::RGB, kiu::YUV)->Unit(benchmark::kMillisecond);
BENCHMARK(RowRgbToYuv)->Unit(benchmark::kMillisecond);

}  // namespace
