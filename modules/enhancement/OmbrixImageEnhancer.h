#pragma once

#include <memory>

#include <opencv2/core.hpp>

#include "DebugChannel.h"
#include "KroLibExport.h"
#include "Matrix.h"

class TnrCmod;
class SprCmod;
class SnrCmod;
class Histogram;
class Peaking;

namespace velmor {
namespace kro {

// The enhancer settings a camera keeps in its internal record, two blocks in
// the camera's order. The defaults are those of
// OmbrixImageEnhancer(width, height), so a default record builds the same
// pipeline.
struct KROLIB_EXPORT CamInternalSettings {
    struct Enhancer {
        int tnrEnable = 2;
        int tnrControlGain = 10;
        int tnrGlobalThreshold = 15;
        int tnrFeedbackFactor = 60;
        int sprEnable = 2;
        int sprThreshold = 22;
        int sprFrameLimit = 16;
        int sprLineLimit = 12;
        int sprDelay = 1;
        int snrEnable = 2;
        int snrGain = 6;
        int histMode = 3;
        int histGain = 4;
        int histGainLow = 19;
        int histGainHigh = 19181;
    };
    struct EnhancerExtra {
        int histWidth = 8;
        int histLimit = 8;
        int histLimit2 = static_cast<int>(0xCDCDCDCDu);
        int reserved[6] = {8, 0, 1, 0, 0, 0};
        int peakEnable = 1;
        int peakCoring = 15;
        int peakGain = 14;
        int peakLimit = 130;
        int peakWidth = 1;
        int peakReductThres = 20;
        int peakReductGain = 30;
        int peakSpare = 0;
    };
    Enhancer enhancer;
    EnhancerExtra enhancerExtra;
};

// The camera's enhancement pipeline built from the bit-exact hardware
// models, run in the hardware's order on every frame:
//
//   input -> TnrCmod -> SprCmod -> SnrCmod -> Histogram (measure, map)
//         -> Peaking (with the histogram's local gains) -> output,
//   then Histogram::Update for the next frame.
//
// Samples are signed 16-bit values held in int (the noise and pattern models
// use the low 16 bits); the histogram maps them to 0..32766 and peaking keeps
// that range. The pipeline owns its models, one width x height int buffer per
// stage and the integer parameters that the noise and pattern models read by
// reference, so a setter takes effect at the next frame.
//
// Frames: processFrame reads the first width x height samples of `in`, row
// by row in memory order, whatever the shape of `in` (a continuous matrix of
// at least that many samples; anything less throws). The conversions into
// and out of the int buffers share rows among setThreads() threads; the
// models run on the calling thread. Results do not depend on the thread
// count. One object serves one thread at a time.
//
// Copies own their models and buffers; the models of a copy read the copy's
// parameters. The histogram and peaking state is copied, the temporal-noise
// and pattern models of a copy start again from their first frame (their
// learnt state is bound to the parameters of the original).
class KROLIB_EXPORT OmbrixImageEnhancer : public DebugChannel {
public:
    // Throws Exception for a width or height below 1.
    OmbrixImageEnhancer(int width, int height);
    // The same pipeline with every value of `settings` instead of the
    // defaults; histogram fields the record does not hold keep the
    // Histogram's own defaults. Throws Exception for a null record.
    OmbrixImageEnhancer(int width, int height, const CamInternalSettings* settings);
    // The two-argument pipeline, then the histogram parameter file and the
    // peaking parameter file applied as the models' SetParam reads them (a
    // null or empty path is skipped; an unreadable file prints the model's
    // message and keeps its values).
    OmbrixImageEnhancer(int width, int height, const char* histogramParameterFile, const char* peakingParameterFile);
    OmbrixImageEnhancer(const OmbrixImageEnhancer& other);
    OmbrixImageEnhancer& operator=(const OmbrixImageEnhancer& other);
    ~OmbrixImageEnhancer() override;

    // Applies a histogram and a peaking parameter file (either path may be
    // null or empty) to the running pipeline, as the models' SetParam do.
    void applyParameterFiles(const char* histogramParameterFile, const char* peakingParameterFile);

    // Enhances one frame. T is short, unsigned short, int, unsigned int,
    // float or double; samples are converted to int by plain conversion
    // (float values must lie within the int range) and back by plain
    // conversion (truncation, no clamping). `out` takes the size of `in`;
    // only its first width x height samples are written (the rest is set to
    // 0). For int frames nothing is copied: the input buffer refers to the
    // data of `in` while the frame is processed, and `out` refers to the
    // pipeline's peaking buffer, which the next frame overwrites.
    template <typename T>
    void processFrame(cv::Mat_<T>& in, cv::Mat_<T>& out);

    // Threads of the conversions: 0 (the default) takes OpenMP's default for
    // a new parallel region, n > 0 at most n. A negative count is refused
    // (false, nothing changed).
    bool setThreads(int threads);
    int getThreads() const { return mThreads; }
    // Threads the last frame's conversions ran on (frames below 16384 pixels
    // run on the calling thread).
    int getLastThreadCount() const { return mLastThreads; }

    TnrCmod* getTNRModule() { return mTnr.get(); }
    SprCmod* getSPRModule() { return mSpr.get(); }
    SnrCmod* getSNRModule() { return mSnr.get(); }
    Histogram* getHistogramObject() { return mHistogram.get(); }
    Histogram* getHistogramDSPMod() { return mHistogramDsp; }
    Peaking* getPeakingDSPMod() { return mPeakingDsp; }

