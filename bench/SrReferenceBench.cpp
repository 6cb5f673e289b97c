// Cost of one output frame of the reference engine beside the float engine
// with the same method (SrFloat<SrFloatRegistration1>), both in steady state
// (the window slides by one frame per output), measured in the same run and
// interleaved frame by frame, so that the ratio is not spoilt by a machine
// that gets slower or faster during the run.
//
// The reference engine takes raw 16-bit frames through processFrame2
// (conversion to radiance by a per-pixel two-point calibration, addFrame,
// computeSR); the float engine gets the same radiances as floats. Window 5,
// reference index 3, the engines' default solver settings.
//
// The benchmark's time is the reference engine's per output frame;
// counters: "ms_float" (the float engine's time for the same frame),
// "ratio" (reference / float), "ms_registration" and "ms_minimize" (the
// reference engine's own measurements of the two steps).
//
// Frames: a burst from the project's generator (procedural thermal-like
// scene, sensor blur, x2 decimation, noise, 14-bit counts) with shifts of up
// to one low-resolution pixel; the benchmark cycles through 16 frames.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "BurstGenerator.h"
#include "SrFloat.h"
#include "SrFloatRegistration1.h"
#include "SuperResolution.h"

namespace velmor {
namespace kro {
namespace {

constexpr int kWindow = 5;
constexpr int kReferenceIndex = 3;
constexpr int kBurstFrames = 16;
using Clock = std::chrono::steady_clock;

struct Frames {
    std::vector<cv::Mat_<short>> raw;
    std::vector<cv::Mat_<float>> radiance;
    cv::Mat_<short> rawLow, rawHigh;
    cv::Mat_<float> radianceLow, radianceHigh;
};

// The burst as raw counts, a calibration with a gain that falls by 8 %
// towards the corners, and the radiances the engine computes from them.
Frames makeFrames(int width, int height)
{
    krotools::BurstSettings settings;
    settings.frames = kBurstFrames;
    settings.seed = 11;
    const krotools::Burst burst = generateBurst(krotools::proceduralScene(2 * height, 2 * width, 11), settings);
    Frames f;
    f.rawLow.create(height, width);
    f.rawHigh.create(height, width);
    f.radianceLow.create(height, width);
    f.radianceHigh.create(height, width);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const double dx = (x - width / 2.0) / width, dy = (y - height / 2.0) / height;
            f.rawLow(y, x) = 2000;
            f.rawHigh(y, x) = 6000;
            f.radianceLow(y, x) = 26.0f;
            f.radianceHigh(y, x) = static_cast<float>(26.0 + 16.0 * (1.0 - 0.08 * (dx * dx + dy * dy)));
        }
    SuperResolution calibrated(width, height, 1, 2.0f);
    calibrated.setNucToRad(f.rawLow, f.radianceLow, f.rawHigh, f.radianceHigh);
    cv::Mat_<float> gain, offset;
    calibrated.getNucToRad(gain, offset);
    for (const cv::Mat_<float>& frame : burst.frames) {
        cv::Mat_<short> raw;
        frame.convertTo(raw, CV_16S);
        f.raw.push_back(raw);
        cv::Mat_<float> radiance(height, width);
        for (int y = 0; y < height; ++y)
            for (int x = 0; x < width; ++x)
                radiance(y, x) = static_cast<float>(raw(y, x)) * gain(y, x) + offset(y, x);
        f.radiance.push_back(radiance);
    }
    return f;
}

const Frames& framesOf(int width, int height)
{
    static std::vector<std::pair<cv::Size, Frames>> cache;
    for (const auto& entry : cache)
        if (entry.first == cv::Size(width, height))
            return entry.second;
    cache.emplace_back(cv::Size(width, height), makeFrames(width, height));
    return cache.back().second;
}

double millisecondsSince(Clock::time_point start)
{
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

void BM_ReferenceBesideFloat(benchmark::State& state)
{
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    const int threads = static_cast<int>(state.range(2));
    const Frames& frames = framesOf(width, height);

    SuperResolution reference(width, height, kWindow, 2.0f);
    reference.setThreads(threads);
    reference.setReferenceIndex(kReferenceIndex);
    reference.setNucToRad(frames.rawLow, frames.radianceLow, frames.rawHigh, frames.radianceHigh);
    SrFloat<SrFloatRegistration1> plain(width, height, kWindow, 2.0f);
    plain.setThreads(threads);
    plain.setReferenceIndex(kReferenceIndex);

    std::vector<float> referenceOut(static_cast<std::size_t>(reference.getOutputSize()));
    std::vector<float> plainOut(static_cast<std::size_t>(plain.getOutputSize()));
    int next = 0;
    for (; next < kWindow; ++next) {
        reference.processFrame2(frames.raw[next].ptr<short>(), referenceOut.data());
        plain.addFrame(frames.radiance[next]);
    }
    plain.computeSR(plainOut.data());  // first call: touches every buffer once

    double floatMs = 0.0, referenceMs = 0.0, registrationMs = 0.0, minimizeMs = 0.0;
    for (auto _ : state) {
        const int k = next++ % kBurstFrames;
        Clock::time_point start = Clock::now();
        reference.processFrame2(frames.raw[k].ptr<short>(), referenceOut.data());
        const double ms = millisecondsSince(start);
        state.SetIterationTime(ms / 1000.0);
        referenceMs += ms;
        registrationMs += reference.getLastRegistrationMilliseconds();
        minimizeMs += reference.getLastMinimizationMilliseconds();

        start = Clock::now();
        plain.addFrame(frames.radiance[k]);
        plain.computeSR(plainOut.data());
        floatMs += millisecondsSince(start);
        benchmark::DoNotOptimize(referenceOut.data());
        benchmark::DoNotOptimize(plainOut.data());
    }
    const double n = static_cast<double>(std::max<benchmark::IterationCount>(1, state.iterations()));
    state.counters["ms_float"] = floatMs / n;
    state.counters["ratio"] = referenceMs / std::max(floatMs, 1e-9);
    state.counters["ms_registration"] = registrationMs / n;
    state.counters["ms_minimize"] = minimizeMs / n;
    state.counters["threads"] = threads;
}

void sizesAndThreads(benchmark::internal::Benchmark* b)
{
    for (int threads : {1, 2})
        for (const auto& size : {std::make_pair(160, 120), std::make_pair(640, 512)})
            b->Args({size.first, size.second, threads});
    b->ArgNames({"w", "h", "threads"})->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_ReferenceBesideFloat)->Apply(sizesAndThreads)->UseManualTime();

} // namespace
} // namespace kro
} // namespace velmor
