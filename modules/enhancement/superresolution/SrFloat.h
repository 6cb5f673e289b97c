#pragma once

#include <vector>

#include <opencv2/core.hpp>

#include "DebugChannel.h"
#include "KroLibExport.h"
#include "PointF.h"
#include "SrFloatMinimization.h"
#include "SrFloatOptions.h"
#include "SrFloatRegistration1.h"
#include "SrFloatRegistration2.h"
#include "StopWatch.h"
#include "SuperResolutionBadPixelHandling.h"

namespace velmor {
namespace kro {

// The float multi-frame super-resolution engine.
//
// It holds the `windowSize` most recent low-resolution frames (width x height
// floats each), registers them against a reference frame with `Registration`
// (SrFloatRegistration1: phase correlation and optical flow;
// SrFloatRegistration2: tracked corners and optical flow), and solves for one
// image of (width * magnification) x (height * magnification) floats by
// total-variation minimisation, then repairs bad pixels in it.
//
//   SrFloat<SrFloatRegistration2> engine(160, 120, 5, 2.0f);
//   engine.setReferenceIndex(3);
//   for (each frame) {
//       engine.addFrame(frame);              // copies the frame
//       float q = engine.computeSR(result);  // quality >= 0, or a negative code
//   }
//
// computeSR returns the quality figure (1 + mean coverage gain; 2.0 when all
// five frames cover every pixel at magnification 2) or a negative code:
//   -9  the registration found nothing to track (e.g. flat frames), `out` untouched;
//   -6  a frame is displaced too far (|x| or y above height / 10), `out` filled;
//   -3  a frame has half or more of its pixels masked out, `out` filled;
//   other negative values come from the minimiser, `out` untouched.
// "Too large displacement" (a shift of half the height or more) is thrown as
// velmor::kro::Exception. Setters reject bad values by throwing the message
// as a `const char*` and change nothing.
//
// The engine owns all its buffers (allocated by the constructor; nothing is
// allocated per frame) and is copyable. One engine serves one caller at a
// time; its inner loops use OpenMP.
template <typename Registration>
class KROLIB_EXPORT SrFloat : public DebugChannel {
public:
    SrFloat(int width, int height, int windowSize, float magnification);
    // An engine with every setting of `options` applied (their camera
    // description, when it decodes, gives the blur); throws the message of
    // options.validate() as a `const char*` when a value is refused.
    SrFloat(int width, int height, const SrFloatOptions& options, float magnification = 2.0f);
    // The current settings (the camera text is not kept: its blur is in
    // psfSigma).
    SrFloatOptions getOptions() const;

    // Adds one frame of height x width floats (copied). Returns 0, or -2 when
    // the bad-pixel detector could not repair every defect (the frame is
    // still added).
    int addFrame(const float* frame);
    // As above; the matrix must be height x width. Throws velmor::kro::Exception
    // otherwise.
    int addFrame(const cv::Mat_<float>& frame);

    // Reconstructs from the frames held (at least one) into `out`
    // (getOutputSize() floats, row-major). See the class comment for the value.
    float computeSR(float* out);
    // As above; (re)creates `out` as outputHeight x outputWidth.
    float computeSR(cv::Mat_<float>& out);

    // True when the image's range (maximum - minimum) is at least the
    // structure threshold (default 2.0).
    bool checkImageStructureQuality(const cv::Mat_<float>& image) const;

    // Forgets the frames held; buffers are kept.
    void clearFrames();

    // The registration's validity masks of the last computeSR, one per window
    // position (1 = pixel used, 0 = dropped). `out` is resized to at least
    // the window size.
    void getMasks(std::vector<cv::Mat_<unsigned char>>& out) const;
    // The complete shift of each frame of the last computeSR (before the
    // integer part was cut off), in low-resolution pixels.
    void getCompleteShifts(std::vector<PointF>& out) const;

    int getMaxCGIters() const;
    int getInputSize() const { return inputSize; }
    int getOutputSize() const { return outputSize; }
    int getOutputWidth() const { return outputWidth; }
    int getOutputHeight() const { return outputHeight; }
    float getPsfSigma() const;
    int getReferenceIndex() const { return referenceIndex; }
    float getRegError() const;
    float getRelativeResidue() const;
    float getWeightTV() const;
    int getWindowSize() const { return windowSize; }
    int getFramesLoaded() const { return framesLoaded; }
    float getMinStructureThreshold() const { return minStructureThreshold; }

    // Each setter throws its message as a `const char*` for a value outside
    // the range given, and then changes nothing.
    void setMaxCGIters(int iterations);          // >= 1
    void setPsfSigma(float sigma);               // > 0, in pixels of the output grid (0.683 = 0.34 input pixels)
    void setReferenceIndex(int index);           // 0 .. windowSize-1, counted back from the newest frame
    void setRegError(float error);               // (0, 1]
    void setRelativeResidue(float residue);      // >= 1e-6
    void setWeightTV(float weight);              // >= 1
    void setMinStructureThreshold(float threshold);
    void setDataIsNUC(bool isNUC);
    // Threads of every inner loop (registration, bad-pixel detection,
    // minimisation): 0 (the default) takes OpenMP's default for a new
    // parallel region, n > 0 at most n. Results never depend on it.
    void setThreads(int threads);                // >= 0
    int getThreads() const { return threadCount; }

    // Wall-clock milliseconds that the last computeSR spent in the
    // registration and in the minimisation (0 for a step that did not run,
    // e.g. the minimisation after a failed registration). Measured with a
    // monotonic clock at no allocation; meant for reports and progress
    // displays, not for benchmarks.
    double getLastRegistrationMilliseconds() const { return lastRegistrationMs; }
    double getLastMinimizationMilliseconds() const { return lastMinimizationMs; }

    // Read access for callers that want the parts (timing, diagnostics).
    const Registration& getRegistration() const { return registration; }
    const SrFloatMinimization& getMinimization() const { return minimization; }

private:
    int loadFrame(const float* frame);
    void refreshPointers();

    Registration registration;
    SrFloatMinimization minimization;
    SuperResolutionBadPixelHandling badPixels;
    int width;
    int height;
    int inputSize;
    int outputWidth;
    int outputHeight;
    int outputSize;
    int spectrumSize;
    int windowSize;
    float magnification;
    int referenceIndex = 0;
    float minStructureThreshold = 2.0f;
    int threadCount = 0;

    // Frame storage, oldest first. Rotation swaps whole buffers, so the ring
    // costs no copy; the raw pointer tables below are refreshed before each
    // call that needs them (they point into these vectors).
    std::vector<std::vector<float>> frames;
    std::vector<std::vector<float>> workFrames;
    std::vector<std::vector<char>> masks;
    std::vector<float> result;
    std::vector<PointF> shifts;
    std::vector<PointF> completeShifts;
    std::vector<cv::Mat_<float>> frameViews;
    std::vector<cv::Mat_<float>> heldFrames;  // the first framesLoaded views, for the bad-pixel refill
    std::vector<float*> framePointers;
    std::vector<float*> workFramePointers;
    std::vector<char*> maskPointers;
    int framesLoaded = 0;
    StopWatch stepWatch;
    double lastRegistrationMs = 0.0;
    double lastMinimizationMs = 0.0;
};

extern template class SrFloat<SrFloatRegistration1>;
extern template class SrFloat<SrFloatRegistration2>;

} // namespace kro
} // namespace velmor
