// The fixed-point engine beside the float engine, in one run: the cost of
// one output frame in steady state (the window slides by one frame per
// output: addFrame + computeSr) and the quality of the first output on the
// same synthetic bursts, at the usual sensor sizes on 1 and 2 threads.
//
// Both engines get the same settings: window 5, reference index 0 (the
// newest frame, which the fixed-point engine always aligns its result
// with), TV weight 400, registration error 0.0001, relative residue 0.007,
// 8 iterations, PSF sigma 0.683. The bursts come from the project's
// generator (procedural thermal-like scene, sensor blur 0.683, x2
// decimation, noise of 8 counts, 14-bit counts, shifts up to one pixel),
// with the newest frame of the first window unshifted, so that the truth is
// on its grid.
//
// Counters: "ms_registration" and "ms_minimize" (the engines' own
// measurements), "psnr_db" of the first output against the truth and
// "psnr_bicubic_db" of the bicubic enlargement of the newest frame (both
// after removing a grid offset, over the image minus 16 pixels), and
// "negative_codes" (outputs with a warning code; the solve ran all the same).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "BurstGenerator.h"
#include "QualityMetrics.h"
#include "SrFloat.h"
#include "SrInt.h"

namespace velmor {
namespace kro {
namespace {

constexpr int kWindow = 5;
constexpr int kBurstFrames = 16;
constexpr int kBorder = 16;

using FixedEngine = SrInt<SrIntRegistration, SrIntMinimization>;
using FloatEngine = SrFloat<SrFloatRegistration2>;

const krotools::Burst& burstFor(int width, int height)
{
    static std::vector<std::pair<cv::Size, krotools::Burst>> cache;
    for (const auto& entry : cache)
        if (entry.first == cv::Size(width, height))
            return entry.second;
    krotools::BurstSettings settings;
    settings.frames = kBurstFrames;
    settings.referencePosition = kWindow - 1;
    settings.seed = 11;
    cache.emplace_back(cv::Size(width, height),
                       generateBurst(krotools::proceduralScene(2 * height, 2 * width, 11), settings));
    return cache.back().second;
}

// The engines behind one interface: add a frame, reconstruct, read times.
struct Fixed {
    Fixed(int width, int height, int threads) : engine(width, height, kWindow, 2.0f)
    {
        engine.setThreads(threads);
        for (const cv::Mat_<float>& f : burstFor(width, height).frames) {
            frames.emplace_back();
            f.convertTo(frames.back(), CV_16S);
        }
    }
    void add(int i) { engine.addFrame(frames[i % kBurstFrames]); }
    bool compute()
    {
        const int status = engine.computeSr(out);
        return status >= 0;
    }
    cv::Mat_<float> image() const
    {
        cv::Mat_<float> f;
        out.convertTo(f, CV_32F);
        return f;
    }
    double registrationMs() const { return engine.getLastRegistrationMilliseconds(); }
    double minimizeMs() const { return engine.getLastMinimizationMilliseconds(); }

    FixedEngine engine;
    std::vector<cv::Mat_<short>> frames;
    cv::Mat_<short> out;
};

struct Float {
    Float(int width, int height, int threads) : engine(width, height, kWindow, 2.0f), frames(burstFor(width, height).frames)
    {
        engine.setThreads(threads);
        engine.setReferenceIndex(0);
    }
    void add(int i) { engine.addFrame(frames[i % kBurstFrames]); }
    bool compute() { return engine.computeSR(out) >= 0.0f; }
    cv::Mat_<float> image() const { return out; }
    double registrationMs() const { return engine.getLastRegistrationMilliseconds(); }
    double minimizeMs() const { return engine.getLastMinimizationMilliseconds(); }

    FloatEngine engine;
    const std::vector<cv::Mat_<float>>& frames;
    cv::Mat_<float> out;
};

template <typename Engine>
void BM_OutputFrame(benchmark::State& state)
{
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    const krotools::Burst& burst = burstFor(width, height);
    Engine e(width, height, static_cast<int>(state.range(2)));
    int next = 0;
    for (; next < kWindow; ++next)
        e.add(next);
    e.compute();
    // The first window's newest frame is the unshifted one: its output is
    // on the truth's grid.
    const double psnr = krotools::measureQuality(burst.truth, e.image(), kBorder).psnr;
    cv::Mat_<float> bicubic;
    cv::resize(burst.frames[kWindow - 1], bicubic, burst.truth.size(), 0.0, 0.0, cv::INTER_CUBIC);
    const double bicubicPsnr = krotools::measureQuality(burst.truth, bicubic, kBorder).psnr;

    int warnings = 0;
    double registrationMs = 0.0, minimizeMs = 0.0;
    for (auto _ : state) {
        e.add(next++);
        if (!e.compute())
            ++warnings;
        registrationMs += e.registrationMs();
        minimizeMs += e.minimizeMs();
    }
    const double n = static_cast<double>(std::max<benchmark::IterationCount>(1, state.iterations()));
    state.counters["ms_registration"] = registrationMs / n;
    state.counters["ms_minimize"] = minimizeMs / n;
    state.counters["psnr_db"] = psnr;
    state.counters["psnr_bicubic_db"] = bicubicPsnr;
    state.counters["threads"] = static_cast<double>(state.range(2));
    state.counters["negative_codes"] = warnings;
}

void sizesAndThreads(benchmark::internal::Benchmark* b)
{
    for (int threads : {1, 2})
        for (const auto& size : {std::make_pair(160, 120), std::make_pair(320, 240), std::make_pair(640, 512)})
            b->Args({size.first, size.second, threads});
    b->ArgNames({"w", "h", "threads"})->Unit(benchmark::kMillisecond);
}

BENCHMARK_TEMPLATE(BM_OutputFrame, Float)->Name("Float/OutputFrame")->Apply(sizesAndThreads)->UseRealTime();
BENCHMARK_TEMPLATE(BM_OutputFrame, Fixed)->Name("Fixed/OutputFrame")->Apply(sizesAndThreads)->UseRealTime();

} // namespace
} // namespace kro
} // namespace velmor
