#pragma once

#include <cstdint>
#include <limits>
#include <vector>

#include <opencv2/core.hpp>

#include "CvUnsignedInt.h"

#include "HstCmod.h"
#include "KroLibExport.h"
#include "Matrix.h"

// Model of the camera's histogram-equalisation block, on signed 16-bit
// samples held in ints.
//
// Per frame the caller runs MeasureFrame (histogram of 2^width bins with
// triangular sub-bin weighting, range tracking, next scale and pedestal),
// ProcessFrame (maps every sample through the transfer curve and refreshes
// the local gains) and Update (rebuilds the curve from the histogram).
//
// Mapping of a sample v (mode != 0, not bypassed):
//   t   = clamp((((v - low) * scale + 128) >> 8) + pedestal + offset, 0, 32767)
//   s   = 15 - width, bin = t >> s, f = t & (2^s - 1)
//   out = clamp(((2^s - f) * lut[bin] + f * lut[bin + 1] + 2^(s-1)) >> s, 0, 32766)
// (no rounding term when s = 0). 32766, one below the 15-bit maximum, is
// intended: the peaking block after this one relies on it. The local gain of
// the output's grey level out >> 7 is the curve's slope over +-4 bins (at
// least 8) times scale / 2^(26 - width).
//
// Curve (Update): a cumulative sum over the bins by mode (2: gain inside the
// gainlow..gainhigh pixel band and 1 outside; 3: bins clipped to [1, limit];
// 4: plain counts; other: one per bin), normalised, raised to the gamma
// exponent ((gamma + 10) / 10, or 10 / (10 - gamma) below 0), scaled to
// 32768 and smoothed over frames by 2^speed (not on a repeated frame count).
//
// With the hardware flag set, the measurement is done by the bit-exact model
// of the hardware block (HstCmod, 256 bins on offset-binary samples); its
// bin data are read back with the bias 32768 and halved scale and pedestal.
//
// Parameters are plain ints with the defaults of the camera; every setter
// clamps its value into the range given by the constants below, so that no
// value can make the model overrun an array, divide by zero or overflow.
// Flags (tridis, rangedis, poffdis, hw) are stored as 0 or 1. The mode,
// limit2 and test accept every value (limit2 and test are stored only).
// A setter takes effect at the next call that reads the parameter; changing
// the width reallocates the tables and restarts the curve from identity.
//
// Threads: Update's loops over bins and processFrame<T>'s loop over rows run
// in parallel (SetThreads: 0 = OpenMP's default, n = at most n); results do
// not depend on the count. One object serves one call at a time.
class KROLIB_EXPORT Histogram {
public:
    static constexpr int kMinWidth = 2, kMaxWidth = 15;  // WriteBinData fits 4 * 2^width ints from 2 on
    static constexpr int kMinRange = 0, kMaxRange = 16;  // 2^16 spans every 16-bit range
    static constexpr int kMinOffset = -(1 << 24), kMaxOffset = 1 << 24;  // beyond: no sample changes
    static constexpr int kMinSpeed = 0, kMaxSpeed = 16;  // above 16 nothing moves any more
    static constexpr int kMinGamma = -100, kMaxGamma = 100;  // exponents 1/11 .. 11
    static constexpr int kMinLimit = 0, kMaxLimit = std::numeric_limits<int>::max();
    static constexpr int kMinGain = 0, kMaxGain = 65535;
    static constexpr int kMinGainCount = 0, kMaxGainCount = std::numeric_limits<int>::max();  // gainlow/high
    // Local-gain table: at least the 256 grey levels (>> 7) of the 15-bit
    // output that the peaking block reads, whatever the width.
    static constexpr int kMinLocalGains = 256;
    // Largest frame: bin counts (sixteenths of a pixel) must fit an int.
    static constexpr long long kMaxPixels = std::numeric_limits<int>::max() / 16;
    // Frames of this many pixels or more are mapped by several threads.
    static constexpr long long kMinPixelsForThreads = 1 << 14;
    // Curves of this many bins or more are built by several threads.
    static constexpr int kMinBinsForThreads = 1 << 10;

