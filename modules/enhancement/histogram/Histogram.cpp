#include "Histogram.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "detail/ParameterFile.h"
#include "detail/Throw.h"

namespace {

constexpr int kSampleMin = -32768;
constexpr int kSampleMax = 32767;
// Frames a side of the tracked range holds still after the frame left it.
constexpr int kRangeHoldFrames = 16;
// The hardware block's values are offset binary.
constexpr int kHardwareBias = 32768;

int clampSample(long long v) { return static_cast<int>(std::clamp<long long>(v, kSampleMin, kSampleMax)); }

// x = (x * 2^s - x + target + 2^(s-1)) >> s, rounded; s = 0 takes the target.
int followRange(int x, int target, int s)
{
    if (s == 0)
        return target;
    const std::int64_t wide = x;
    return static_cast<int>((wide * (std::int64_t(1) << s) - wide + target + (std::int64_t(1) << (s - 1))) >> s);
}

} // namespace

Histogram::Histogram(int width, int height)
    : mCols(width),
      mRows(height),
      mPixels(static_cast<long long>(width) * height),
      mScale((1 << (15 - mWidth)) << 8),
      // Sizes checked below, with the histogram's own message.
      mHst(std::max(width, 1), std::max(height, 1), 1, 1, 1, 1 << mRange, mPoffdis, mRangedis)
{
    if (width < 1 || height < 1 || mPixels > kMaxPixels)
        KRO_THROW("invalid frame size " << width << "x" << height << " for the histogram");
    mGainLow = static_cast<int>(std::floor(mPixels / 1000.0 + 0.5));
    mGainHigh = static_cast<int>(std::floor(mPixels * 999.0 / 1000.0 + 0.5));
    AllocateTables();
}

void Histogram::AllocateTables()
{
    const int n = BinCount();
    mBins.assign(n + 1, 0);
    mLut.resize(n + 1);
    for (int i = 0; i <= n; ++i)
        mLut[i] = i << (15 - mWidth);
    mCurve.assign(n, 0);
    mCumulative.assign(n, 0.0);
    mLocalGain.assign(std::max(n, kMinLocalGains), 1.0);
    mCurveGain.assign(n, 1.0);
    mCurveGainIndex.assign(n, 0);
    // ReadBinData takes 2^(width+1) + 6 ints, more than the hardware's 518
    // for widths above 8: the rest reads as zeros.
    mHwBinData.assign(std::max(mHst.BinDataSize(), 2 * n + 6), 0);
}

void Histogram::SetParam(const char* path)
{
    int mode = mMode, width = mWidth, range = mRange, offset = mOffset, speed = mSpeed, gamma = mGamma;
    int rangedis = mRangedis, poffdis = mPoffdis, limit = mLimit, gain = mGain, gainLow = mGainLow;
    int gainHigh = mGainHigh;
    const std::vector<velmor::kro::detail::ParameterKey> keys = {
        {"mode=%i", &mode},         {"width=%i", &width},       {"range=%i", &range},
        {"offset=%i", &offset},     {"speed=%i", &speed},       {"gamma=%i", &gamma},
        {"rangedis=%i", &rangedis}, {"poffdis=%i", &poffdis},   {"limit=%i", &limit},
        {"gain=%i", &gain},         {"gainlow=%i", &gainLow},   {"gainhigh=%i", &gainHigh}};
    if (!velmor::kro::detail::readParameterSection(path, "Histogram_Parameter]", keys, 255)) {
        std::printf("histo: Cannot read %s\n", path ? path : "(null)");
        return;
    }
    SetMode(mode);
    SetWidth(width);
    SetRange(range);
    SetOffset(offset);
    SetSpeed(speed);
    SetGamma(gamma);
    SetRangeDis(rangedis);
    SetPoffdis(poffdis);
    SetLimit(limit);
    SetGain(gain);
    SetGainLow(gainLow);
    SetGainHigh(gainHigh);
}

void Histogram::SetWidth(int value)
{
    value = std::clamp(value, kMinWidth, kMaxWidth);
    if (value == mWidth)
        return;
    mWidth = value;
    AllocateTables();
    mInitialized = 0;
}

