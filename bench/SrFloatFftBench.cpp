// SrFloatFft2d: forward + backward pair at sensor sizes, timed against a bare
// FFTW 2-D r2c/c2r plan pair of the same size in the same loop, so that the
// reported ratio does not drift with the machine's load.
//
// Counters:
//   ms_pair        milliseconds of one SrFloatFft2d forward + backward
//   ratio_estimate that time / bare FFTW pair planned with FFTW_ESTIMATE
//   ratio_measure  that time / bare FFTW pair planned with FFTW_MEASURE
//   Mpix_per_s     image megapixels per second through the pair
// The bare pairs run single-threaded; with 2 threads the ratios show the
// gain over one-threaded FFTW.
#include <benchmark/benchmark.h>


#include <chrono>
#include <cstring>
#include <mutex>
#include <stdexcept>

#include <fftw3.h>

#include "SrFloatFft2d.h"
#include "detail/FftwPlans.h"

namespace {

using velmor::kro::SrFloatFft2d;
using velmor::kro::detail::FftwBuffer;
using Clock = std::chrono::steady_clock;

// A plain FFTW r2c + c2r pair of one size, as a user of FFTW would write it.
class BarePair {
public:
    BarePair(int width, int height, unsigned flags)
        : image(velmor::kro::detail::allocateFloats(std::size_t(width) * height)),
          spectrum(velmor::kro::detail::allocateComplex(std::size_t(width / 2 + 1) * height))
    {
        std::lock_guard<std::mutex> lock(velmor::kro::detail::fftwPlannerMutex());
        forward = fftwf_plan_dft_r2c_2d(height, width, image.get(), spectrum.get(), flags);
        backward = fftwf_plan_dft_c2r_2d(height, width, spectrum.get(), image.get(), flags);
        if (!forward || !backward)
            throw std::runtime_error("FFTW planning failed");
    }
    ~BarePair()
    {
        std::lock_guard<std::mutex> lock(velmor::kro::detail::fftwPlannerMutex());
        fftwf_destroy_plan(forward);
        fftwf_destroy_plan(backward);
    }
    void fill(const float* source, std::size_t count)
    {
        std::memcpy(image.get(), source, count * sizeof(float));
    }
    void run()
    {
        fftwf_execute(forward);
        fftwf_execute(backward);
    }

private:
    FftwBuffer<float> image;
    FftwBuffer<fftwf_complex> spectrum;
    fftwf_plan forward = nullptr;
    fftwf_plan backward = nullptr;
};

double secondsOf(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Arguments: width, height, threads, offset of the caller's arrays in floats
// from 64-byte alignment (0: aligned, no internal copy).
void BM_SrFloatFftPair(benchmark::State& state)
{
    const int width = int(state.range(0));
    const int height = int(state.range(1));
    const int threads = int(state.range(2));
    const std::size_t offset = std::size_t(state.range(3));
    const std::size_t pixels = std::size_t(width) * height;
    const std::size_t bins = std::size_t(width / 2 + 1) * height;
    SrFloatFft2d fft(width, height);
    fft.setThreads(threads);
    FftwBuffer<float> imageStore = velmor::kro::detail::allocateFloats(pixels + 16);
    FftwBuffer<float> spectrumStore = velmor::kro::detail::allocateFloats(2 * bins + 32);
    float* image = imageStore.get() + offset;
    auto* spectrum = reinterpret_cast<float(*)[2]>(spectrumStore.get() + 2 * offset);
    for (std::size_t i = 0; i < pixels; ++i)
        image[i] = float((i * 7919) % 1000);
    BarePair estimate(width, height, FFTW_ESTIMATE);
    BarePair measure(width, height, FFTW_MEASURE);
    estimate.fill(image, pixels);
    measure.fill(image, pixels);

    double ours = 0.0, bareEstimate = 0.0, bareMeasure = 0.0;
    for (auto _ : state) {
        // Each round scales the image by width * height; a few rounds stay
        // far from overflow, then the values are reset outside the timing.
        auto start = Clock::now();
        fft.forward(image, spectrum);
        fft.backward(spectrum, image);
        const double pair = secondsOf(start);
        ours += pair;
        state.SetIterationTime(pair);

        start = Clock::now();
        estimate.run();
        bareEstimate += secondsOf(start);
        start = Clock::now();
        measure.run();
        bareMeasure += secondsOf(start);

        if (state.iterations() % 4 == 0) {
            for (std::size_t i = 0; i < pixels; ++i)
                image[i] = float((i * 7919) % 1000);
            estimate.fill(image, pixels);
            measure.fill(image, pixels);
        }
        benchmark::DoNotOptimize(image);
    }

    const double n = double(state.iterations());
    state.counters["ms_pair"] = 1e3 * ours / n;
    state.counters["ratio_estimate"] = ours / bareEstimate;
    state.counters["ratio_measure"] = ours / bareMeasure;
    state.counters["Mpix_per_s"] = benchmark::Counter(double(pixels) * n / ours / 1e6);
}

BENCHMARK(BM_SrFloatFftPair)
    ->ArgNames({"w", "h", "threads", "offset"})
    ->Args({160, 120, 1, 0})
    ->Args({160, 120, 2, 0})
    ->Args({320, 240, 1, 0})
    ->Args({320, 240, 2, 0})
    ->Args({640, 512, 1, 0})
    ->Args({640, 512, 2, 0})
    ->Args({640, 512, 1, 1})
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

void BM_GaussFft(benchmark::State& state)
{
    const int width = int(state.range(0));
    const int height = int(state.range(1));
    SrFloatFft2d fft(width, height);
    FftwBuffer<fftwf_complex> spectrum =
        velmor::kro::detail::allocateComplex(std::size_t(width / 2 + 1) * height);
    float kernel[6];
    for (auto _ : state) {
        fft.gaussFft(5, 1.7320508f, spectrum.get(), kernel);
        benchmark::DoNotOptimize(spectrum.get());
    }
}
BENCHMARK(BM_GaussFft)->Args({160, 120})->Args({640, 512})->Unit(benchmark::kMicrosecond);

// Border repair after a spectral blur, radius 5, as the registration uses it.
void BM_RepairGaussBlur(benchmark::State& state)
{
    const int width = int(state.range(0));
    const int height = int(state.range(1));
    SrFloatFft2d fft(width, height);
    fft.setThreads(int(state.range(2)));
    FftwBuffer<fftwf_complex> spectrum =
        velmor::kro::detail::allocateComplex(std::size_t(width / 2 + 1) * height);
    FftwBuffer<float> image = velmor::kro::detail::allocateFloats(std::size_t(width) * height);
    FftwBuffer<float> blurred = velmor::kro::detail::allocateFloats(std::size_t(width) * height);
    for (std::size_t i = 0; i < std::size_t(width) * height; ++i)
        image[i] = blurred[i] = float((i * 7919) % 1000);
    float kernel[6];
    fft.gaussFft(5, 1.7320508f, spectrum.get(), kernel);
    for (auto _ : state) {
        fft.repairGaussBlur(image.get(), blurred.get(), 5, kernel);
        benchmark::DoNotOptimize(blurred.get());
    }
}
BENCHMARK(BM_RepairGaussBlur)
    ->ArgNames({"w", "h", "threads"})
    ->Args({160, 120, 1})
    ->Args({640, 512, 1})
    ->Args({640, 512, 2})
    ->Unit(benchmark::kMicrosecond);

} // namespace
