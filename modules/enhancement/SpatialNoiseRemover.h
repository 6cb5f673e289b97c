#pragma once

#include <cstdint>

#include <opencv2/core.hpp>

#include "FilterOptions.h"
#include "KroLibExport.h"

namespace velmor {
namespace kro {

// Edge-preserving 3x3 smoothing of signed 16-bit frames, bit-exact integer
// arithmetic.
//
// On offset-binary samples u = s + 32768, with borders replicated:
//   mean = div9(sum of the 3x3 block)              (shift-and-add division)
//   sad  = sum over the block of |u - mean|
//   k    = min(sad / gain + 13, 32), or 32 with gain 0
//   out  = mean - 32768 + (((u_centre - mean) * k + 16) >> 5)
// so flat areas keep 13/32 of the centre's deviation from the local mean and
// textured areas (sad >= 19 * gain) keep all of it. Gain 0 returns the input.
//
// Gain 0..31; the constructor replaces an out-of-range gain by 0, setGain
// refuses it. process() keeps no state: one object may serve several threads
// at once.
class KROLIB_EXPORT SpatialNoiseRemover {
public:
    explicit SpatialNoiseRemover(int gain);
    // A filter with `options` applied; throws velmor::kro::Exception with
    // options.validate()'s text when a value is refused.
    explicit SpatialNoiseRemover(const SpatialNoiseRemoverOptions& options);
    SpatialNoiseRemoverOptions getOptions() const;
    SpatialNoiseRemover(const SpatialNoiseRemover&) = default;
    SpatialNoiseRemover& operator=(const SpatialNoiseRemover&) = default;
    virtual ~SpatialNoiseRemover() = default;

    bool setGain(int gain);
    int getGain() const { return mGain; }

    // `dst` is (re)allocated as CV_16SC1 of the size of `src` when needed.
    // Throws Exception for an empty frame or when `dst` shares memory with
    // `src` (the filter reads neighbours that would already be overwritten).
    void process(const cv::Mat_<short>& src, cv::Mat_<short>& dst);

    // Threads of the inner loops: 0 (the default) takes OpenMP's default
    // for a new parallel region, n > 0 at most n. A negative count is
    // refused (false, nothing changed). Results never depend on it.
    bool setThreads(int threads);
    int getThreads() const { return mThreads; }
    // Threads the last frame's loops ran on (frames below 16384 pixels run
    // on the calling thread).
    int getLastThreadCount() const { return mLastThreads; }

private:
    int div9(int x) const;
    int approxK(int sad) const;

    std::int32_t mGain;
    int mThreads = 0;
    int mLastThreads = 1;
};

} // namespace kro
} // namespace velmor
