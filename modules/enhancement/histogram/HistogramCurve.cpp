// The histogram module's transfer curve: the mapping of samples through it,
// its construction from the histogram, and the frame-wide mapping.

#include "Histogram.h"

#include <algorithm>
#include <cmath>
#include <type_traits>

#include "detail/Parallel.h"
#include "detail/Throw.h"

namespace parallel = velmor::kro::parallel;

namespace {

constexpr int kMaxMapped = 32766;
constexpr int kSlopeReach = 4;  // bins each side of the local slope
constexpr int kMinSlope = 8;

// A sample of any supported type as the mapping takes it: integers exactly
// (64 bits hold every unsigned int), floating-point values clamped into the
// 16-bit range first and truncated, NaN as 0.
template <typename T>
std::int64_t sampleValue(T x)
{
    if constexpr (std::is_floating_point<T>::value) {
        if (std::isnan(x))
            return 0;
        return static_cast<std::int64_t>(std::clamp<T>(x, T(-32768), T(32767)));
    } else {
        return static_cast<std::int64_t>(x);
    }
}

} // namespace

Histogram::Mapping Histogram::Map(std::int64_t v) const
{
    if (!Maps()) {
        const int index = static_cast<int>(std::clamp<std::int64_t>(v >> 7, 0, LocalGainCount() - 1));
        return {static_cast<int>(v), index, 1.0};
    }
    const int n = BinCount();
    const int s = 15 - mWidth;
    // 64 bits: (v - low) * scale needs 33 bits for 16-bit samples already.
    const std::int64_t scaled = (((v - mLow) * mScale + 128) >> 8) + mPedestal + mOffset;
    const std::int64_t t = std::clamp<std::int64_t>(scaled, 0, 32767);
    const int bin = static_cast<int>(std::min<std::int64_t>(t >> s, n - 1));
    const std::int64_t f = t & ((std::int64_t(1) << s) - 1);
    std::int64_t out = ((std::int64_t(1) << s) - f) * mLut[bin] + f * mLut[bin + 1];
    if (s > 0)
        out = (out + (std::int64_t(1) << (s - 1))) >> s;
    const int mapped = static_cast<int>(std::clamp<std::int64_t>(out, 0, kMaxMapped));
    const int slope =
        std::max(mLut[std::min(bin + kSlopeReach, n)] - mLut[std::max(bin - kSlopeReach, 0)], kMinSlope);
    const double gain = static_cast<double>(slope) * mScale * 0.125 / static_cast<double>(1 << (23 - mWidth));
    return {mapped, mapped >> 7, gain};
}

int Histogram::MapValue(std::int64_t v) const { return Map(v).out; }

int Histogram::ProcessPixel(int v)
{
    const Mapping m = Map(v);
    mLocalGain[m.gainIndex] = m.gain;
    return m.out;
}

void Histogram::ProcessFrame(int /*frameCount*/, const int* in, int* out)
{
    // In pixel order on the calling thread: where several samples share an
    // output grey level, the last one's gain stays, as in the hardware.
    for (long long i = 0; i < mPixels; ++i)
        out[i] = ProcessPixel(in[i]);
}

double Histogram::LocalGain(int v) const
{
    return mLocalGain[std::clamp(v >> 7, 0, LocalGainCount() - 1)];
}

void Histogram::Update(int frameCount) { Update(frameCount, mCurMin, mCurMax); }

void Histogram::Update(int frameCount, int curveFrom, int curveTo)
{
    BuildCumulative();
    BuildLut(frameCount);
    BuildCurve(std::clamp(curveFrom, -32768, 32767), std::clamp(curveTo, -32768, 32767));
    mInitialized = 1;
}

void Histogram::BuildCumulative()
{
    const int n = BinCount();
    const std::int64_t bandLow = static_cast<std::int64_t>(mGainLow) * 16;
    const std::int64_t bandHigh = static_cast<std::int64_t>(mGainHigh) * 16;
    std::int64_t total = 0;  // pixels so far, in sixteenths
    double c = 0.0;
    for (int i = 0; i < n; ++i) {
        total += mBins[i];
        switch (mMode) {
        case 2:
            c += (bandLow <= total && total <= bandHigh) ? mGain : 1;
            break;
        case 3:
            c += std::max(std::min(mBins[i], mLimit), 1);
            break;
        case 4:
            c = static_cast<double>(total);
            break;
        default:
            c = i + 1;
            break;
        }
        mCumulative[i] = c;
    }
}

