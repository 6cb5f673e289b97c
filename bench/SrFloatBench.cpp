// Cost of one output frame of the float super-resolution engine in steady
// state: the window slides by one frame per output (addFrame + computeSR, as
// the C interface does from its fifth image on), with the C interface's
// settings (window 5, reference index 3, TV weight 400, registration error
// 0.0001, relative residue 0.007), both registrations, the usual sensor sizes
// on 1 and 2 threads.
//
// Besides the time per output, the counters split it: "ms_add_frame" (the
// newest frame's bad-pixel check and preparation for the registration),
// "ms_registration" and "ms_minimize" (the engine's own measurements of the
// two steps of computeSR); the rest is the engine's checks, bad-pixel refill
// and copies.
//
// Frames: a burst from the project's generator (procedural thermal-like
// scene, sensor blur, x2 decimation, noise of 8 counts, 14-bit counts) with
// shifts of up to one low-resolution pixel; the benchmark cycles through 16
// frames, so every window holds a fresh mix of shifts.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <vector>


#include "BurstGenerator.h"
#include "SrFloat.h"
#include "SrFloatRegistration1.h"
#include "SrFloatRegistration2.h"

namespace velmor {
namespace kro {
namespace {

constexpr int kWindow = 5;
constexpr int kReferenceIndex = 3;  // counted back from the newest: position 1 of 5
constexpr int kBurstFrames = 16;
using Clock = std::chrono::steady_clock;


const std::vector<cv::Mat_<float>>& burstFrames(int width, int height)
{
    static std::vector<std::pair<cv::Size, std::vector<cv::Mat_<float>>>> cache;
    for (const auto& entry : cache)
        if (entry.first == cv::Size(width, height))
            return entry.second;
    krotools::BurstSettings settings;
    settings.frames = kBurstFrames;
    settings.seed = 11;
    const krotools::Burst burst = generateBurst(krotools::proceduralScene(2 * height, 2 * width, 11), settings);
    cache.emplace_back(cv::Size(width, height), burst.frames);
    return cache.back().second;
}

template <typename Registration>
void applyCInterfaceSettings(SrFloat<Registration>& engine)
{
    engine.setReferenceIndex(kReferenceIndex);
    engine.setWeightTV(400.0f);
    engine.setRegError(0.0001f);
    engine.setRelativeResidue(0.007f);
}

template <typename Registration>
void BM_ComputeSR(benchmark::State& state)
{
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    const std::vector<cv::Mat_<float>>& frames = burstFrames(width, height);
    SrFloat<Registration> engine(width, height, kWindow, 2.0f);
    engine.setThreads(static_cast<int>(state.range(2)));
    applyCInterfaceSettings(engine);
    std::vector<float> out(static_cast<std::size_t>(engine.getOutputSize()));
    int next = 0;
    for (; next < kWindow; ++next)
        engine.addFrame(frames[next]);
    engine.computeSR(out.data());  // first call: touches every buffer once

    int failures = 0;
    double addFrameMs = 0.0, registrationMs = 0.0, minimizeMs = 0.0;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        engine.addFrame(frames[next++ % kBurstFrames]);
        addFrameMs += std::chrono::duration<double, std::milli>(Clock::now() - start).count();
        const float quality = engine.computeSR(out.data());
        if (quality < 0.0f)
            ++failures;
        registrationMs += engine.getLastRegistrationMilliseconds();
        minimizeMs += engine.getLastMinimizationMilliseconds();
        benchmark::DoNotOptimize(out.data());
    }
    const double n = static_cast<double>(std::max<benchmark::IterationCount>(1, state.iterations()));
    state.counters["ms_add_frame"] = addFrameMs / n;
    state.counters["ms_registration"] = registrationMs / n;
    state.counters["ms_minimize"] = minimizeMs / n;
    state.counters["threads"] = static_cast<double>(state.range(2));
    state.counters["fps"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["Mpix/s"] = benchmark::Counter(static_cast<double>(state.iterations()) * width * height / 1e6,
                                                  benchmark::Counter::kIsRate);
    // Outputs whose code was negative (-3/-6: a frame poorly covered or too
    // far off); the minimiser ran all the same.
    state.counters["negative_codes"] = failures;
}

void sizesAndThreads(benchmark::internal::Benchmark* b)
{
    for (int threads : {1, 2})
        for (const auto& size : {std::make_pair(160, 120), std::make_pair(320, 240), std::make_pair(640, 512)})
            b->Args({size.first, size.second, threads});
    b->ArgNames({"w", "h", "threads"})->Unit(benchmark::kMillisecond);
}

BENCHMARK_TEMPLATE(BM_ComputeSR, SrFloatRegistration2)->Apply(sizesAndThreads)->UseRealTime();
BENCHMARK_TEMPLATE(BM_ComputeSR, SrFloatRegistration1)->Apply(sizesAndThreads)->UseRealTime();

} // namespace
} // namespace kro
} // namespace velmor
