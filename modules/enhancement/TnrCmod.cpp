#include "TnrCmod.h"

#include <algorithm>
#include <cstring>

#include "TemporalNoiseReduction.h"
#include "detail/ModelFrames.h"
#include "detail/TemporalNoiseStep.h"
#include "detail/Throw.h"

namespace kd = velmor::kro::detail;

const std::array<std::int32_t, 1024>& TnrCmod::mAlphaTab = velmor::kro::TemporalNoiseReduction::mAlphaTab;

namespace {

int clampTo(int value, int low, int high) { return std::min(std::max(value, low), high); }

// The offset-binary sample of a value: its low 16 bits, top bit flipped.
inline std::int32_t offsetBinary(int value) { return (value & 0xFFFF) ^ 0x8000; }

} // namespace

TnrCmod::TnrCmod(int cols, int rows, int& controlGain, int& globalThreshold, int& feedbackFactor, int mode,
                 int hwUnits)
    : mCols(cols),
      mRows(rows),
      mControlGain(&controlGain),
      mGlobalThreshold(&globalThreshold),
      mFeedbackFactor(&feedbackFactor),
      mMode(mode),
      mHwUnits(hwUnits > 0)
{
    if (!kd::validModelFrameSize(cols, rows))
        KRO_THROW("invalid frame size " << cols << "x" << rows);
    mAccu.assign(static_cast<std::size_t>(cols) * rows, 0);
}

int TnrCmod::GetCGainHw() const
{
    return mHwUnits ? clampTo(*mControlGain, 0, kMaxControlGainHw)
                    : kd::controlGainHw(clampTo(*mControlGain, kMinControlGain, kMaxControlGain), false);
}

int TnrCmod::GetAlphaHw() const
{
    return mHwUnits ? clampTo(*mFeedbackFactor, 0, kMaxFeedbackHw)
                    : kd::feedbackHw(clampTo(*mFeedbackFactor, kMinFeedbackFactor, kMaxFeedbackFactor), false);
}

int TnrCmod::GetGlobalHw() const { return clampTo(*mGlobalThreshold, kMinGlobalThreshold, kMaxGlobalThreshold); }

int TnrCmod::GetGlobalOff() const { return GetGlobalHw() == kMaxGlobalThreshold ? 1 : 0; }

void TnrCmod::ProcessFrame(const int* in, int* out)
{
    if (!in || !out)
        KRO_THROW("null frame");
    const std::size_t count = mAccu.size();
    if (mMode == kModeBypass) {
        if (in != out)
            std::memmove(out, in, count * sizeof(int));
        return;
    }
    const std::int32_t cgain = GetCGainHw();
    const std::int32_t threshold = GetGlobalHw();
    const std::int32_t alpha0 = GetAlphaHw();
    if (mFirstFrame) {
        for (std::size_t i = 0; i < count; ++i)
            mAccu[i] = kd::seedAccumulator(in[i]);
        mAlpha = alpha0;
        mFirstFrame = false;
    }
    kd::FeedbackTable feedback;
    kd::fillFeedbackTable(feedback, mAlpha, mAlphaTab);

    std::int64_t motionSum = 0;
    const bool signedSamples = mMode == kModeSigned;
    for (std::size_t i = 0; i < count; ++i) {
        const int value = in[i];
        const std::int32_t u4 = offsetBinary(value) * 4;
        const kd::TemporalStep step = kd::temporalStep(mAccu[i], u4, cgain, feedback.data());
        motionSum += kd::motionOf(step.index);
        if (signedSamples) {
            mAccu[i] = step.accu;
            // Written as 16-bit values: the sample itself on a reset.
            out[i] = static_cast<std::int16_t>(step.reset ? value : kd::accumulatorSample(step.accu) - 32768);
        } else if (value < 0) {
            // A marker passes and re-seeds the pixel from its bits.
            mAccu[i] = offsetBinary(value & 0xFFC0) * 4;
            out[i] = value;
        } else if (step.reset) {
            mAccu[i] = u4;
            out[i] = value;
        } else {
            mAccu[i] = step.accu;
            out[i] = (kd::accumulatorSample(step.accu) & 0xFFFF) ^ 0x8000;
        }
    }
    kd::adaptFeedback({mAlpha, mMotionLevel, mStill, mQuiet}, motionSum, static_cast<std::int32_t>(count),
                      threshold, alpha0);
}