void Histogram::SetRange(int value)
{
    mRange = std::clamp(value, kMinRange, kMaxRange);
    mHst.SetMinSpan(1 << mRange);
}

void Histogram::SetRangeDis(int value)
{
    mRangedis = value != 0 ? 1 : 0;
    mHst.SetRangedis(mRangedis);
}

void Histogram::SetPoffdis(int value)
{
    mPoffdis = value != 0 ? 1 : 0;
    mHst.SetPoffdis(mPoffdis);
}

void Histogram::SetOffset(int value) { mOffset = std::clamp(value, kMinOffset, kMaxOffset); }
void Histogram::SetSpeed(int value) { mSpeed = std::clamp(value, kMinSpeed, kMaxSpeed); }
void Histogram::SetGamma(int value) { mGamma = std::clamp(value, kMinGamma, kMaxGamma); }
void Histogram::SetLimit(int value) { mLimit = std::clamp(value, kMinLimit, kMaxLimit); }
void Histogram::SetGain(int value) { mGain = std::clamp(value, kMinGain, kMaxGain); }
void Histogram::SetGainLow(int value) { mGainLow = std::clamp(value, kMinGainCount, kMaxGainCount); }
void Histogram::SetGainHigh(int value) { mGainHigh = std::clamp(value, kMinGainCount, kMaxGainCount); }

void Histogram::MeasureFrame(int frameCount, const int* in, int* binsOut)
{
    if (mHw) {
        mHst.MeasureFrame(in);
        MeasureHardware();
    } else {
        MeasureSoftware(frameCount, in);
    }
    WriteBinData(binsOut);
}

void Histogram::MeasureHardware()
{
    mHst.GetBinData(mHwBinData.data());
    ReadBinData(mHwBinData.data(), kHardwareBias);
}

void Histogram::MeasureSoftware(int frameCount, const int* in)
{
    std::fill(mBins.begin(), mBins.end(), 0);
    mCurMin = kSampleMax;
    mCurMax = kSampleMin;
    const int n = BinCount();
    const int s = 15 - mWidth;
    const int fracMask = (1 << s) - 1;
    const int fracShift = std::max(11 - mWidth, 0);
    for (long long i = 0; i < mPixels; ++i) {
        // Samples beyond the 16-bit range (possible in int buffers only)
        // are saturated samples.
        const int v = clampSample(in[i]);
        if (v != kSampleMax && v != kSampleMin) {
            mCurMax = std::max(mCurMax, v);
            mCurMin = std::min(mCurMin, v);
        }
        const std::int64_t scaled = ((static_cast<std::int64_t>(v - mLow) * mScale + 128) >> 8) + mPedestal + mOffset;
        const int t = static_cast<int>(std::clamp<std::int64_t>(scaled, 0, 32767));
        const int bin = std::min(t >> s, n - 1);
        if (mTridis) {
            mBins[bin] += 16;
        } else {
            const int frac = (t & fracMask) >> fracShift;
            mBins[bin] += 16 - frac;
            mBins[bin + 1] += frac;
        }
    }
    TrackRange(frameCount);
    UpdateScale();
}

void Histogram::TrackRange(int frameCount)
{
    if (frameCount == mLastFrame) {
        mLow = mCurMin;
        mHigh = mCurMax;
        return;
    }
    mLastFrame = frameCount;
    const int fast = std::max(mSpeed - 4, 0);
    if (mCurMin < mLow) {
        mLow = followRange(mLow, mCurMin, fast);
        mHoldLow = kRangeHoldFrames;
    } else if (mHoldLow > 0) {
        --mHoldLow;
    } else {
        mLow = followRange(mLow, mCurMin, mSpeed);
    }
    if (mCurMax > mHigh) {
        mHigh = followRange(mHigh, mCurMax, fast);
        mHoldHigh = kRangeHoldFrames;
    } else if (mHoldHigh > 0) {
        --mHoldHigh;
    } else {
        mHigh = followRange(mHigh, mCurMax, mSpeed);
    }
}

