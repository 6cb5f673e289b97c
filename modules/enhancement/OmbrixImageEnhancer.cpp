#include "OmbrixImageEnhancer.h"

#include <algorithm>
#include <cstddef>
#include <type_traits>

#include "Histogram.h"
#include "Peaking.h"
#include "SnrCmod.h"
#include "SprCmod.h"
#include "TnrCmod.h"
#include "detail/Parallel.h"
#include "detail/Throw.h"

namespace velmor {
namespace kro {

namespace {

// The delay the pipeline builds its static-pattern model with, whatever the
// delay field holds (the camera does the same); a model re-created by
// sprSetBypass takes the field.
constexpr int kConstructionSprDelay = 1;
// Below this many pixels a second thread costs more than it saves.
constexpr long long kMinPixelsForThreads = 1 << 14;

// Mode of a noise or pattern model for an enable value: 0 runs, 1 bypasses.
int modelMode(int enable) { return enable == 0 ? 1 : 0; }

// The bin buffer holds 4 x 2^width ints, and at least what
// Histogram::WriteBinData writes.
int binBufferSize(const Histogram& histogram)
{
    return std::max(4 * histogram.BinCount(), histogram.BinDataCount());
}

Matrix<int> borrowedView(Matrix<int>& storage)
{
    Matrix<int> view;
    view.rows = storage.rows;
    view.cols = storage.cols;
    view.count = storage.count;
    view.borrow(storage.data);
    return view;
}

} // namespace

OmbrixImageEnhancer::OmbrixImageEnhancer(int width, int height)
    : DebugChannel("OmbrixImageEnhancer"), mWidth(width), mHeight(height), mPixelCount(0)
{
    construct(CamInternalSettings());
}

OmbrixImageEnhancer::OmbrixImageEnhancer(int width, int height, const CamInternalSettings* settings)
    : DebugChannel("OmbrixImageEnhancer"), mWidth(width), mHeight(height), mPixelCount(0)
{
    if (!settings)
        KRO_THROW("no camera settings given (null CamInternalSettings)");
    construct(*settings);
}

OmbrixImageEnhancer::OmbrixImageEnhancer(int width, int height, const char* histogramParameterFile,
                                         const char* peakingParameterFile)
    : OmbrixImageEnhancer(width, height)
{
    applyParameterFiles(histogramParameterFile, peakingParameterFile);
}

OmbrixImageEnhancer::OmbrixImageEnhancer(const OmbrixImageEnhancer& other)
    : DebugChannel(other), mWidth(other.mWidth), mHeight(other.mHeight), mPixelCount(other.mPixelCount)
{
    copyFrom(other);
}

OmbrixImageEnhancer& OmbrixImageEnhancer::operator=(const OmbrixImageEnhancer& other)
{
    if (this != &other) {
        DebugChannel::operator=(other);
        copyFrom(other);
    }
    return *this;
}

OmbrixImageEnhancer::~OmbrixImageEnhancer() = default;

void OmbrixImageEnhancer::construct(const CamInternalSettings& settings)
{
    if (mWidth < 1 || mHeight < 1 || mWidth > (1 << 16) || mHeight > (1 << 16))
        KRO_THROW("invalid frame size " << mWidth << "x" << mHeight << " (1 to 65536 each)");
    mPixelCount = mWidth * mHeight;
    const CamInternalSettings::Enhancer& e = settings.enhancer;
    // The pattern model ends the process for a delay it has no pipeline for
    // when sprSetBypass re-creates it; a record holding one is refused here,
    // where the caller can still act on it.
    if (e.sprDelay < 0 || e.sprDelay > SprCmod::kMaxDelay)
        KRO_THROW("spr delay " << e.sprDelay << " is outside 0 to " << SprCmod::kMaxDelay);
    const CamInternalSettings::EnhancerExtra& x = settings.enhancerExtra;
    mTnrEnable = e.tnrEnable;
    mTnrControlGain = e.tnrControlGain;
    mTnrGlobalThreshold = e.tnrGlobalThreshold;
    mTnrFeedbackFactor = e.tnrFeedbackFactor;
    mSprEnable = e.sprEnable;
    mSprThreshold = e.sprThreshold;
    mSprFrameLimit = e.sprFrameLimit;
    mSprLineLimit = e.sprLineLimit;
    mSprDelay = e.sprDelay;
    mSnrEnable = e.snrEnable;
    mSnrGain = e.snrGain;
    std::copy(x.reserved, x.reserved + 6, mReserved);

    createBuffers();
    createTnr();
    createSpr(kConstructionSprDelay);
    createSnr();
    mHistogram.reset(new Histogram(mWidth, mHeight));
    mPeaking.reset(new Peaking(mWidth, mHeight));
    mHistogramDsp = mHistogram.get();
    mPeakingDsp = mPeaking.get();

    // The record's histogram values; gainlow and gainhigh of the default
    // record are the 0.1 % and 99.9 % counts of a 160 x 120 frame whatever
    // the real size, and limit2 is the pattern 0xCDCDCDCD: both as the
    // camera sets them.
    mHistogram->SetMode(e.histMode);
    mHistogram->SetWidth(x.histWidth);
    mHistogram->SetLimit(x.histLimit);
    mHistogram->SetLimit2(x.histLimit2);
    mHistogram->SetGain(e.histGain);
    mHistogram->SetGainLow(e.histGainLow);
    mHistogram->SetGainHigh(e.histGainHigh);
    resizeBinBuffer();
    mPeaking->SetEnable(x.peakEnable);
    mPeaking->SetGain(x.peakGain);
    mPeaking->SetCoring(x.peakCoring);
    mPeaking->SetLimit(x.peakLimit);
    mPeaking->SetWidth(x.peakWidth);
    mPeaking->SetReductThres(x.peakReductThres);
    mPeaking->SetReductGain(x.peakReductGain);
    mPeaking->SetSpare(x.peakSpare);
}

void OmbrixImageEnhancer::createBuffers()
{
    mInputStorage = Matrix<int>(mHeight, mWidth);
    mInput = borrowedView(mInputStorage);
    mTnrOut = Matrix<int>(mHeight, mWidth);
    mSprOut = Matrix<int>(mHeight, mWidth);
    mSnrOut = Matrix<int>(mHeight, mWidth);
    mHistoOut = Matrix<int>(mHeight, mWidth);
    mPeakOut = Matrix<int>(mHeight, mWidth);
}

void OmbrixImageEnhancer::resizeBinBuffer()
{
    const int size = binBufferSize(*mHistogram);
    if (mHistoBins.count != size)
        mHistoBins = Matrix<int>(1, size);
}

void OmbrixImageEnhancer::createTnr()
{
    mTnr.reset(new TnrCmod(mWidth, mHeight, mTnrControlGain, mTnrGlobalThreshold, mTnrFeedbackFactor,
                           modelMode(mTnrEnable), 0));
}

void OmbrixImageEnhancer::createSpr(int delay)
{
    mSprModelDelay = delay;
    mSpr.reset(new SprCmod(mWidth, mHeight, mSprThreshold, mSprLineLimit, mSprFrameLimit, delay,
                           modelMode(mSprEnable)));
}

void OmbrixImageEnhancer::createSnr()
{
    mSnr.reset(new SnrCmod(mWidth, mHeight, mSnrGain, modelMode(mSnrEnable)));
}

void OmbrixImageEnhancer::copyFrom(const OmbrixImageEnhancer& other)
{
    mWidth = other.mWidth;
    mHeight = other.mHeight;
    mReserved1000 = other.mReserved1000;
    mPixelCount = other.mPixelCount;
    mFrameCount = other.mFrameCount;
    mTnrEnable = other.mTnrEnable;
    mTnrControlGain = other.mTnrControlGain;
    mTnrGlobalThreshold = other.mTnrGlobalThreshold;
    mTnrFeedbackFactor = other.mTnrFeedbackFactor;
    mSprEnable = other.mSprEnable;
    mSprThreshold = other.mSprThreshold;
    mSprFrameLimit = other.mSprFrameLimit;
    mSprLineLimit = other.mSprLineLimit;
    mSprDelay = other.mSprDelay;
    mSnrEnable = other.mSnrEnable;
    mSnrGain = other.mSnrGain;
    std::copy(other.mReserved, other.mReserved + 6, mReserved);
    mThreads = other.mThreads;
    mLastThreads = other.mLastThreads;

    // Buffers are deep copies. The input buffer refers to the copy's own
    // storage even when the original's refers to a caller's int frame (which
    // may be gone by now).
    mInputStorage = other.mInputStorage;
    mInput = borrowedView(mInputStorage);
    mTnrOut = other.mTnrOut;
    mSprOut = other.mSprOut;
    mSnrOut = other.mSnrOut;
    mHistoOut = other.mHistoOut;
    mHistoBins = other.mHistoBins;
    mPeakOut = other.mPeakOut;

    // The noise and pattern models read their parameters by reference, so
    // the copy's models are built on the copy's fields (and start from their
    // first frame); the histogram and peaking models hold their values.
    createTnr();
    createSpr(other.mSprModelDelay);
    createSnr();
    mHistogram.reset(new Histogram(*other.mHistogram));
    mPeaking.reset(new Peaking(*other.mPeaking));
    mHistogramDsp = mHistogram.get();
    mPeakingDsp = mPeaking.get();
}

void OmbrixImageEnhancer::applyParameterFiles(const char* histogramParameterFile, const char* peakingParameterFile)
{
    if (histogramParameterFile && *histogramParameterFile) {
        mHistogram->SetParam(histogramParameterFile);
        resizeBinBuffer();
    }
    if (peakingParameterFile && *peakingParameterFile)
        mPeaking->SetParam(peakingParameterFile);
}

bool OmbrixImageEnhancer::setThreads(int threads)
{
    if (threads < 0)
        return false;
    mThreads = threads;
    mHistogram->SetThreads(threads);
    return true;
}

// ---------------------------------------------------------------------------
// Frames

template <typename T>
void OmbrixImageEnhancer::readInput(const cv::Mat_<T>& in)
{
    if (in.empty() || !in.isContinuous() || in.total() < static_cast<std::size_t>(mPixelCount))
        KRO_THROW("input frame of " << in.cols << "x" << in.rows
                                    << (in.isContinuous() ? "" : " (not continuous)") << " holds fewer than the "
                                    << mWidth << "x" << mHeight << " samples the enhancer is configured for");
    if constexpr (std::is_same<T, int>::value) {
        mInput.borrow(const_cast<int*>(in[0]));
        return;
    }
    mInput.borrow(mInputStorage.data);
    const T* source = in[0];
    int* target = mInputStorage.data;
    const int width = mWidth;
    mLastThreads = parallel::parallelFor(threads(), 0, mHeight, [&](int begin, int end) {
        for (int r = begin; r < end; ++r) {
            const T* s = source + static_cast<std::size_t>(r) * width;
            int* t = target + static_cast<std::size_t>(r) * width;
            KROLIB_SIMD_LOOP
            for (int c = 0; c < width; ++c)
                t[c] = static_cast<int>(s[c]);
        }
    });
}

template <typename T>
void OmbrixImageEnhancer::writeOutput(const cv::Mat_<T>& in, cv::Mat_<T>& out)
{
    if constexpr (std::is_same<T, int>::value) {
        // A view of the pipeline's buffer: of the input's shape when that
        // holds exactly the configured frame, else of the configured shape
        // (a larger view would reach beyond the buffer).
        const bool sameCount = in.total() == static_cast<std::size_t>(mPixelCount);
        out = cv::Mat_<T>(sameCount ? in.rows : mHeight, sameCount ? in.cols : mWidth,
                          mPeakOut.data);
        return;
    }
    if (out.rows != in.rows || out.cols != in.cols || !out.isContinuous())
        out.create(in.rows, in.cols);
    const int* source = mPeakOut.data;
    T* target = out[0];
    const int width = mWidth;
    parallel::parallelFor(threads(), 0, mHeight, [&](int begin, int end) {
        for (int r = begin; r < end; ++r) {
            const int* s = source + static_cast<std::size_t>(r) * width;
            T* t = target + static_cast<std::size_t>(r) * width;
            KROLIB_SIMD_LOOP
            for (int c = 0; c < width; ++c)
                t[c] = static_cast<T>(s[c]);
        }
    });
    std::fill(target + mPixelCount, target + out.total(), T(0));
}

void OmbrixImageEnhancer::processCore()
{
    const int n = mFrameCount;
    mTnr->ProcessFrame(mInput.data, mTnrOut.data);
    mSpr->ProcessFrame(mTnrOut.data, mSprOut.data);
    mSnr->ProcessFrame(mSprOut.data, mSnrOut.data);
    // The pipeline always measures with the hardware model of the block.
    mHistogram->SetHW(1);
    mHistogram->MeasureFrame(n, mSnrOut.data, mHistoBins.data);
    mHistogram->ProcessFrame(n, mSnrOut.data, mHistoOut.data);
    mPeaking->ProcessFrame(mHistoOut.data, mPeakOut.data,
                           mHistogram->GetMode() != 0 ? mHistogram->GetLocalGains() : nullptr);
    mHistogram->Update(n);
    // The models only tell the first frame from the others, so the count
    // stops at 1.
    if (mFrameCount == 0)
        mFrameCount = 1;
}

template <typename T>
void OmbrixImageEnhancer::processFrame(cv::Mat_<T>& in, cv::Mat_<T>& out)
{
    trace("start processFrame");
    readInput(in);
    processCore();
    writeOutput(in, out);
    trace("end processFrame");
}

int OmbrixImageEnhancer::threads() const
{
    return static_cast<long long>(mPixelCount) >= kMinPixelsForThreads ? parallel::resolveThreads(mThreads) : 1;
}

template KROLIB_EXPORT void OmbrixImageEnhancer::processFrame<short>(cv::Mat_<short>&, cv::Mat_<short>&);
template KROLIB_EXPORT void OmbrixImageEnhancer::processFrame<unsigned short>(cv::Mat_<unsigned short>&,
                                                                             cv::Mat_<unsigned short>&);
template KROLIB_EXPORT void OmbrixImageEnhancer::processFrame<int>(cv::Mat_<int>&, cv::Mat_<int>&);
template KROLIB_EXPORT void OmbrixImageEnhancer::processFrame<unsigned int>(cv::Mat_<unsigned int>&,
                                                                           cv::Mat_<unsigned int>&);
template KROLIB_EXPORT void OmbrixImageEnhancer::processFrame<float>(cv::Mat_<float>&, cv::Mat_<float>&);
template KROLIB_EXPORT void OmbrixImageEnhancer::processFrame<double>(cv::Mat_<double>&, cv::Mat_<double>&);

// ---------------------------------------------------------------------------
// Histogram data

const int* OmbrixImageEnhancer::getHistoBinArrayDSP() const { return mHistogram->GetBins(); }
const double* OmbrixImageEnhancer::getHistoGain(bool second) const
{
    return second ? mHistogram->GetCumulative() : mHistogram->GetLocalGains();
}
const double* OmbrixImageEnhancer::getLocalGain() const { return mHistogram->GetLocalGains(); }
const int* OmbrixImageEnhancer::getHistoEqu() const { return mHistogram->GetLut(); }
int OmbrixImageEnhancer::histGetWidth() const { return mHistogram->GetWidth(); }

// ---------------------------------------------------------------------------
// Setters

namespace {
int clampTo(int value, int low, int high) { return std::min(std::max(value, low), high); }
} // namespace

void OmbrixImageEnhancer::tnrSetCGain(int value)
{
    mTnrControlGain = clampTo(value, TnrCmod::kMinControlGain, TnrCmod::kMaxControlGain);
}
void OmbrixImageEnhancer::tnrSetGlobal(int value)
{
    mTnrGlobalThreshold = clampTo(value, TnrCmod::kMinGlobalThreshold, TnrCmod::kMaxGlobalThreshold);
}
void OmbrixImageEnhancer::tnrSetAlpha(int value)
{
    mTnrFeedbackFactor = clampTo(value, TnrCmod::kMinFeedbackFactor, TnrCmod::kMaxFeedbackFactor);
}
void OmbrixImageEnhancer::sprSetThreshold(int value)
{
    mSprThreshold = clampTo(value, SprCmod::kMinThreshold, SprCmod::kMaxThreshold);
}
void OmbrixImageEnhancer::sprSetMaxFrame(int value)
{
    mSprFrameLimit = clampTo(value, SprCmod::kMinLimit, SprCmod::kMaxLimit);
}
void OmbrixImageEnhancer::sprSetMaxLine(int value)
{
    mSprLineLimit = clampTo(value, SprCmod::kMinLimit, SprCmod::kMaxLimit);
}
void OmbrixImageEnhancer::snrSetGain(int value) { mSnrGain = clampTo(value, SnrCmod::kMinGain, SnrCmod::kMaxGain); }

void OmbrixImageEnhancer::tnrSetBypass(int value)
{
    if (value == mTnrEnable)
        return;
    mTnrEnable = value;
    createTnr();
}
void OmbrixImageEnhancer::sprSetBypass(int value)
{
    if (value == mSprEnable)
        return;
    mSprEnable = value;
    createSpr(mSprDelay);
}
void OmbrixImageEnhancer::snrSetBypass(int value)
{
    if (value == mSnrEnable)
        return;
    mSnrEnable = value;
    createSnr();
}

void OmbrixImageEnhancer::histSetMode(int value) { mHistogram->SetMode(value); }
void OmbrixImageEnhancer::histSetWidth(int value)
{
    mHistogram->SetWidth(value);
    resizeBinBuffer();
}
void OmbrixImageEnhancer::histSetRange(int value) { mHistogram->SetRange(value); }
void OmbrixImageEnhancer::histSetOffset(int value) { mHistogram->SetOffset(value); }
void OmbrixImageEnhancer::histSetSpeed(int value) { mHistogram->SetSpeed(value); }
void OmbrixImageEnhancer::histSetGamma(int value) { mHistogram->SetGamma(value); }
void OmbrixImageEnhancer::histSetTridis(int value) { mHistogram->SetTridis(value); }
void OmbrixImageEnhancer::histSetRangeDis(int value) { mHistogram->SetRangeDis(value); }
void OmbrixImageEnhancer::histSetPoffdis(int value) { mHistogram->SetPoffdis(value); }
void OmbrixImageEnhancer::histSetLimit(int value) { mHistogram->SetLimit(value); }
void OmbrixImageEnhancer::histSetLimit2(int value) { mHistogram->SetLimit2(value); }
void OmbrixImageEnhancer::histSetGain(int value) { mHistogram->SetGain(value); }
void OmbrixImageEnhancer::histSetGainLow(int value) { mHistogram->SetGainLow(value); }
void OmbrixImageEnhancer::histSetGainHigh(int value) { mHistogram->SetGainHigh(value); }
void OmbrixImageEnhancer::histSetTest(int value) { mHistogram->SetTest(value); }
void OmbrixImageEnhancer::histSetHW(int value) { mHistogram->SetHW(value); }

void OmbrixImageEnhancer::peakSetEnabled(int value) { mPeaking->SetEnable(value); }
void OmbrixImageEnhancer::peakSetGain(int value) { mPeaking->SetGain(value); }
void OmbrixImageEnhancer::peakSetCoring(int value) { mPeaking->SetCoring(value); }
void OmbrixImageEnhancer::peakSetLimit(int value) { mPeaking->SetLimit(value); }
void OmbrixImageEnhancer::peakSetWidth(int value) { mPeaking->SetWidth(value); }
void OmbrixImageEnhancer::peakSetReductThres(int value) { mPeaking->SetReductThres(value); }
void OmbrixImageEnhancer::peakSetReductGain(int value) { mPeaking->SetReductGain(value); }

} // namespace kro
} // namespace velmor
