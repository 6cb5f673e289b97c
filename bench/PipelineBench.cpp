// The enhancer pipeline (OmbrixImageEnhancer) on 640x512 video: frames per
// second of the whole pipeline with 1 and 2 threads (the target is 60 frames
// per second on two cores), and each stage's share of a frame: every model's
// ProcessFrame timed on its own, on the pipeline's buffers, in the same run
// as the whole frame.
#include <benchmark/benchmark.h>

#include <chrono>
#include <memory>
#include <random>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "Histogram.h"
#include "OmbrixImageEnhancer.h"
#include "Peaking.h"
#include "SnrCmod.h"
#include "SprCmod.h"
#include "TnrCmod.h"

namespace {

constexpr int kWidth = 640;
constexpr int kHeight = 512;
constexpr int kFrames = 8;
constexpr double kPixels = static_cast<double>(kWidth) * kHeight;

// A slowly drifting thermal-looking scene in the counts of a 14-bit camera
// (about 1000 to 4000), with a column pattern and noise.
const std::vector<cv::Mat_<short>>& videoFrames()
{
    static const std::vector<cv::Mat_<short>> frames = [] {
        std::mt19937 rng(11);
        std::normal_distribution<float> noise(0.0f, 6.0f);
        cv::Mat_<float> scene(kHeight + kFrames, kWidth + kFrames);
        cv::randu(scene, 0.0f, 1.0f);
        cv::GaussianBlur(scene, scene, cv::Size(0, 0), 6.0);
        cv::normalize(scene, scene, 1000.0, 4000.0, cv::NORM_MINMAX);
        std::vector<float> columnOffset(kWidth);
        for (float& v : columnOffset)
            v = noise(rng) * 2.0f;
        std::vector<cv::Mat_<short>> out;
        for (int f = 0; f < kFrames; ++f) {
            cv::Mat_<short> frame(kHeight, kWidth);
            for (int r = 0; r < kHeight; ++r)
                for (int c = 0; c < kWidth; ++c)
                    frame(r, c) = cv::saturate_cast<short>(scene(r + f, c + f) + columnOffset[c] + noise(rng));
            out.push_back(frame);
        }
        return out;
    }();
    return frames;
}

// An enhancer past its first frame, so that every model runs its steady
// state.
std::unique_ptr<velmor::kro::OmbrixImageEnhancer> warmEnhancer(int threads)
{
    auto enhancer = std::make_unique<velmor::kro::OmbrixImageEnhancer>(kWidth, kHeight);
    enhancer->setThreads(threads);
    cv::Mat_<short> in = videoFrames()[0].clone(), out;
    enhancer->processFrame(in, out);
    return enhancer;
}

void BM_Pipeline(benchmark::State& state)
{
    const auto owner = warmEnhancer(static_cast<int>(state.range(0)));
    velmor::kro::OmbrixImageEnhancer& enhancer = *owner;
    std::vector<cv::Mat_<short>> frames;
    for (const auto& f : videoFrames())
        frames.push_back(f.clone());
    cv::Mat_<short> out;
    std::size_t i = 0;
    for (auto _ : state) {
        enhancer.processFrame(frames[i++ % frames.size()], out);
        benchmark::DoNotOptimize(out.data);
    }
    state.counters["frames/s"] = benchmark::Counter(static_cast<double>(state.iterations()),
                                                    benchmark::Counter::kIsRate);
    state.counters["MP/s"] = benchmark::Counter(kPixels * state.iterations() / 1e6, benchmark::Counter::kIsRate);
    state.counters["threads"] = static_cast<double>(state.range(0));
}
BENCHMARK(BM_Pipeline)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

// Each iteration: one whole frame through processFrame, then every model
// again on the buffers that frame left, timed one by one. Counters: the
// milliseconds of each stage per frame and its share (percent) of the whole
// frame; "conversions %" is what is left (the type conversions in and out).
void BM_PipelineStages(benchmark::State& state)
{
    using Clock = std::chrono::steady_clock;
    const auto owner = warmEnhancer(static_cast<int>(state.range(0)));
    velmor::kro::OmbrixImageEnhancer& enhancer = *owner;
    std::vector<cv::Mat_<short>> frames;
    for (const auto& f : videoFrames())
        frames.push_back(f.clone());
    int* input = enhancer.getInputArray()->data;
    int* tnrOut = enhancer.getTNRArray()->data;
    int* sprOut = enhancer.getSPRArray()->data;
    int* snrOut = enhancer.getSNRArray()->data;
    int* histOut = enhancer.getHistoArray()->data;
    int* peakOut = enhancer.getPeakArray()->data;
    int* bins = enhancer.getHistoBinArray()->data;
    Histogram& histogram = *enhancer.getHistogramObject();
    enum { kWhole, kTnr, kSpr, kSnr, kMeasure, kMap, kPeaking, kUpdate, kCount };
    const char* const names[kCount] = {"frame",       "tnr",      "spr",        "snr",
                                       "hist measure", "hist map", "peaking", "hist update"};
    double seconds[kCount] = {};
    cv::Mat_<short> out;
    std::size_t i = 0;
    for (auto _ : state) {
        Clock::time_point t = Clock::now();
        const auto lap = [&](int stage) {
            const Clock::time_point now = Clock::now();
            seconds[stage] += std::chrono::duration<double>(now - t).count();
            t = now;
        };
        enhancer.processFrame(frames[i++ % frames.size()], out);
        lap(kWhole);
        enhancer.getTNRModule()->ProcessFrame(input, tnrOut);
        lap(kTnr);
        enhancer.getSPRModule()->ProcessFrame(tnrOut, sprOut);
        lap(kSpr);
        enhancer.getSNRModule()->ProcessFrame(sprOut, snrOut);
        lap(kSnr);
        histogram.MeasureFrame(1, snrOut, bins);
        lap(kMeasure);
        histogram.ProcessFrame(1, snrOut, histOut);
        lap(kMap);
        enhancer.getPeakingDSPMod()->ProcessFrame(histOut, peakOut, histogram.GetLocalGains());
        lap(kPeaking);
        histogram.Update(1);
        lap(kUpdate);
        benchmark::DoNotOptimize(peakOut);
    }
    double stages = 0.0;
    for (int s = kTnr; s < kCount; ++s) {
        stages += seconds[s];
        state.counters[std::string(names[s]) + " ms"] = 1e3 * seconds[s] / state.iterations();
        state.counters[std::string(names[s]) + " %"] = 100.0 * seconds[s] / seconds[kWhole];
    }
    state.counters["frame ms"] = 1e3 * seconds[kWhole] / state.iterations();
    state.counters["conversions %"] = 100.0 * (seconds[kWhole] - stages) / seconds[kWhole];
    state.counters["threads"] = static_cast<double>(state.range(0));
}
BENCHMARK(BM_PipelineStages)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace
