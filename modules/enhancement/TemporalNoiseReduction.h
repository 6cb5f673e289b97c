#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include "FilterOptions.h"
#include "KroLibExport.h"

namespace velmor {
namespace kro {

// Recursive (first-order) temporal noise filter for a stream of signed 16-bit
// frames, bit-exact integer arithmetic.
//
// Each pixel keeps an accumulator, the filtered value as an offset-binary
// sample with two fractional bits: (sample + 32768) * 4. A new sample is
// pulled toward the accumulator by (mAlpha / 2048) * (w / 32768), where the
// weight w = mAlphaTab[(|accu - 4u| * gain) >> 6] falls as the pixel's change
// grows, so small changes are averaged and moving edges pass through. A
// pixel that changed by more than half the 16-bit range is reset to the new
// sample. After each frame the feedback strength mAlpha drifts within +-205
// of its base value: slowly up on still scenes, quickly down when much of the
// frame moved.
//
// Parameters (setters refuse values outside the ranges and return false):
//   control gain     0..10 (user units; hardware units with hwUnits),
//   global threshold 0..100 (share of moving pixels tolerated; 100 = fixed feedback),
//   feedback factor  0..100 percent (hardware units: Q11 with hwUnits).
// The constructor stores its arguments unchecked.
//
// The first frame, and the first frame after a change of size, is returned
// unchanged and seeds the accumulator. One object serves one call at a time;
// copies share the accumulator image (cv::Mat semantics).
class KROLIB_EXPORT TemporalNoiseReduction {
public:
    // Q15 weights (32768 = 1.0) indexed by the scaled absolute difference; an
    // index of 1024 or more has weight 0. Shared with the hardware model of
    // the temporal block.
    static const std::array<std::int32_t, 1024> mAlphaTab;

    TemporalNoiseReduction(int controlGain, int globalThreshold, int feedbackFactor, bool hwUnits);
    // A filter with `options` applied; throws velmor::kro::Exception with
    // options.validate()'s text when a value is refused.
    explicit TemporalNoiseReduction(const TemporalNoiseReductionOptions& options);
    TemporalNoiseReductionOptions getOptions() const;
    TemporalNoiseReduction(const TemporalNoiseReduction&) = default;
    TemporalNoiseReduction& operator=(const TemporalNoiseReduction&) = default;
    ~TemporalNoiseReduction() = default;

    bool setControlGain(int controlGain);
    bool setFeedbackFactor(int feedbackFactor);
    bool setGlobalThreshold(int globalThreshold);

    // Control gain in hardware units: unchanged with hwUnits, else gain * 16 / 10.
    int getCGainHw() const;
    // Base feedback in Q11: unchanged with hwUnits, else factor * 2048 / 100.
    int getAlphaHw() const;
    // 1 when the adaptation of the feedback is switched off (threshold 100).
    int getGlobalOff() const;

    // Filters one frame. `dst` is (re)allocated as CV_16SC1 of the size of
    // `src` when needed; it may be `src` itself. Throws Exception for an empty
    // frame.
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
    std::int32_t mAlpha;        // adaptive feedback, Q11
    std::int32_t mMotionLevel;  // smoothed motion statistic, never reset
    bool mStill;                // strict stillness test of the last frame
    bool mQuiet;                // loose stillness test of the last frame
    std::int32_t mControlGain;
    std::int32_t mGlobalThreshold;
    std::int32_t mFeedbackFactor;
    bool mHwUnits;
    cv::Mat_<std::int32_t> mAccu;  // (sample + 32768) * 4 per pixel
    bool mFirstFrame;
    int mThreads = 0;
    int mLastThreads = 1;
    std::vector<std::int64_t> mRowSums;  // per-row motion sums, added in row order
};

} // namespace kro
} // namespace velmor