void Histogram::UpdateScale()
{
    const std::int64_t span = std::max<std::int64_t>(std::int64_t(1) << mRange, std::int64_t(mHigh) - mLow + 1);
    if (mRangedis)
        mScale = 1 << (23 - mWidth);
    else
        mScale = static_cast<int>(std::clamp(std::floor(8388608.0 / static_cast<double>(span) + 0.5), 256.0, 65536.0));
    if (mPoffdis) {
        mPedestal = 0;
        return;
    }
    // The pedestal leaves equal margins (to within one, the upper one being
    // the smaller) below the mapped low and above the mapped high in the
    // 15-bit range: (32767 - t(high)) / 2, halves rounded up. It centres the
    // tracked range itself, not the minimum span, as the hardware block does.
    const std::int64_t mappedHigh = ((std::int64_t(mHigh) - mLow) * mScale + 128) >> 8;
    mPedestal = static_cast<int>(std::clamp<std::int64_t>((32768 - mappedHigh) >> 1, 0, 16383));
}

void Histogram::WriteBinData(int* out) const
{
    if (!out)
        return;
    const int n = BinCount();
    for (int i = 0; i < n; ++i) {
        out[2 * i] = mBins[i] & 0xFFFF;
        out[2 * i + 1] = mBins[i] >> 16;
    }
    const bool marked = mMode > 0;
    const int tail[8] = {mCurMin, mCurMax, mLow, mHigh, mScale, mPedestal, marked ? 22136 : 0, marked ? 4660 : 0};
    std::copy(tail, tail + 8, out + 2 * n);
}

void Histogram::ReadBinData(const int* in, int bias)
{
    const int n = BinCount();
    for (int i = 0; i < n; ++i)
        mBins[i] = static_cast<int>(static_cast<std::uint32_t>(in[2 * i]) +
                                    (static_cast<std::uint32_t>(in[2 * i + 1]) << 16));
    const int* tail = in + 2 * n;
    mCurMin = clampSample(static_cast<long long>(tail[0]) - bias);
    mCurMax = clampSample(static_cast<long long>(tail[1]) - bias);
    mLow = clampSample(static_cast<long long>(tail[2]) - bias);
    mHigh = clampSample(static_cast<long long>(tail[3]) - bias);
    mScale = tail[4] >> 1;
    mPedestal = tail[5] >> 1;
}

void Histogram::importAttachmentData(const int* bins, short a, short b, short c, short d, unsigned short scale,
                                     unsigned short pedestal)
{
    std::copy(bins, bins + BinCount(), mBins.begin());
    mCurMin = a;
    mCurMax = b;
    mLow = c;
    mHigh = d;
    mScale = (scale & 0xFFFF) >> 1;
    mPedestal = (pedestal & 0xFFFF) >> 1;
}

void Histogram::MeasureFrame(int frameCount, const velmor::kro::Matrix<int>& in, velmor::kro::Matrix<int>& binsOut)
{
    if (in.rows != mRows || in.cols != mCols || !in.data)
        KRO_THROW("input matrix " << in.cols << "x" << in.rows << " does not match the histogram's frame " << mCols
                                  << "x" << mRows);
    if (static_cast<long long>(binsOut.rows) * binsOut.cols < BinDataCount() || !binsOut.data)
        KRO_THROW("bin matrix of " << binsOut.rows << "x" << binsOut.cols << " cannot hold " << BinDataCount()
                                   << " ints of bin data");
    MeasureFrame(frameCount, in.data, binsOut.data);
}

void Histogram::ProcessFrame(int frameCount, const velmor::kro::Matrix<int>& in, velmor::kro::Matrix<int>& out)
{
    if (in.rows != mRows || in.cols != mCols || !in.data || out.rows != mRows || out.cols != mCols || !out.data)
        KRO_THROW("matrices " << in.cols << "x" << in.rows << " and " << out.cols << "x" << out.rows
                              << " do not match the histogram's frame " << mCols << "x" << mRows);
    ProcessFrame(frameCount, in.data, out.data);
}
