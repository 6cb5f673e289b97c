// Cost of the corner registration of the float engine: one doRegistration of
// five frames (corner search, tracking, dense step, masks and cuts), one
// prepareFrame, and, as the ratio to compare against, the image library's
// corner search plus the four tracking calls alone on the same pyramids.
// Frames are a real 640x512 thermal still (scaled to the smaller sensor
// sizes) moved by sub-pixel shifts. Times are wall-clock milliseconds per
// call on 1 and 2 threads.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/video/tracking.hpp>

#include "SrFloatRegistration2.h"

namespace velmor {
namespace kro {
namespace {

constexpr int kFrames = 5;
constexpr int kReference = 1;


cv::Mat_<float> thermalStill()
{
    static const cv::Mat_<float> still = [] {
        const std::string path = std::string(KROLIB_SOURCE_DIR) + "/data/thermal/crosswalk_640x512_u16.png";
        cv::Mat raw = cv::imread(path, cv::IMREAD_UNCHANGED);
        if (raw.empty())
            throw std::runtime_error("cannot read " + path);
        cv::Mat_<float> f;
        raw.convertTo(f, CV_32F);
        return f;
    }();
    return still;
}

struct Burst {
    Burst(int width, int height)
    {
        cv::Mat_<float> scene;
        cv::resize(thermalStill(), scene, cv::Size(width, height), 0, 0, cv::INTER_AREA);
        const float shifts[kFrames][2] = {{0.3f, -0.4f}, {0.0f, 0.0f}, {2.0f, 1.0f}, {-1.6f, 2.25f}, {1.4f, -0.7f}};
        for (int i = 0; i < kFrames; ++i) {
            const cv::Mat t = (cv::Mat_<double>(2, 3) << 1, 0, shifts[i][0], 0, 1, shifts[i][1]);
            cv::Mat_<float> moved;
            cv::warpAffine(scene, moved, t, scene.size(), cv::INTER_CUBIC, cv::BORDER_REFLECT_101);
            frames.push_back(moved);
            masks.emplace_back(static_cast<std::size_t>(width) * height);
            work.emplace_back(static_cast<std::size_t>(width) * height);
        }
        for (int i = 0; i < kFrames; ++i) {
            framePtrs.push_back(frames[i].ptr<float>());
            maskPtrs.push_back(masks[i].data());
            workPtrs.push_back(work[i].data());
        }
        shifts_.resize(kFrames);
    }
    std::vector<cv::Mat_<float>> frames;
    std::vector<std::vector<char>> masks;
    std::vector<std::vector<float>> work;
    std::vector<float*> framePtrs;
    std::vector<char*> maskPtrs;
    std::vector<float*> workPtrs;
    std::vector<PointF> shifts_;
};

void setSizeCounters(benchmark::State& state, int width, int height)
{
    state.counters["threads"] = static_cast<double>(state.range(2));
    state.counters["Mpix/s"] = benchmark::Counter(static_cast<double>(width) * height * kFrames *
                                                      state.iterations() / 1e6,
                                                  benchmark::Counter::kIsRate);
}

void BM_DoRegistration(benchmark::State& state)
{
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    Burst burst(width, height);
    SrFloatRegistration2 reg(width, height, kFrames);
    reg.setThreads(static_cast<int>(state.range(2)));
    for (int i = 0; i < kFrames; ++i)
        reg.prepareFrame(burst.framePtrs[i]);
    for (auto _ : state) {
        const int rc = reg.doRegistration(kFrames, kReference, burst.framePtrs.data(),
                                          burst.shifts_.data(), burst.maskPtrs.data(),
                                          burst.workPtrs.data());
        if (rc != 0)
            state.SkipWithError("registration failed");
        benchmark::DoNotOptimize(burst.work[0].data());
    }
    setSizeCounters(state, width, height);
}

void BM_PrepareFrame(benchmark::State& state)
{
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    Burst burst(width, height);
    SrFloatRegistration2 reg(width, height, kFrames);
    reg.setThreads(static_cast<int>(state.range(2)));
    int i = 0;
    for (auto _ : state)
        reg.prepareFrame(burst.framePtrs[i++ % kFrames]);
    state.counters["threads"] = static_cast<double>(state.range(2));
}

// The image library's share: corner search on the blurred reference and four
// pyramid tracking calls, with the parameters the registration uses.
void BM_CornerSearchAndTrackingOnly(benchmark::State& state)
{
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    // (OpenCV's own threads only: the argument keeps the table's layout.)
    Burst burst(width, height);
    std::vector<cv::Mat_<float>> blurred(kFrames);
    std::vector<std::vector<cv::Mat>> pyramids(kFrames);
    for (int i = 0; i < kFrames; ++i) {
        const double sigma = std::sqrt(3.0);
        cv::GaussianBlur(burst.frames[i], blurred[i], cv::Size(11, 11), sigma, sigma);
        cv::Mat image8u;
        double lo = 0, hi = 0;
        cv::minMaxIdx(blurred[0], &lo, &hi);
        blurred[i].convertTo(image8u, CV_8U, 255.0 / (1.2 * (hi - lo)), -(lo - 0.1 * (hi - lo)) * 255.0 / (1.2 * (hi - lo)));
        cv::buildOpticalFlowPyramid(image8u, pyramids[i], cv::Size(21, 21), 3, true,
                                    cv::BORDER_REFLECT_101, cv::BORDER_CONSTANT, true);
    }
    std::vector<cv::Point2f> corners, next;
    std::vector<unsigned char> status;
    std::vector<float> err;
    for (auto _ : state) {
        cv::goodFeaturesToTrack(blurred[kReference], corners, 100, 0.1, 2.0, cv::noArray(), 3, false, 0.04);
        for (int i = 0; i < kFrames; ++i) {
            if (i == kReference)
                continue;
            cv::calcOpticalFlowPyrLK(pyramids[kReference], pyramids[i], corners, next, status, err,
                                     cv::Size(21, 21), 3,
                                     cv::TermCriteria(cv::TermCriteria::COUNT | cv::TermCriteria::EPS, 30, 0.01),
                                     0, 1e-4);
        }
        benchmark::DoNotOptimize(next.data());
    }
    setSizeCounters(state, width, height);
}

void sizes(benchmark::internal::Benchmark* b)
{
    for (int threads : {1, 2}) {
        b->Args({160, 120, threads});
        b->Args({320, 240, threads});
        b->Args({640, 512, threads});
    }
    b->ArgNames({"w", "h", "threads"})->UseRealTime()->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_DoRegistration)->Apply(sizes);
BENCHMARK(BM_CornerSearchAndTrackingOnly)->Apply(sizes);
BENCHMARK(BM_PrepareFrame)->Apply(sizes);

} // namespace
} // namespace kro
} // namespace velmor