    Matrix<int>* getInputArray() { return &mInput; }
    Matrix<int>* getTNRArray() { return &mTnrOut; }
    Matrix<int>* getSPRArray() { return &mSprOut; }
    Matrix<int>* getSNRArray() { return &mSnrOut; }
    Matrix<int>* getHistoArray() { return &mHistoOut; }
    Matrix<int>* getHistoBinArray() { return &mHistoBins; }
    Matrix<int>* getPeakArray() { return &mPeakOut; }

    // The histogram's tables (Histogram::GetBins and so on); they change
    // with every frame and are reallocated by histSetWidth.
    // Bin counts of the last measurement, in sixteenths of a pixel,
    // 2^histGetWidth() + 1 ints.
    const int* getHistoBinArrayDSP() const;
    // The histogram's two per-level tables: the local gains (second =
    // false, at least 256 doubles) or the cumulative sum the curve is built
    // from (second = true, 2^histGetWidth() doubles).
    const double* getHistoGain(bool second) const;
    // The local-gain table handed to peaking (indexed by grey level >> 7).
    const double* getLocalGain() const;
    // The equalisation curve: 2^histGetWidth() + 1 ints, entry i the mapped
    // value at the lower edge of bin i.
    const int* getHistoEqu() const;
    int histGetWidth() const;

    // 0 before the first frame, 1 afterwards: the models only need to tell
    // the first frame from the others.
    int getFrameCount() const { return mFrameCount; }

    // Parameters of the noise and pattern models; each is clamped to the
    // range the model reads safely (see the models' constants) and takes
    // effect at the next frame.
    void tnrSetCGain(int value);
    void tnrSetGlobal(int value);
    void tnrSetAlpha(int value);
    void sprSetThreshold(int value);
    void sprSetMaxFrame(int value);
    void sprSetMaxLine(int value);
    void snrSetGain(int value);

    // 0 bypasses the model, any other value runs it. A change re-creates the
    // model, which starts again from its first frame.
    void tnrSetBypass(int value);
    void sprSetBypass(int value);
    void snrSetBypass(int value);

    // Histogram parameters, passed to the Histogram's setters (which accept
    // or clamp them). histSetWidth also resizes the bin buffer.
    void histSetMode(int value);
    void histSetWidth(int value);
    void histSetRange(int value);
    void histSetOffset(int value);
    void histSetSpeed(int value);
    void histSetGamma(int value);
    void histSetTridis(int value);
    void histSetRangeDis(int value);
    void histSetPoffdis(int value);
    void histSetLimit(int value);
    void histSetLimit2(int value);
    void histSetGain(int value);
    void histSetGainLow(int value);
    void histSetGainHigh(int value);
    void histSetTest(int value);
    // Note: processFrame measures with the hardware model on every frame,
    // whatever this flag holds.
    void histSetHW(int value);

    // Peaking parameters, passed to the Peaking's setters.
    void peakSetEnabled(int value);
    void peakSetGain(int value);
    void peakSetCoring(int value);
    void peakSetLimit(int value);
    void peakSetWidth(int value);
    void peakSetReductThres(int value);
    void peakSetReductGain(int value);

private:
    void construct(const CamInternalSettings& settings);
    void createBuffers();
    void createTnr();
    void createSpr(int delay);
    void createSnr();
    void resizeBinBuffer();
    void copyFrom(const OmbrixImageEnhancer& other);
    template <typename T>
    void readInput(const cv::Mat_<T>& in);
    template <typename T>
    void writeOutput(const cv::Mat_<T>& in, cv::Mat_<T>& out);
    void processCore();
    int threads() const;  // of the conversions, for this frame size

    int mWidth;
    int mHeight;
    int mReserved1000 = 1000;  // kept from the camera's record, not read
    int mPixelCount;
    int mFrameCount = 0;

    // The input buffer refers either to mInputStorage or, during an int
    // frame, to the caller's data (never owned).
    Matrix<int> mInputStorage;
    Matrix<int> mInput;
    Matrix<int> mTnrOut;
    Matrix<int> mSprOut;
    Matrix<int> mSnrOut;
    Matrix<int> mHistoOut;
    Matrix<int> mHistoBins;
    Matrix<int> mPeakOut;

    std::unique_ptr<TnrCmod> mTnr;
    std::unique_ptr<SprCmod> mSpr;
    std::unique_ptr<SnrCmod> mSnr;
    std::unique_ptr<Histogram> mHistogram;
    std::unique_ptr<Peaking> mPeaking;
    Histogram* mHistogramDsp = nullptr;
    Peaking* mPeakingDsp = nullptr;

    int mTnrEnable = 2;
    int mTnrControlGain = 10;
    int mTnrGlobalThreshold = 15;
    int mTnrFeedbackFactor = 60;
    int mSprEnable = 2;
    int mSprThreshold = 22;
    int mSprFrameLimit = 16;
    int mSprLineLimit = 12;
    int mSprDelay = 1;
    int mSprModelDelay = 1;  // delay of the SPR model now running
    int mSnrEnable = 2;
    int mSnrGain = 6;
    int mReserved[6] = {8, 0, 1, 0, 0, 0};  // kept from the camera's record, not read

    int mThreads = 0;
    int mLastThreads = 1;
};

} // namespace kro
} // namespace velmor