    Histogram() : Histogram(160, 120) {}
    // Frame of width x height samples; throws velmor::kro::Exception when
    // either is below 1 or the frame has more than kMaxPixels.
    Histogram(int width, int height);

    // Reads the section "[Histogram_Parameter]" of a parameter file; values
    // go through the setters (and their clamps). A file that cannot be read
    // prints "histo: Cannot read <path>" to standard output and changes
    // nothing.
    void SetParam(const char* path);

    // Measures one frame of width x height samples and writes the bin data
    // (WriteBinData) to binsOut when it is not null.
    void MeasureFrame(int frameCount, const int* in, int* binsOut);
    // Maps one frame through the curve (ProcessPixel for every sample, in
    // pixel order). frameCount is not read: the mapping depends on the state
    // of the last measurement and update only.
    void ProcessFrame(int frameCount, const int* in, int* out);
    // The same on the pipeline's buffers: `in` (and `out`) must be of the
    // configured size, binsOut must hold BinDataCount() ints; otherwise
    // velmor::kro::Exception.
    void MeasureFrame(int frameCount, const velmor::kro::Matrix<int>& in, velmor::kro::Matrix<int>& binsOut);
    void ProcessFrame(int frameCount, const velmor::kro::Matrix<int>& in, velmor::kro::Matrix<int>& out);
    // Maps one sample and refreshes the local gain of its output grey level.
    int ProcessPixel(int v);

    // Rebuilds the curve from the last histogram; `curve` samples it at
    // 2^width points from the frame's minimum to its maximum.
    void Update(int frameCount);
    // The same update with `curve` sampled from curveFrom towards curveTo
    // instead of the measured extremes (both clamped into the 16-bit sample
    // range): for a display that keeps a fixed window.
    void Update(int frameCount, int curveFrom, int curveTo);

    // localGain[clamp(v >> 7, 0, table size - 1)].
    double LocalGain(int v) const;

    // Bin data: for each of the 2^width bins its low and high 16 bits; then
    // curMin, curMax, low, high, scale, pedestal; then the marker 22136, 4660
    // when mode > 0, else 0, 0. BinDataCount() ints; nothing for null.
    void WriteBinData(int* out) const;
    // Reads 2^(width+1) + 6 ints in the layout of WriteBinData (without the
    // marker): the extremes and range minus `bias` (clamped into the 16-bit
    // range), scale and pedestal halved. The hardware's block read with bias
    // 32768 becomes usable by the software curve this way.
    void ReadBinData(const int* in, int bias);
    // 2^width bins, then extremes, range, and the hardware's scale and
    // pedestal (halved).
    void importAttachmentData(const int* bins, short a, short b, short c, short d, unsigned short scale,
                              unsigned short pedestal);
    int BinDataCount() const { return 2 * BinCount() + 8; }

    // Maps a frame of the configured size through the curve, rows in
    // parallel; `out` is (re)created with the input's size when it differs.
    // With mode 0 or bypass the input is copied. Throws
    // velmor::kro::Exception for a frame of another size.
    template <typename T>
    void processFrame(const cv::Mat_<T>& in, cv::Mat_<T>& out);

    void setBypass(bool bypass) { mBypass = bypass; }
    bool isBypassed() const { return mBypass; }
    bool initializedGain() const { return mInitialized != 0; }

    void SetMode(int value) { mMode = value; }
    void SetWidth(int value);
    void SetRange(int value);
    void SetOffset(int value);
    void SetSpeed(int value);
    void SetGamma(int value);
    void SetTridis(int value) { mTridis = value != 0 ? 1 : 0; }
    void SetRangeDis(int value);
    void SetPoffdis(int value);
    void SetLimit(int value);
    void SetLimit2(int value) { mLimit2 = value; }
    void SetGain(int value);
    void SetGainLow(int value);
    void SetGainHigh(int value);
    void SetHW(int value) { mHw = value != 0 ? 1 : 0; }
    void SetTest(int value) { mTest = value; }
    void SetThreads(int threads) { mThreads = threads > 0 ? threads : 0; }

