// Cost of the debugging aids that engines may call per frame: a silent trace
// (must be nearly free) and the comparison of two frames.
#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>

#include "DebugChannel.h"
#include "compareMat.h"

namespace {

void BM_SilentTrace(benchmark::State& state)
{
    velmor::kro::DebugChannel channel("bench");
    for (auto _ : state)
        channel.trace("start SrFloat_Convolution.fullConvFromSparse");
}
BENCHMARK(BM_SilentTrace);

void BM_CompareMat(benchmark::State& state)
{
    const int width = static_cast<int>(state.range(0));
    const int height = static_cast<int>(state.range(1));
    cv::Mat a(height, width, CV_32F), b;
    cv::randu(a, 0.0f, 1000.0f);
    a.copyTo(b);
    for (auto _ : state)
        benchmark::DoNotOptimize(velmor::kro::compareMat(nullptr, a, b, "a", "b", 0.0f));
    state.SetItemsProcessed(state.iterations() * width * height);
}
BENCHMARK(BM_CompareMat)->Args({160, 120})->Args({640, 512});

} // namespace
