#include "TemporalNoiseReduction.h"

#include <algorithm>

#include "detail/Parallel.h"
#include "detail/TemporalNoiseStep.h"
#include "detail/Throw.h"

namespace velmor {
namespace kro {

namespace {

constexpr int kTableSize = detail::kWeightTableSize;

// The weight table. Indices 0..49 are set by hand (full weight up to 14, then
// a steep fall; 47 and 48 are both 9175 on purpose). From 50 on the weight is
// 12 / index in Q15, evaluated at index + 0.01 so that it stays a little below
// 393216 / index, and from 897 on it fades linearly to zero by the factor
// (1024 - index) / 128, which ends in steps of exactly 3 from 1006 (54) to
// 1023 (3).
constexpr std::array<std::int32_t, kTableSize> makeAlphaTable()
{
    constexpr std::int32_t steepFall[35] = {
        31457, 30474, 29818, 28835, 28180, 27197, 26214, 25559, 24576, 23592, 22937, 21954,
        21299, 20316, 19660, 18677, 18022, 17367, 16384, 15728, 15073, 14417, 13762, 13107,
        12451, 11796, 11468, 10813, 10485, 10158, 9830,  9502,  9175,  9175,  8847};
    std::array<std::int32_t, kTableSize> table{};
    for (int i = 0; i < 15; ++i)
        table[i] = 32768;
    for (int i = 15; i < 50; ++i)
        table[i] = steepFall[i - 15];
    for (int i = 50; i < kTableSize; ++i) {
        const std::int32_t hyperbola = 39321600 / (100 * i + 1);
        table[i] = i <= 896 ? hyperbola : hyperbola * (kTableSize - i) / 128;
    }
    return table;
}

// Below this many pixels a second thread costs more than it saves.
constexpr long long kMinPixelsForThreads = 1 << 14;

} // namespace

const std::array<std::int32_t, 1024> TemporalNoiseReduction::mAlphaTab = makeAlphaTable();

TemporalNoiseReduction::TemporalNoiseReduction(int controlGain, int globalThreshold,
                                               int feedbackFactor, bool hwUnits)
    : mAlpha(0),
      mMotionLevel(0),
      mStill(true),
      mQuiet(false),
      mControlGain(controlGain),
      mGlobalThreshold(globalThreshold),
      mFeedbackFactor(feedbackFactor),
      mHwUnits(hwUnits),
      mFirstFrame(true)
{
}

TemporalNoiseReduction::TemporalNoiseReduction(const TemporalNoiseReductionOptions& options)
    : TemporalNoiseReduction(options.controlGain, options.globalThreshold, options.feedbackFactor, options.hwUnits)
{
    const std::string problem = options.validate();
    if (!problem.empty())
        KRO_THROW(problem);
    mThreads = options.threads;
}

TemporalNoiseReductionOptions TemporalNoiseReduction::getOptions() const
{
    TemporalNoiseReductionOptions o;
    o.controlGain = mControlGain;
    o.globalThreshold = mGlobalThreshold;
    o.feedbackFactor = mFeedbackFactor;
    o.hwUnits = mHwUnits;
    o.threads = mThreads;
    return o;
}

bool TemporalNoiseReduction::setControlGain(int controlGain)
{
    if (!filter_rules::controlGain(controlGain).empty())
        return false;
    mControlGain = controlGain;
    return true;
}

bool TemporalNoiseReduction::setFeedbackFactor(int feedbackFactor)
{
    if (!filter_rules::feedbackFactor(feedbackFactor).empty())
        return false;
    mFeedbackFactor = feedbackFactor;
    return true;
}

bool TemporalNoiseReduction::setGlobalThreshold(int globalThreshold)
{
    if (!filter_rules::globalThreshold(globalThreshold).empty())
        return false;
    mGlobalThreshold = globalThreshold;
    return true;
}

// The constructor accepts any value, so the conversions wrap like the 32-bit
// hardware registers instead of overflowing.
int TemporalNoiseReduction::getCGainHw() const
{
    return detail::controlGainHw(mControlGain, mHwUnits);
}

int TemporalNoiseReduction::getAlphaHw() const
{
    return detail::feedbackHw(mFeedbackFactor, mHwUnits);
}

bool TemporalNoiseReduction::setThreads(int threads)
{
    if (!filter_rules::threads(threads).empty())
        return false;
    mThreads = threads;
    return true;
}

int TemporalNoiseReduction::getGlobalOff() const { return mGlobalThreshold == 100 ? 1 : 0; }

void TemporalNoiseReduction::process(const cv::Mat_<short>& src, cv::Mat_<short>& dst)
{
    if (src.empty())
        KRO_THROW("empty input frame");
    const std::int32_t cgain = getCGainHw();
    const std::int32_t threshold = mGlobalThreshold;
    const std::int32_t alpha0 = getAlphaHw();
    const int rows = src.rows;
    const int cols = src.cols;
    const int threads = static_cast<long long>(rows) * cols >= kMinPixelsForThreads
                            ? parallel::resolveThreads(mThreads)
                            : 1;

    if (mFirstFrame || mAccu.rows != rows || mAccu.cols != cols) {
        mAccu.create(rows, cols);
        parallel::parallelFor(threads, 0, rows, [&](int begin, int end) {
            for (int r = begin; r < end; ++r) {
                const short* in = src[r];
                std::int32_t* accu = mAccu[r];
                for (int c = 0; c < cols; ++c)
                    accu[c] = detail::seedAccumulator(in[c]);
            }
        });
        mAlpha = alpha0;
        mFirstFrame = false;
    }
    dst.create(rows, cols);

    // (mAlpha * w) >> 11 depends on the table index only: one product per
    // index and frame instead of one per pixel.
    detail::FeedbackTable feedback;
    detail::fillFeedbackTable(feedback, mAlpha, mAlphaTab);
    const std::int32_t* const scaled = feedback.data();

    mRowSums.resize(static_cast<std::size_t>(rows));
    const long long motionSum = parallel::parallelSum(threads, 0, rows, mRowSums.data(), [&](int r) {
        const short* in = src[r];
        short* out = dst[r];
        std::int32_t* accu = mAccu[r];
        std::int64_t rowSum = 0;
        for (int c = 0; c < cols; ++c) {
            const std::int32_t sample = in[c];
            const detail::TemporalStep step = detail::temporalStep(accu[c], (sample + 32768) * 4, cgain, scaled);
            rowSum += detail::motionOf(step.index);
            accu[c] = step.accu;
            out[c] = step.reset ? static_cast<short>(sample)
                                : static_cast<short>(detail::accumulatorSample(step.accu) - 32768);
        }
        return rowSum;
    }, &mLastThreads);

    const std::int32_t pixels = static_cast<std::int32_t>(static_cast<long long>(rows) * cols);
    detail::adaptFeedback({mAlpha, mMotionLevel, mStill, mQuiet}, motionSum, pixels, threshold, alpha0);
}

} // namespace kro
} // namespace velmor
