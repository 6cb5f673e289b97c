#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "KroLibExport.h"

// Bit-exact model of the camera's temporal noise block: the recursive filter
// of velmor::kro::TemporalNoiseReduction on int32 frames of a size fixed at
// construction, sequential, in raster order.
//
// Each pixel keeps an 18-bit accumulator (its filtered value in offset binary
// with two fractional bits). A new sample is pulled toward it by
// (alpha / 2048) * (w / 32768), w = mAlphaTab[(|accu - 4u| * gain) >> 6];
// a change of more than 131071 quarter steps resets the pixel. After each
// frame the feedback alpha drifts within +-205 of its base: up on still
// scenes, down when much of the frame moved; it is fixed at the base when the
// global threshold is 100. The first frame seeds the accumulators and is
// returned unchanged.
//
// Modes: 0 reads signed 16-bit values (the low 16 bits of each int) and
// writes signed 16-bit values; 1 copies the frame (bypass); any other value
// (2 in use) reads unsigned 16-bit values and writes unsigned ones, and a
// negative input (a marker) is copied and re-seeds its accumulator from its
// bits (low 6 bits dropped).
//
// Control gain, global threshold and feedback factor are read at every frame
// through references to the caller's ints, which must outlive the model; a
// change takes effect at the next frame with no call on the model. Values
// outside the ranges below are clamped into them where read, so that no value
// overruns the weight table or overflows: in user units (hwUnits <= 0) the
// control gain is 0..10 (hardware 0..16) and the feedback factor 0..100
// percent (Q11 0..2048); in hardware units they are used unconverted within
// 0..kMaxControlGainHw and 0..kMaxFeedbackHw. Copies are deep (own
// accumulators) and refer to the same parameters.
class KROLIB_EXPORT TnrCmod {
public:
    static constexpr int kMinControlGain = 0;
    static constexpr int kMaxControlGain = 10;
    static constexpr int kMinGlobalThreshold = 0;
    static constexpr int kMaxGlobalThreshold = 100;  // 100 switches the adaptation off
    static constexpr int kMinFeedbackFactor = 0;
    static constexpr int kMaxFeedbackFactor = 100;
    // Hardware units. At 1023 the table end (index 1024) is reached by a
    // change of 16 grey levels; a larger gain only narrows the filter further.
    static constexpr int kMaxControlGainHw = 1023;
    static constexpr int kMaxFeedbackHw = 2048;  // 1.0 in Q11
    static constexpr int kModeSigned = 0;
    static constexpr int kModeBypass = 1;
    static constexpr int kModeUnsigned = 2;

    // The Q15 weights of velmor::kro::TemporalNoiseReduction::mAlphaTab: one
    // table under two names.
    static const std::array<std::int32_t, 1024>& mAlphaTab;

    // hwUnits > 0: control gain and feedback factor are in hardware units.
    // Throws velmor::kro::Exception for a frame smaller than 1 x 1 or of
    // more than 2^31 - 1 pixels.
    TnrCmod(int cols, int rows, int& controlGain, int& globalThreshold, int& feedbackFactor, int mode,
            int hwUnits);

    // `in` and `out` hold cols x rows values and may be the same array.
    // Throws velmor::kro::Exception for null frames.
    void ProcessFrame(const int* in, int* out);

    // The referenced values as used (clamped): control gain in hardware
    // units, base feedback in Q11, global threshold; GetGlobalOff is 1 when
    // the threshold is 100 (adaptation off).
    int GetCGainHw() const;
    int GetAlphaHw() const;
    int GetGlobalHw() const;
    int GetGlobalOff() const;

    int cols() const { return mCols; }
    int rows() const { return mRows; }
    int mode() const { return mMode; }
    // The accumulators in raster order: the filtered offset-binary sample
    // times 4 (0..262140 unless the products wrapped with control gain 0).
    const std::vector<std::int32_t>& accumulator() const { return mAccu; }
    // The feedback (Q11) the next frame will be filtered with.
    int feedback() const { return mAlpha; }

private:
    std::vector<std::int32_t> mAccu;
    std::int32_t mAlpha = 0;        // adaptive feedback, Q11
    std::int32_t mMotionLevel = 0;  // smoothed motion statistic
    bool mStill = true;             // strict stillness test of the last frame
    bool mQuiet = false;            // loose stillness test of the last frame
    bool mFirstFrame = true;
    int mCols;
    int mRows;
    int* mControlGain;
    int* mGlobalThreshold;
    int* mFeedbackFactor;
    int mMode;
    bool mHwUnits;
};
