// Cost of the float engine's solve: the sparse PSF model and its transpose,
// one application of the minimiser's operator and a whole minimize() of five
// frames with the default parameters, at the usual sensor sizes on 1 and 2
// threads. Times are wall-clock milliseconds per call; "Mpix/s" counts
// output (fine-grid) pixels; "cg_steps" is what minimize() returned.
//
// Two-thread figures mean something only while no other process wants the
// second core: then every barrier of the solve waits for a scheduler slice
// (milliseconds). Compare wall and CPU time: on a quiet machine they agree.
#include <benchmark/benchmark.h>

#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "SrFloatConvolution.h"
#include "SrFloatMinimization.h"
#include "detail/Parallel.h"

namespace velmor {
namespace kro {

// Reaches the minimiser's private steps (the operator and the PSFs).
class SrFloatMinimizationPeer {
public:
    explicit SrFloatMinimizationPeer(SrFloatMinimization& m) : m_(m) {}
    void generatePsfs(std::vector<PointF>& shifts)
    {
        m_.generatePsfs(static_cast<int>(shifts.size()), shifts.data());
    }
    std::vector<float> psfX(int i) const { return m_.psfX[i]; }
    std::vector<float> psfY(int i) const { return m_.psfY[i]; }
    std::vector<float>& U() { return m_.U; }
    void computeL()
    {
        parallel::parallelRegion(1, [&](const parallel::Team& team) { m_.computeL(team); });
    }
    void gradient(float* x, std::vector<char*>& masks, float* out)
    {
        m_.gradient(x, static_cast<int>(masks.size()), masks.data(), out);
    }

private:
    SrFloatMinimization& m_;
};

namespace {

constexpr int kFrames = 5;


// Five frames made with the model itself from a scene with edges and blobs,
// sub-pixel shifts and a little sensor noise (which keeps the CG from
// converging in one or two steps, as on real frames); all samples used.
struct FrameSet {
    FrameSet(int width, int height) : shifts{{0.0f, 0.0f}, {0.5f, 0.0f}, {0.0f, 0.5f},
                                             {0.5f, 0.5f}, {0.25f, -0.25f}}
    {
        SrFloatMinimization model(width, height, kFrames, 2.0f);
        SrFloatMinimizationPeer peer(model);
        peer.generatePsfs(shifts);
        const int full = model.getPsfSize() - 1;
        cv::Mat_<float> scene(2 * height + full, 2 * width + full, 300.0f);
        cv::RNG rng(7);
        const int shapes = scene.rows * scene.cols / 2000;
        for (int i = 0; i < shapes; ++i) {
            const cv::Point centre(rng.uniform(0, scene.cols), rng.uniform(0, scene.rows));
            const cv::Scalar value(rng.uniform(100.0, 900.0));
            if (i % 2)
                cv::circle(scene, centre, rng.uniform(2, 20), value, cv::FILLED);
            else
                cv::rectangle(scene, centre, centre + cv::Point(rng.uniform(2, 30), rng.uniform(2, 30)),
                              value, cv::FILLED);
        }
        cv::GaussianBlur(scene, scene, cv::Size(0, 0), 0.8);
        SrFloatConvolution conv(2 * width, 2 * height, model.getPsfSize(), model.getPsfSize(),
                                2.0f);
        for (int i = 0; i < kFrames; ++i) {
            std::vector<float> px = peer.psfX(i), py = peer.psfY(i);
            frames.emplace_back(static_cast<size_t>(width) * height);
            conv.validCorrToSparse(scene.ptr<float>(), px.data(), py.data(), frames.back().data());
            for (float& v : frames.back())
                v += static_cast<float>(rng.gaussian(2.0));
            masks.emplace_back(static_cast<size_t>(width) * height, 1);
        }
    }
    std::vector<PointF> shifts;
    std::vector<std::vector<float>> frames;
    std::vector<std::vector<char>> masks;
};

void setCounters(benchmark::State& state, int width, int height)
{
    state.counters["Mpix/s"] = benchmark::Counter(4.0 * width * height * state.iterations() / 1e6,
                                                  benchmark::Counter::kIsRate);
}

void BM_FullConvFromSparse(benchmark::State& state)
{
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    SrFloatConvolution conv(2 * width, 2 * height, 6, 6, 2.0f);
    conv.setThreads(static_cast<int>(state.range(2)));
    std::vector<float> sparse(static_cast<size_t>(width) * height, 1.5f);
    std::vector<char> mask(sparse.size(), 1);
    std::vector<float> psf = {0.0f, 0.1f, 0.4f, 0.4f, 0.1f, 0.0f};
    std::vector<float> full(static_cast<size_t>(conv.getFullWidth()) * conv.getFullHeight());
    for (auto _ : state) {
        conv.fullConvFromSparse(sparse.data(), psf.data(), psf.data(), mask.data(), full.data());
        benchmark::ClobberMemory();
    }
    setCounters(state, width, height);
}

void BM_ValidCorrToSparse(benchmark::State& state)
{
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    SrFloatConvolution conv(2 * width, 2 * height, 6, 6, 2.0f);
    conv.setThreads(static_cast<int>(state.range(2)));
    std::vector<float> full(static_cast<size_t>(conv.getFullWidth()) * conv.getFullHeight(), 2.0f);
    std::vector<float> psf = {0.0f, 0.1f, 0.4f, 0.4f, 0.1f, 0.0f};
    std::vector<float> sparse(static_cast<size_t>(width) * height);
    for (auto _ : state) {
        conv.validCorrToSparse(full.data(), psf.data(), psf.data(), sparse.data());
        benchmark::ClobberMemory();
    }
    setCounters(state, width, height);
}

// One application of (sum_i A_i^T M_i A_i + L) for five frames (called on
// its own it opens its own parallel region; inside minimize() the steps
// share the solve's region).
void BM_Operator(benchmark::State& state)
{
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    FrameSet set(width, height);
    SrFloatMinimization m(width, height, kFrames, 2.0f);
    m.setThreads(static_cast<int>(state.range(2)));
    SrFloatMinimizationPeer peer(m);
    peer.generatePsfs(set.shifts);
    cv::RNG rng(3);
    for (float& u : peer.U())
        u = static_cast<float>(rng.uniform(-1.0, 1.0));
    peer.computeL();
    std::vector<char*> masks;
    for (auto& mask : set.masks)
        masks.push_back(mask.data());
    std::vector<float> x(peer.U()), out(x.size());
    for (auto _ : state) {
        peer.gradient(x.data(), masks, out.data());
        benchmark::ClobberMemory();
    }
    setCounters(state, width, height);
}

void BM_Minimize(benchmark::State& state)
{
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    const FrameSet set(width, height);
    SrFloatMinimization m(width, height, kFrames, 2.0f);
    m.setThreads(static_cast<int>(state.range(2)));
    std::vector<std::vector<float>> frames = set.frames;
    std::vector<float*> framePointers;
    for (auto& f : frames)
        framePointers.push_back(f.data());
    std::vector<std::vector<char>> maskStorage = set.masks;
    std::vector<char*> masks;
    for (auto& mask : maskStorage)
        masks.push_back(mask.data());
    std::vector<PointF> shifts = set.shifts;
    std::vector<float> output(static_cast<size_t>(4) * width * height);
    int iterations = 0;
    for (auto _ : state) {
        // minimize() normalises the frames in place.
        state.PauseTiming();
        for (int i = 0; i < kFrames; ++i)
            frames[i] = set.frames[i];
        state.ResumeTiming();
        iterations = m.minimize(kFrames, 0, framePointers.data(), shifts.data(), masks.data(),
                                output.data());
        benchmark::ClobberMemory();
    }
    state.counters["cg_steps"] = iterations;
    setCounters(state, width, height);
}

void sizesAndThreads(benchmark::internal::Benchmark* b)
{
    for (int threads : {1, 2})
        for (auto size : {std::make_pair(160, 120), std::make_pair(320, 240), std::make_pair(640, 512)})
            b->Args({size.first, size.second, threads});
    b->ArgNames({"w", "h", "threads"});
    b->Unit(benchmark::kMillisecond);
    b->UseRealTime();
}

BENCHMARK(BM_FullConvFromSparse)->Apply(sizesAndThreads);
BENCHMARK(BM_ValidCorrToSparse)->Apply(sizesAndThreads);
BENCHMARK(BM_Operator)->Apply(sizesAndThreads);
BENCHMARK(BM_Minimize)->Apply(sizesAndThreads);

} // namespace
} // namespace kro
} // namespace velmor
