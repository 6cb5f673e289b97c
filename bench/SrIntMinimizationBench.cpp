// Cost of the fixed-point minimiser against the float one on the same frame
// sets: a whole minimize() of five frames with the default parameters, at
// the usual sensor sizes on 1 and 2 threads, and the reconstructions'
// PSNR against the scene the frames were made from. Times are wall-clock
// milliseconds per call; "Mpix/s" counts output pixels; "cg_steps" is what
// minimize() returned; "psnr_dB" is the output against the scene.
//
// Two-thread figures mean something only while no other process wants the
// second core; compare wall and CPU time.
#include <benchmark/benchmark.h>

#include <cmath>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "SrFloatConvolution.h"
#include "SrFloatMinimization.h"
#include "SrIntMinimization.h"
#include "cvext.h"
#include "detail/GaussianPsf.h"

namespace velmor {
namespace kro {
namespace {

constexpr int kFrames = 5;

// Five frames made with the model from a scene with edges and blobs, at
// known sub-pixel shifts, with a little sensor noise, rounded to integers
// (what both engines receive from their drivers); all samples used.
struct FrameSet {
    FrameSet(int width, int height)
        : shifts{{0.0f, 0.0f}, {0.5f, 0.0f}, {0.0f, 0.5f}, {0.5f, 0.5f}, {0.25f, -0.25f}}
    {
        cv::Mat_<float> scene(2 * height + 5, 2 * width + 5, 3000.0f);
        cv::RNG rng(7);
        const int shapes = scene.rows * scene.cols / 2000;
        for (int i = 0; i < shapes; ++i) {
            const cv::Point centre(rng.uniform(0, scene.cols), rng.uniform(0, scene.rows));
            const cv::Scalar value(rng.uniform(1000.0, 9000.0));
            if (i % 2)
                cv::circle(scene, centre, rng.uniform(2, 20), value, cv::FILLED);
            else
                cv::rectangle(scene, centre, centre + cv::Point(rng.uniform(2, 30), rng.uniform(2, 30)), value,
                              cv::FILLED);
        }
        cv::GaussianBlur(scene, scene, cv::Size(0, 0), 0.8);
        truth = scene(cv::Rect(2, 2, 2 * width, 2 * height)).clone();
        SrFloatConvolution conv(2 * width, 2 * height, 6, 6, 2.0f);
        float base[6];
        detail::buildBasePsf(0.683f, 2.0f, 6, base);
        for (const PointF& s : shifts) {
            float px[6], py[6];
            detail::shiftPsf(base, 6, 2.0f * s.x, px);
            detail::shiftPsf(base, 6, 2.0f * s.y, py);
            cv::Mat_<float> frame(height, width);
            conv.validCorrToSparse(scene.ptr<float>(), px, py, frame.ptr<float>());
            for (float& v : frame)
                v = std::round(v + static_cast<float>(rng.gaussian(20.0)));
            frames.push_back(frame);
            masks.emplace_back(height, width, static_cast<signed char>(1));
        }
    }
    double psnr(const cv::Mat_<float>& image) const
    {
        const cv::Rect inner(4, 4, truth.cols - 8, truth.rows - 8);
        const double mse = cv::norm(truth(inner), image(inner), cv::NORM_L2SQR) / inner.area();
        double low = 0.0, high = 0.0;
        cv::minMaxLoc(truth, &low, &high);
        return 10.0 * std::log10((high - low) * (high - low) / mse);
    }
    std::vector<PointF> shifts;
    cv::Mat_<float> truth;
    std::vector<cv::Mat_<float>> frames;
    std::vector<cv::Mat_<signed char>> masks;
};

// One frame set per size, shared by the benchmarks of that size.
const FrameSet& frameSet(int width, int height)
{
    static std::map<std::pair<int, int>, std::unique_ptr<FrameSet>> sets;
    auto& set = sets[{width, height}];
    if (!set)
        set = std::make_unique<FrameSet>(width, height);
    return *set;
}

void setCounters(benchmark::State& state, int width, int height, int steps, double psnr)
{
    state.counters["Mpix/s"] =
        benchmark::Counter(4.0 * width * height * state.iterations() / 1e6, benchmark::Counter::kIsRate);
    state.counters["cg_steps"] = steps;
    state.counters["psnr_dB"] = psnr;
}

void BM_IntMinimize(benchmark::State& state)
{
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    const FrameSet& set = frameSet(width, height);
    SrIntMinimization m(width, height, kFrames, 2);
    m.setThreads(static_cast<int>(state.range(2)));
    m.generatePsfs(kFrames, set.shifts.data());
    cv::Mat_<float> output(2 * height, 2 * width);
    int steps = 0;
    for (auto _ : state) {
        steps = m.minimize(kFrames, 0, set.frames, set.masks, output);
        benchmark::ClobberMemory();
    }
    setCounters(state, width, height, steps, set.psnr(output));
}

void BM_FloatMinimize(benchmark::State& state)
{
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    const FrameSet& set = frameSet(width, height);
    SrFloatMinimization m(width, height, kFrames, 2.0f);
    m.setThreads(static_cast<int>(state.range(2)));
    std::vector<cv::Mat_<float>> frames(kFrames);
    std::vector<float*> framePointers;
    std::vector<char*> masks;
    for (int i = 0; i < kFrames; ++i) {
        frames[i] = set.frames[i].clone();
        framePointers.push_back(frames[i].ptr<float>());
        masks.push_back(reinterpret_cast<char*>(const_cast<signed char*>(set.masks[i].ptr<signed char>())));
    }
    std::vector<PointF> shifts = set.shifts;
    cv::Mat_<float> output(2 * height, 2 * width);
    int steps = 0;
    for (auto _ : state) {
        // minimize() normalises the frames in place.
        state.PauseTiming();
        for (int i = 0; i < kFrames; ++i)
            set.frames[i].copyTo(frames[i]);
        state.ResumeTiming();
        steps = m.minimize(kFrames, 0, framePointers.data(), shifts.data(), masks.data(), output.ptr<float>());
        benchmark::ClobberMemory();
    }
    setCounters(state, width, height, steps, set.psnr(output));
}

// The share of the fixed-point minimise spent converting its five float
// frames to 16 bits.
void BM_ConvertFrames(benchmark::State& state)
{
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    const FrameSet& set = frameSet(width, height);
    for (auto _ : state) {
        for (int i = 0; i < kFrames; ++i)
            benchmark::DoNotOptimize(convertMatFloatToMatInt(set.frames[i], -32768.0f, 32767.0f, 1.0f, 0.0f, false));
    }
}

void sizesAndThreads(benchmark::internal::Benchmark* b)
{
    for (int threads : {1, 2})
        for (auto size : {std::make_pair(160, 120), std::make_pair(640, 512)})
            b->Args({size.first, size.second, threads});
    b->ArgNames({"w", "h", "threads"});
    b->Unit(benchmark::kMillisecond);
    b->UseRealTime();
}

BENCHMARK(BM_FloatMinimize)->Apply(sizesAndThreads);
BENCHMARK(BM_IntMinimize)->Apply(sizesAndThreads);
BENCHMARK(BM_ConvertFrames)->Args({640, 512, 1})->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
} // namespace kro
} // namespace velmor