    int GetMode() const { return mMode; }
    int GetWidth() const { return mWidth; }
    int GetRange() const { return mRange; }
    int GetOffset() const { return mOffset; }
    int GetSpeed() const { return mSpeed; }
    int GetGamma() const { return mGamma; }
    int GetTridis() const { return mTridis; }
    int GetRangeDis() const { return mRangedis; }
    int GetPoffdis() const { return mPoffdis; }
    int GetLimit() const { return mLimit; }
    int GetLimit2() const { return mLimit2; }
    int GetGain() const { return mGain; }
    int GetGainLow() const { return mGainLow; }
    int GetGainHigh() const { return mGainHigh; }
    int GetHW() const { return mHw; }
    int GetTest() const { return mTest; }
    int GetThreads() const { return mThreads; }
    // Threads the last parallel loop ran on.
    int GetLastThreadCount() const { return mLastThreads; }

    int Cols() const { return mCols; }
    int Rows() const { return mRows; }
    int BinCount() const { return 1 << mWidth; }
    int GetCurMin() const { return mCurMin; }
    int GetCurMax() const { return mCurMax; }
    int GetLow() const { return mLow; }
    int GetHigh() const { return mHigh; }
    int GetScale() const { return mScale; }
    int GetPedestal() const { return mPedestal; }
    // Tables: bins and lut of BinCount() + 1 entries, curve and cumulative
    // of BinCount(), local gains of LocalGainCount() (at least 256).
    const int* GetBins() const { return mBins.data(); }
    const int* GetLut() const { return mLut.data(); }
    const int* GetCurve() const { return mCurve.data(); }
    const double* GetCumulative() const { return mCumulative.data(); }
    const double* GetLocalGains() const { return mLocalGain.data(); }
    int LocalGainCount() const { return static_cast<int>(mLocalGain.size()); }

private:
    // One sample's mapping without side effects: the output and the local
    // gain it leaves at gainIndex.
    struct Mapping {
        int out;
        int gainIndex;
        double gain;
    };
    Mapping Map(std::int64_t v) const;
    int MapValue(std::int64_t v) const;
    bool Maps() const { return mMode != 0 && !mBypass; }
    void AllocateTables();
    void MeasureSoftware(int frameCount, const int* in);
    void MeasureHardware();
    void TrackRange(int frameCount);
    void UpdateScale();
    void BuildCumulative();
    void BuildLut(int frameCount);
    void BuildCurve(int curveFrom, int curveTo);

    // Parameters.
    int mMode = 3;
    int mWidth = 8;
    int mRange = 8;
    int mOffset = 0;
    int mSpeed = 1;
    int mGamma = 0;
    int mTridis = 0;
    int mRangedis = 0;
    int mPoffdis = 0;
    int mLimit = 8;
    int mLimit2 = 0;
    int mGain = 4;
    int mGainLow;
    int mGainHigh;
    int mHw = 0;
    int mTest = 0;
    bool mBypass = false;
    int mThreads = 0;
    int mLastThreads = 1;

    // Frame.
    int mCols;
    int mRows;
    long long mPixels;

    // State.
    std::vector<int> mBins;          // 2^width + 1, sixteenths of a pixel
    std::vector<int> mLut;           // 2^width + 1, curve at the bin edges
    std::vector<int> mCurve;         // 2^width, mapped values across the measured range
    std::vector<double> mCumulative; // 2^width
    std::vector<double> mLocalGain;  // max(2^width, 256)
    std::vector<double> mCurveGain;  // 2^width, Update's gains before they are stored in order
    std::vector<int> mCurveGainIndex;
    std::vector<int> mHwBinData;     // the hardware block, padded for the width's read
    int mScale;
    int mPedestal = 0;
    int mCurMin = 32767;
    int mCurMax = -32768;
    int mLow = -32768;
    int mHigh = 32767;
    // Frame count of the last software measurement. 0 at the start, so that
    // the pipeline's first frame (count 0) takes the measured range and curve
    // as they are and later frames (count 1) are smoothed.
    int mLastFrame = 0;
    int mHoldLow = 0;
    int mHoldHigh = 0;
    int mInitialized = 0;
    HstCmod mHst;
};