void Histogram::BuildLut(int frameCount)
{
    const int n = BinCount();
    const double g = mGamma >= 0 ? (mGamma + 10) / 10.0 : 10.0 / (10 - mGamma);
    const double total = mCumulative[n - 1];
    // An empty histogram (no measurement yet, or a frame the hardware saw
    // saturated throughout, in mode 4) gives the linear curve. Shares are
    // kept within [0, 1], which only bin data read from outside can leave.
    const bool linear = !(total > 0.0);
    const bool direct = frameCount == mLastFrame || mSpeed == 0;
    const int speed = mSpeed;
    mLut[0] = 0;
    const int threads = n >= kMinBinsForThreads ? parallel::resolveThreads(mThreads) : 1;
    mLastThreads = parallel::parallelFor(threads, 0, n, [&](int begin, int end) {
        for (int i = begin; i < end; ++i) {
            const double share = linear ? (i + 1) / static_cast<double>(n)
                                        : std::clamp(mCumulative[i] / total, 0.0, 1.0);
            const int val = static_cast<int>(std::floor(std::pow(share, g) * 32768.0 + 0.5));
            if (direct) {
                mLut[i + 1] = val;
            } else {
                const std::int64_t old = mLut[i + 1];
                mLut[i + 1] = static_cast<int>(
                    (val + (std::int64_t(1) << (speed - 1)) + (old << speed) - old) >> speed);
            }
        }
    });
}

void Histogram::BuildCurve(int curveFrom, int curveTo)
{
    const int n = BinCount();
    const float step = static_cast<float>(std::abs(curveTo - curveFrom)) / static_cast<float>(n);
    const int threads = n >= kMinBinsForThreads ? parallel::resolveThreads(mThreads) : 1;
    parallel::parallelFor(threads, 0, n, [&](int begin, int end) {
        for (int i = begin; i < end; ++i) {
            // i * step + from in float arithmetic, each operation evaluated in
            // double and rounded once to float: the same result, and immune
            // to contraction into a fused multiply-add.
            const float product = static_cast<float>(static_cast<double>(i) * step);
            const float position = static_cast<float>(static_cast<double>(product) + curveFrom);
            const Mapping m = Map(static_cast<int>(position));
            mCurve[i] = m.out;
            mCurveGain[i] = m.gain;
            mCurveGainIndex[i] = m.gainIndex;
        }
    });
    // Several points can share an output grey level: the gains are stored in
    // point order, so the last point's stays whatever the thread count.
    for (int i = 0; i < n; ++i)
        mLocalGain[mCurveGainIndex[i]] = mCurveGain[i];
}

template <typename T>
void Histogram::processFrame(const cv::Mat_<T>& in, cv::Mat_<T>& out)
{
    if (in.rows != mRows || in.cols != mCols)
        KRO_THROW("input data size does not correspond to histogram class configuration!");
    if (!Maps()) {
        if (out.data != in.data)
            in.copyTo(out);
        return;
    }
    out.create(in.rows, in.cols);
    // The local gains are not refreshed here: which sample's gain stays for
    // a grey level depends on pixel order, which rows in parallel do not
    // keep. Update refreshes them along the measured range.
    const int threads = static_cast<long long>(mRows) * mCols >= kMinPixelsForThreads
                            ? parallel::resolveThreads(mThreads)
                            : 1;
    mLastThreads = parallel::parallelFor(threads, 0, mRows, [&](int begin, int end) {
        for (int r = begin; r < end; ++r) {
            const T* src = in[r];
            T* dst = out[r];
            for (int c = 0; c < mCols; ++c)
                dst[c] = static_cast<T>(MapValue(sampleValue(src[c])));
        }
    });
}

template KROLIB_EXPORT void Histogram::processFrame<short>(const cv::Mat_<short>&, cv::Mat_<short>&);
template KROLIB_EXPORT void Histogram::processFrame<unsigned short>(const cv::Mat_<unsigned short>&,
                                                                    cv::Mat_<unsigned short>&);
template KROLIB_EXPORT void Histogram::processFrame<int>(const cv::Mat_<int>&, cv::Mat_<int>&);
template KROLIB_EXPORT void Histogram::processFrame<unsigned int>(const cv::Mat_<unsigned int>&,
                                                                  cv::Mat_<unsigned int>&);
template KROLIB_EXPORT void Histogram::processFrame<float>(const cv::Mat_<float>&, cv::Mat_<float>&);
template KROLIB_EXPORT void Histogram::processFrame<double>(const cv::Mat_<double>&, cv::Mat_<double>&);
