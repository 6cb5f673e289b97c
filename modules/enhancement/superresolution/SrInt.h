#pragma once

#include <vector>

#include <opencv2/core.hpp>

#include "DebugChannel.h"
#include "Fixpoint.h"
#include "KroLibExport.h"
#include "OwnedMat.h"
#include "PointF.h"
#include "SrIntMinimization.h"
#include "SrIntOptions.h"
#include "SrIntRegistration.h"
#include "StopWatch.h"
#include "SuperResolutionBadPixelHandling.h"

namespace velmor {
namespace kro {

// The fixed-point multi-frame super-resolution engine: 16-bit frames in, one
// 16-bit frame of (width * factor) x (height * factor) out, with integer
// registration and an integer total-variation solve whose arithmetic follows
// a hardware implementation.
//
//   SrInt<SrIntRegistration, SrIntMinimization> engine(160, 120, 5, 2.0f);
//   for (each frame) {
//       engine.addFrame(frame);           // copies the frame; 0, or -8
//       int code = engine.computeSr(out); // 0, -3, -6, -998 or the minimiser's code
//   }
//
// Every frame is registered against the newest frame of the window, so the
// result is aligned with the newest frame; the reference index (counted back
// from the newest, default 0) picks the frame whose mean and spread
// normalise the solve.
//
// computeSr returns a status:
//    0    success;
//   -3    a frame has half or more of its pixels masked out (result written);
//   -6    a frame is displaced too far: |x| or y above height / 10 in input
//         pixels (result written; -6 wins over -3). Only a positive y counts:
//         the asymmetric test is intended;
//   -998  the registration reported failure (result untouched);
//   other negative values come from the minimiser (result untouched).
// Exceptions of the registration and the minimiser (velmor::kro::Exception,
// e.g. "Not enough stable correspondences") pass through unchanged. Setters
// reject bad values by throwing the message as a `const char*` and change
// nothing.
//
// The engine owns all its buffers (allocated by the constructor) and is
// copyable. One engine serves one caller at a time; its inner loops run on
// the library's parallel layer with results independent of the thread
// count. Debug channel "SrInt": step traces and timings at level 11.
template <typename Registration, typename Minimization>
class KROLIB_EXPORT SrInt : public DebugChannel {
public:
    // A windowSize of 0 or less throws "Invalid reference index specified."
    // (after every member is built).
    SrInt(int width, int height, int windowSize, float factor);
    // An engine with every setting of `options` applied; throws the message
    // of options.validate() as a `const char*` when a value is refused.
    SrInt(int width, int height, const SrIntOptions& options, float factor = 2.0f);
    SrIntOptions getOptions() const;

    // Adds one height x width frame (copied). Returns 0, or -8 when the
    // frame's grey values left the registration's 8-bit mapping while more
    // than one frame was held: the window is then emptied and holds only
    // this frame's successors. Throws Exception for a frame of another size.
    int addFrame(const cv::Mat_<short>& frame);

    // Reconstructs from the frames held (at least one) into `result`,
    // (re)created as outputHeight x outputWidth. See the class comment.
    int computeSr(cv::Mat_<short>& result);

    // True when (maximum - minimum) of the frame is at least the structure
    // threshold (default 2.0).
    bool checkImageStructureQuality(const cv::Mat_<short>& frame) const;
    void clearFrames();

    // The registration's validity masks of the last computeSr, one per
    // window slot (1 = pixel used, 0 = dropped); `out` is resized to the
    // window size.
    void getMasks(std::vector<cv::Mat_<unsigned char>>& out) const;
    // Shift of frame i against the newest frame after the last computeSr
    // (input pixels). The frame just before the newest reports (0, 0): its
    // pairwise shift is not accumulated into its total (intended; its
    // rounded and sub-pixel shifts are set). Unchecked index.
    PointF getTotalShift(unsigned int i) const { return totalShifts[i]; }
    cv::Point_<short> getRoundedTotalShift(unsigned int i) const { return roundedShifts[i]; }
    PointF getSubPixelShift(unsigned int i) const { return subPixelShifts[i]; }

