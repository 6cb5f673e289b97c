// Throughput of the noise and pattern filters on 640x512 video, in megapixels
// per second ("MP/s"), with 1 and 2 threads. Live 640x512 video at 60 frames
// per second needs about 20 MP/s. A frame copy gives the memory-bound ceiling
// measured in the same run.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>


#include "ClusterPatternRemover.h"
#include "SpatialNoiseRemover.h"
#include "StaticPatternRemover.h"
#include "TemporalNoiseReduction.h"
#include "UnsharpMask.h"

namespace {

constexpr int kWidth = 640;
constexpr int kHeight = 512;
constexpr int kFrames = 8;


// A slowly drifting thermal-looking scene in signed 16-bit offset binary
// (about 3000 counts above -32768 plus a column pattern and noise), as the
// camera delivers it.
const std::vector<cv::Mat_<short>>& videoFrames()
{
    static const std::vector<cv::Mat_<short>> frames = [] {
        std::mt19937 rng(7);
        std::normal_distribution<float> noise(0.0f, 6.0f);
        cv::Mat_<float> scene(kHeight + kFrames, kWidth + kFrames);
        cv::randu(scene, 0.0f, 1.0f);
        cv::GaussianBlur(scene, scene, cv::Size(0, 0), 6.0);
        cv::normalize(scene, scene, 0.0, 3000.0, cv::NORM_MINMAX);
        std::vector<float> columnOffset(kWidth);
        for (float& v : columnOffset)
            v = noise(rng) * 2.0f;
        std::vector<cv::Mat_<short>> out;
        for (int f = 0; f < kFrames; ++f) {
            cv::Mat_<short> frame(kHeight, kWidth);
            for (int r = 0; r < kHeight; ++r)
                for (int c = 0; c < kWidth; ++c)
                    frame(r, c) = cv::saturate_cast<short>(-32768 + 1000 + scene(r + f, c + f) +
                                                           columnOffset[c] + noise(rng));
            out.push_back(frame);
        }
        return out;
    }();
    return frames;
}

template <class Filter>
void runOnVideo(benchmark::State& state, Filter& filter)
{
    filter.setThreads(static_cast<int>(state.range(0)));
    const auto& frames = videoFrames();
    cv::Mat_<short> out;
    std::size_t i = 0;
    for (auto _ : state) {
        filter.process(frames[i++ % frames.size()], out);
        benchmark::DoNotOptimize(out.data);
    }
    const double pixels = static_cast<double>(kWidth) * kHeight;
    state.counters["MP/s"] = benchmark::Counter(pixels * state.iterations() / 1e6, benchmark::Counter::kIsRate);
    state.counters["threads"] = static_cast<double>(state.range(0));
}

void BM_TemporalNoiseReduction(benchmark::State& state)
{
    velmor::kro::TemporalNoiseReduction filter(10, 15, 60, false);
    runOnVideo(state, filter);
}
BENCHMARK(BM_TemporalNoiseReduction)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_SpatialNoiseRemover(benchmark::State& state)
{
    velmor::kro::SpatialNoiseRemover filter(6);
    runOnVideo(state, filter);
}
BENCHMARK(BM_SpatialNoiseRemover)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_StaticPatternRemover(benchmark::State& state)
{
    velmor::kro::StaticPatternRemover filter(22, 12, 16);
    runOnVideo(state, filter);
}
BENCHMARK(BM_StaticPatternRemover)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

// One update of the damping map plus its application, on float frames.
// (No threads of its own: the argument only keeps the table's layout.)
void BM_ClusterPatternRemover(benchmark::State& state)
{
    std::vector<cv::Mat_<float>> frames;
    for (const auto& f : videoFrames()) {
        cv::Mat_<float> asFloat;
        f.convertTo(asFloat, CV_32F, 1.0, 32768.0);
        frames.push_back(asFloat);
    }
    const cv::Mat_<float> stdDev(kHeight, kWidth, 3.0f);
    velmor::kro::ClusterPatternRemover remover(3, 3, 10.0f, 0.0f, 50.0f);
    remover.setAlphaDamping(0.05f);
    cv::Mat_<float> out;
    std::size_t i = 0;
    for (auto _ : state) {
        const auto& frame = frames[i++ % frames.size()];
        remover.updateDamping(frame, stdDev);
        remover.applyDamping(frame, out);
        benchmark::DoNotOptimize(out.data);
    }
    state.counters["MP/s"] = benchmark::Counter(double(kWidth) * kHeight * state.iterations() / 1e6,
                                                benchmark::Counter::kIsRate);
}
BENCHMARK(BM_ClusterPatternRemover)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

// (Threads only inside OpenCV's blur: the argument keeps the table's layout.)
void BM_UnsharpMask(benchmark::State& state)
{
    cv::Mat src;
    videoFrames()[0].convertTo(src, CV_32F, 1.0 / 4096.0, 8.0);
    cv::Mat dst;
    for (auto _ : state) {
        velmor::kro::UnsharpMask::unsharp(src, dst, 1.0, 1.5, 0.002);
        benchmark::DoNotOptimize(dst.data);
    }
    state.counters["MP/s"] = benchmark::Counter(double(kWidth) * kHeight * state.iterations() / 1e6,
                                                benchmark::Counter::kIsRate);
}
BENCHMARK(BM_UnsharpMask)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

// Memory-bound ceiling: copying a 16-bit frame.
void BM_FrameCopy(benchmark::State& state)
{
    const auto& frames = videoFrames();
    cv::Mat_<short> out(kHeight, kWidth);
    std::size_t i = 0;
    for (auto _ : state) {
        frames[i++ % frames.size()].copyTo(out);
        benchmark::DoNotOptimize(out.data);
    }
    state.counters["MP/s"] = benchmark::Counter(double(kWidth) * kHeight * state.iterations() / 1e6,
                                                benchmark::Counter::kIsRate);
}
BENCHMARK(BM_FrameCopy)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace
