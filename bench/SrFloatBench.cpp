// Cost of one output frame of the float super-resolution engine in steady
// state: the window slides by one frame per output (addFrame + computeSR, as
// the C interface does from its fifth image on), with the C interface's
// settings (window 5, reference index 3, TV weight 400, registration error
// 0.0001, relative residue 0.007), both registrations, the usual sensor sizes
// on 1 and 2 threads.
//
// BM_ComputeSR times the engine itself. BM_ComputeSRParts drives the same
// parts the engine is made of (registration, minimiser) on the same frames
// and times them apart: "ms_prepare" (the newest frame's preparation in
// addFrame), "ms_registration" (doRegistration of the five frames) and
// "ms_minimize" (the solve). What the engine adds around them (bad-pixel
// search and refill, checks, copies) is the difference to BM_ComputeSR.
//
// Frames: a burst from the project's generator (procedural thermal-like
// scene, sensor blur, x2 decimation, noise of 8 counts, 14-bit counts) with
// shifts of up to one low-resolution pixel; the benchmark cycles through 16
// frames, so every window holds a fresh mix of shifts.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <vector>

#include <omp.h>

#include "BurstGenerator.h"
#include "SrFloat.h"
#include "SrFloatMinimization.h"
#include "SrFloatRegistration1.h"
#include "SrFloatRegistration2.h"

namespace velmor {
namespace kro {
namespace {

constexpr int kWindow = 5;
constexpr int kReferenceIndex = 3;  // counted back from the newest: position 1 of 5
constexpr int kBurstFrames = 16;

class ThreadCount {
public:
    explicit ThreadCount(int n) : saved_(omp_get_max_threads()) { omp_set_num_threads(n); }
    ~ThreadCount() { omp_set_num_threads(saved_); }

private:
    int saved_;
};

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
    ThreadCount threads(static_cast<int>(state.range(2)));
    const std::vector<cv::Mat_<float>>& frames = burstFrames(width, height);
    SrFloat<Registration> engine(width, height, kWindow, 2.0f);
    applyCInterfaceSettings(engine);
    std::vector<float> out(static_cast<std::size_t>(engine.getOutputSize()));
    int next = 0;
    for (; next < kWindow; ++next)
        engine.addFrame(frames[next]);
    engine.computeSR(out.data());  // first call: touches every buffer once

    int failures = 0;
    for (auto _ : state) {
        engine.addFrame(frames[next++ % kBurstFrames]);
        const float quality = engine.computeSR(out.data());
        if (quality < 0.0f)
            ++failures;
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["threads"] = static_cast<double>(state.range(2));
    state.counters["fps"] = benchmark::Counter(static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["Mpix/s"] = benchmark::Counter(static_cast<double>(state.iterations()) * width * height / 1e6,
                                                  benchmark::Counter::kIsRate);
    // Outputs whose code was negative (-3/-6: a frame poorly covered or too
    // far off); the minimiser ran all the same.
    state.counters["negative_codes"] = failures;
}

// The engine's parts on their own, in the engine's order and with its frame
// ring: the newest frame goes last, the oldest is dropped, the reference is
// position 1.
template <typename Registration>
void BM_ComputeSRParts(benchmark::State& state)
{
    using Clock = std::chrono::steady_clock;
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    ThreadCount threads(static_cast<int>(state.range(2)));
    const std::vector<cv::Mat_<float>>& source = burstFrames(width, height);
    const std::size_t size = static_cast<std::size_t>(width) * height;

    Registration registration(width, height, kWindow);
    registration.setRegError(0.0001f);
    SrFloatMinimization minimization(width, height, kWindow, 2.0f);
    minimization.setWeightTV(400.0f);
    minimization.setRelRes(0.007f);
    std::vector<std::vector<float>> frames(kWindow, std::vector<float>(size));
    std::vector<std::vector<float>> work(kWindow, std::vector<float>(size));
    std::vector<std::vector<char>> masks(kWindow, std::vector<char>(size));
    std::vector<float> result(static_cast<std::size_t>(4) * size);
    std::vector<PointF> shifts(kWindow);
    std::vector<float*> framePtrs(kWindow), workPtrs(kWindow);
    std::vector<char*> maskPtrs(kWindow);
    const int refPos = kWindow - kReferenceIndex - 1;

    int next = 0;
    for (; next < kWindow; ++next) {
        std::memcpy(frames[next].data(), source[next].ptr<float>(), size * sizeof(float));
        registration.prepareFrame(frames[next].data());
    }
    double prepareMs = 0.0, registrationMs = 0.0, minimizeMs = 0.0;
    long long cgSteps = 0;
    bool first = true;
    for (auto _ : state) {
        const Clock::time_point t0 = Clock::now();
        if (!first) {
            std::rotate(frames.begin(), frames.begin() + 1, frames.end());
            std::memcpy(frames.back().data(), source[next++ % kBurstFrames].ptr<float>(), size * sizeof(float));
            registration.prepareFrame(frames.back().data());
        }
        const Clock::time_point t1 = Clock::now();
        for (int i = 0; i < kWindow; ++i) {
            framePtrs[i] = frames[i].data();
            workPtrs[i] = work[i].data();
            maskPtrs[i] = masks[i].data();
        }
        const int registered = registration.doRegistration(kWindow, refPos, framePtrs.data(), shifts.data(),
                                                           maskPtrs.data(), workPtrs.data());
        const Clock::time_point t2 = Clock::now();
        if (registered < 0) {
            state.SkipWithError("registration failed");
            break;
        }
        const int steps = minimization.minimize(kWindow, refPos, workPtrs.data(), shifts.data(), maskPtrs.data(),
                                                result.data());
        const Clock::time_point t3 = Clock::now();
        benchmark::DoNotOptimize(result.data());
        // The very first pass has nothing new to prepare; it is timed all the
        // same so that every iteration measures one output.
        first = false;
        cgSteps += steps;
        const auto ms = [](Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); };
        prepareMs += ms(t1 - t0);
        registrationMs += ms(t2 - t1);
        minimizeMs += ms(t3 - t2);
        state.SetIterationTime(std::chrono::duration<double>(t3 - t0).count());
    }
    const double n = static_cast<double>(std::max<benchmark::IterationCount>(1, state.iterations()));
    state.counters["threads"] = static_cast<double>(state.range(2));
    state.counters["ms_prepare"] = prepareMs / n;
    state.counters["ms_registration"] = registrationMs / n;
    state.counters["ms_minimize"] = minimizeMs / n;
    state.counters["cg_steps"] = static_cast<double>(cgSteps) / n;
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
BENCHMARK_TEMPLATE(BM_ComputeSRParts, SrFloatRegistration2)->Apply(sizesAndThreads)->UseManualTime();
BENCHMARK_TEMPLATE(BM_ComputeSRParts, SrFloatRegistration1)->Apply(sizesAndThreads)->UseManualTime();

} // namespace
} // namespace kro
} // namespace velmor