    short getCumIters() const;
    int getMaxCGIters() const;
    float getPsfSigma() const;
    float getRegError() const;
    float getRelativeResidue() const;
    float getWeightTV() const;
    int getReferenceIndex() const { return referenceIndex; }
    int getWindowSize() const { return windowSize; }
    int getInputSize() const { return inputSize; }
    int getOutputSize() const { return outputSize; }
    int getOutputWidth() const { return outputWidth; }
    int getOutputHeight() const { return outputHeight; }
    int getFrameCount() const { return frameCount; }
    float getMinStructureThreshold() const { return minStructureThreshold; }
    bool getSkipMinimization() const { return skipMinimization; }

    // Each setter throws its message as a `const char*` for a value outside
    // the range given and then changes nothing.
    void setMaxCGIters(int iterations);        // >= 1 (above 32767 counts as 32767)
    void setMinStructureThreshold(float threshold);
    void setPsfSigma(float sigma);             // > 0, output pixels
    void setReferenceIndex(int index);         // 0 .. windowSize-1
    void setRegError(float error);             // (0, 1]
    void setRelativeResidue(float residue);    // >= 1e-6
    void setSkipMinimization(bool skip);
    // >= 1 here; the minimiser then accepts only 1 to 600 and throws
    // Exception("invalid value given for setWeightTV (allowed: 1-600)").
    void setWeightTV(float weight);
    // Threads of the inner loops: 0 (default) OpenMP's default, n > 0 at
    // most n. Results never depend on it.
    void setThreads(int threads);              // >= 0
    int getThreads() const { return threadCount; }

    // Wall-clock milliseconds of the last computeSr's registration and
    // minimisation (0 for a step that did not run); for reports.
    double getLastRegistrationMilliseconds() const { return lastRegistrationMs; }
    double getLastMinimizationMilliseconds() const { return lastMinimizationMs; }

    const Registration& getRegistration() const { return registration; }
    const Minimization& getMinimization() const { return minimization; }

private:
    void sendTiming(const char* label, double seconds);
    int checkRegistration();

    Registration registration;
    Minimization minimization;
    // Kept for the engine's layout; the fixed-point reconstruction does not
    // repair bad pixels.
    SuperResolutionBadPixelHandling badPixels;
    int width;
    int height;
    int inputSize;
    int outputWidth;
    int outputHeight;
    int outputSize;
    int windowSize;
    float factor;
    int referenceIndex = 0;
    float minStructureThreshold = 2.0f;
    // Copies of the engine are deep: every matrix member owns its pixels.
    OwnedMatVector<cv::Mat_<short>> frames;            // the window, oldest first
    OwnedMatVector<cv::Mat_<short>> registeredFrames;  // moved by the rounded shifts
    std::vector<PointF> totalShifts;
    std::vector<PointF> subPixelShifts;
    std::vector<cv::Point_<short>> roundedShifts;
    OwnedMatVector<cv::Mat_<signed char>> masks;
    int frameCount = 0;
    bool skipMinimization = false;
    int threadCount = 0;

    // Work buffers of computeSr, allocated once.
    std::vector<cv::Point_<Fixpoint>> fixSubPixelShifts;
    std::vector<cv::Point_<Fixpoint>> fixTotalShifts;
    // Headers of the first frameCount masks and float frames, rebuilt by
    // every computeSr (no pixels of their own).
    std::vector<cv::Mat_<signed char>> usedMasks;
    std::vector<cv::Mat_<float>> usedFrames;
    OwnedMatVector<cv::Mat_<float>> floatFrames;
    OwnedMat<cv::Mat_<float>> floatResult;
    StopWatch stepWatch;
    double lastRegistrationMs = 0.0;
    double lastMinimizationMs = 0.0;
};

extern template class SrInt<SrIntRegistration, SrIntMinimization>;

} // namespace kro
} // namespace velmor
