// SrFloatRegistration1: registration of a 5-frame window (what the driver
// runs once per output frame) at sensor sizes and thread counts, timed
// against one SrFloatFft2d backward transform of the same size in the same
// loop (the registration runs 9 of them for 5 frames), so that the ratio does
// not drift with the machine's load.
//
// Counters:
//   ms_window      milliseconds of one doRegistration of 5 frames
//   ms_per_frame   that time per registered (non-reference) frame
//   ratio_backward that time / one backward transform
//   Mpix_per_s     registered megapixels per second
// BM_Registration1Prepare: prepareFrame (one forward transform) per frame.
#include <benchmark/benchmark.h>


#include <chrono>
#include <cmath>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "SrFloatFft2d.h"
#include "SrFloatRegistration1.h"

namespace {

using velmor::kro::PointF;
using velmor::kro::SrFloatFft2d;
using velmor::kro::SrFloatRegistration1;
using Clock = std::chrono::steady_clock;

constexpr int kWindow = 5;

double secondsOf(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// A smooth random scene in thermal counts, moved by sub-pixel shifts.
std::vector<cv::Mat_<float>> makeWindow(int width, int height)
{
    cv::Mat_<float> scene(height + 32, width + 32);
    cv::RNG rng(7);
    rng.fill(scene, cv::RNG::UNIFORM, 3000.0, 4000.0);
    cv::GaussianBlur(scene, scene, cv::Size(0, 0), 2.0);
    const PointF shifts[kWindow] = {{0.0f, 0.0f}, {0.4f, -0.3f}, {-1.3f, 0.8f}, {2.2f, 1.6f}, {-0.7f, -2.4f}};
    std::vector<cv::Mat_<float>> frames;
    for (const PointF& s : shifts) {
        const cv::Mat transform = (cv::Mat_<double>(2, 3) << 1, 0, s.x - 16, 0, 1, s.y - 16);
        cv::Mat_<float> frame;
        cv::warpAffine(scene, frame, transform, cv::Size(width, height), cv::INTER_CUBIC, cv::BORDER_REFLECT_101);
        frames.push_back(frame);
    }
    return frames;
}

// Arguments: width, height, threads.
void BM_Registration1Window(benchmark::State& state)
{
    const int width = int(state.range(0));
    const int height = int(state.range(1));
    std::vector<cv::Mat_<float>> frames = makeWindow(width, height);
    SrFloatRegistration1 registration(width, height, kWindow);
    registration.setThreads(int(state.range(2)));
    std::vector<cv::Mat_<float>> work(kWindow, cv::Mat_<float>(height, width));
    std::vector<std::vector<char>> masks(kWindow, std::vector<char>(std::size_t(width) * height));
    std::vector<float*> framePtrs, workPtrs;
    std::vector<char*> maskPtrs;
    for (int i = 0; i < kWindow; ++i) {
        work[i] = cv::Mat_<float>(height, width);
        registration.prepareFrame(frames[i].ptr<float>());
        framePtrs.push_back(frames[i].ptr<float>());
        workPtrs.push_back(work[i].ptr<float>());
        maskPtrs.push_back(masks[i].data());
    }
    std::vector<PointF> shifts(kWindow);

    SrFloatFft2d fft(width, height);
    fft.setThreads(int(state.range(2)));
    cv::Mat spectrum(height, width / 2 + 1, CV_32FC2);
    cv::Mat_<float> image = frames[0].clone();
    auto* spectrumData = reinterpret_cast<float(*)[2]>(spectrum.ptr<float>());
    fft.forward(image.ptr<float>(), spectrumData);

    double ours = 0.0, backward = 0.0;
    for (auto _ : state) {
        auto start = Clock::now();
        registration.doRegistration(kWindow, 0, framePtrs.data(), shifts.data(), maskPtrs.data(), workPtrs.data());
        const double seconds = secondsOf(start);
        ours += seconds;
        state.SetIterationTime(seconds);

        start = Clock::now();
        fft.backward(spectrumData, image.ptr<float>());
        backward += secondsOf(start);
        benchmark::DoNotOptimize(workPtrs.data());
    }

    const double n = double(state.iterations());
    state.counters["ms_window"] = 1e3 * ours / n;
    state.counters["ms_per_frame"] = 1e3 * ours / n / (kWindow - 1);
    state.counters["ratio_backward"] = ours / backward;
    state.counters["Mpix_per_s"] = benchmark::Counter(double(width) * height * (kWindow - 1) * n / ours / 1e6);
}

BENCHMARK(BM_Registration1Window)
    ->ArgNames({"w", "h", "threads"})
    ->Args({160, 120, 1})
    ->Args({160, 120, 2})
    ->Args({320, 240, 1})
    ->Args({320, 240, 2})
    ->Args({640, 512, 1})
    ->Args({640, 512, 2})
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

void BM_Registration1Prepare(benchmark::State& state)
{
    const int width = int(state.range(0));
    const int height = int(state.range(1));
    std::vector<cv::Mat_<float>> frames = makeWindow(width, height);
    SrFloatRegistration1 registration(width, height, kWindow);
    registration.setThreads(int(state.range(2)));
    int next = 0;
    for (auto _ : state) {
        registration.prepareFrame(frames[std::size_t(next)].ptr<float>());
        next = (next + 1) % kWindow;
    }
}
BENCHMARK(BM_Registration1Prepare)
    ->ArgNames({"w", "h", "threads"})
    ->Args({160, 120, 1})
    ->Args({640, 512, 1})
    ->Args({640, 512, 2})
    ->Unit(benchmark::kMicrosecond);

} // namespace
