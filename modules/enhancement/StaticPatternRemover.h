#pragma once

#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include "FilterOptions.h"
#include "KroLibExport.h"

namespace velmor {
namespace kro {

// Removes fixed-pattern noise from a stream of signed 16-bit frames,
// bit-exact integer arithmetic.
//
// Two patterns are learnt frame after frame where the scene is locally flat
// (the spread of the 3x3 block or of the 1x9 run around a pixel is below the
// threshold): a per-pixel offset (frame pattern, correction F >> 5) and a
// per-column offset (line pattern, correction L >> 10). Both leak slowly to
// zero, are bounded by their limits (frame limit in units of 256, line limit
// in units of 8192 of the accumulators) and are subtracted, divided by about
// 9, from each incoming frame. A sample of 32767 (saturated) passes unchanged
// but still takes part in the learning.
//
// Parameters: threshold 0..100 (0 stops the learning), line and frame limits
// 0..31. The constructor leaves an out-of-range value at 0; the setters refuse
// it and return false.
//
// Rows are processed top to bottom and, within a row, the line pattern is
// updated column after column from left to right: a pixel sees the updated
// line values of the four columns to its left and the previous row's values
// to its right. The columns are shared among threads with exactly that
// result, whatever the number of threads. Copies share the pattern images (cv::Mat
// semantics); one object serves one call at a time.
class KROLIB_EXPORT StaticPatternRemover {
public:
    StaticPatternRemover(int threshold, int lineLimit, int frameLimit);
    // A filter with `options` applied; throws velmor::kro::Exception with
    // options.validate()'s text when a value is refused.
    explicit StaticPatternRemover(const StaticPatternRemoverOptions& options);
    StaticPatternRemoverOptions getOptions() const;
    StaticPatternRemover(const StaticPatternRemover&) = default;
    StaticPatternRemover& operator=(const StaticPatternRemover&) = default;
    ~StaticPatternRemover() = default;

    bool setThreshold(int threshold);
    bool setLineLimit(int lineLimit);
    bool setFrameLimit(int frameLimit);
    int getThreshold() const { return mThreshold; }
    int getLineLimit() const { return mLineLimit; }
    int getFrameLimit() const { return mFrameLimit; }

    // Corrects one frame and learns from it. The patterns restart from zero
    // when the frame size changes. `dst` is (re)allocated as CV_16SC1 of the
    // size of `src` when needed. Throws Exception for an empty frame or when
    // `dst` shares memory with `src`.
    void process(const cv::Mat_<short>& src, cv::Mat_<short>& dst);

    // The learnt accumulators: 1 x width (line) and height x width (frame).
    const cv::Mat_<std::int32_t>& linePattern() const { return mLinePattern; }
    const cv::Mat_<std::int32_t>& framePattern() const { return mFramePattern; }

    // Threads of the column parts: 0 (the default) takes OpenMP's default
    // for a new parallel region, n > 0 at most n. A negative count is
    // refused (false, nothing changed). Results never depend on it.
    bool setThreads(int threads);
    int getThreads() const { return mThreads; }
    // Threads the last frame ran on (frames narrower than 128 columns run
    // on the calling thread).
    int getLastThreadCount() const { return mLastThreads; }

private:
    void init(const cv::Size& size);
    void validateInput(const cv::Size& size);
    int div9LessAccurate(int x) const;

    cv::Mat_<std::int32_t> mLinePattern;
    cv::Mat_<std::int32_t> mFramePattern;
    std::int32_t mThreshold = 0;
    std::int32_t mThreshold07 = 0;
    std::int32_t mLineLimit = 0;
    std::int32_t mFrameLimit = 0;
    std::int32_t mReserved = 0;  // kept for layout compatibility, unused
    std::int32_t mMinInit = 2147483647;
    std::int32_t mMaxInit = -2147483647 - 1;
    // Work space of the threads (seven values per column and margin), grown
    // by process() when the width or the thread count asks for more.
    std::vector<std::int32_t> mRowScratch;
    int mThreads = 0;
    int mLastThreads = 1;
};

} // namespace kro
} // namespace velmor
