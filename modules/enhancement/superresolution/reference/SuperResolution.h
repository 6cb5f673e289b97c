#pragma once

#include <vector>

#include <opencv2/core.hpp>

#include "DebugChannel.h"
#include "KroLibExport.h"
#include "OwnedMat.h"
#include "PointF.h"
#include "SrResultCodes.h"
#include "StopWatch.h"
#include "SuperResolutionBadPixelHandling.h"
#include "SuperResolutionMinimization.h"
#include "SuperResolutionRegistration.h"

namespace velmor {
namespace kro {

// The reference super-resolution engine: the float engine's method (phase
// correlation and optical-flow registration, total-variation minimisation,
// bad-pixel repair; see SrFloat) with conversion of non-uniformity-corrected
// raw values (NUC) to radiance by a per-pixel two-point calibration, a
// one-call path from a raw frame to the result, a map of how the frames
// cover the sub-pixel phases, and a fallback output.
//
//   SuperResolution engine(160, 120, 5, 2.0f);
//   engine.setNucToRad(rawLow, radianceLow, rawHigh, radianceHigh);
//   for (each raw frame) {
//       float q = engine.processFrame2(raw, result);  // 320 x 240 radiances
//       engine.getQuality(map);                        // 3 x 3 phase coverage
//   }
//
// The engine holds the `nFrames` most recent frames (oldest first) with
// their spectra, and registers them against the frame `referenceIndex`
// places back from the newest (default 0: the newest). computeSR returns the
// quality figure of SrFloat (1 + mean coverage gain, 2.0 when five frames
// cover every pixel) or a negative value:
//   -6  a frame is displaced by more than a tenth of the height (x either
//       way, y downwards only: as SrFloat), or
//   -3  a frame has half or more of its pixels masked out;
//       for both the reconstruction goes on and `out` holds it;
//   -4  (kFlatReference) the reference frame is constant: there is nothing
//       to normalise by and nothing to register;
//   -7  (kTooLargeDisplacement) a frame is displaced by half the height or
//       more, beyond what the registration can cut;
//  -10  (kNonFiniteSpectrum) a frame's spectrum holds infinite or NaN values
//       (its samples are too large for float sums);
//       for these three computing stops ("abort computeSR") and `out` holds
//       simpleCombine(): the pixel-replicated average of the held frames,
//       which is exact for a flat scene and the least surprising picture
//       otherwise, so that a video stream always gets a frame.
// Exceptions of the components (velmor::kro::Exception, cv::Exception) pass
// through; the setters throw velmor::kro::Exception with the messages listed
// at them.
//
// Traces on the channel "SuperResolution" (the reasons for a code or a
// stop at level 2; step traces, timings and the masked counts at
// kDebugLevelTrace), in this order:
//   "++++++++++ SuperResolution ++++++++++", "start computeSR";
//   "FFT resulted in infinite values. No processing possible" (abort);
//   "Reference frame is constant. Cannot compute SR." (abort);
//   "    calling doRegistration(<frames>, <reference position>)",
//   " registration:          <ms> [ms]";
//   "Too large image displacement. Cannot compute SR." (abort);
//   per frame "Num masked pixel <n> ratio: <r>", "Too many masked pixels!"
//   when r >= 0.5; "Large image displacement (not too large at all)." when
//   some frame passes a tenth of the height; " large_displacement:    <ms> [ms]";
//   "    calling minimize()", the minimiser's traces (its own channel),
//   " minimization:          <ms> [ms]"; "    calling saveFrame()",
//   " save+srfactor calc:    <ms> [ms]";
//   "+++++++++++++++++++++++++++++" and "end computeSR", or after an abort
//   the simple combination, "+++++++++++++++++++++++++++++" and
//   "abort computeSR".
// addFrame sends "BadPixelHandler discovered really bad pixel." (level 2)
// when the bad-pixel detector could not repair a defect of the new frame.
//
// The engine owns all its buffers (allocated by the constructor; nothing is
// allocated per frame) and is copyable. One engine serves one caller at a
// time; its inner loops share their rows among setThreads() threads with
// results that do not depend on the count.
class KROLIB_EXPORT SuperResolution : public DebugChannel {
public:
    static constexpr int kFlatReference = -4;
    static constexpr int kTooLargeDisplacement = -7;
    static constexpr int kNonFiniteSpectrum = -10;
    // The magnification the quality map, the simple combination and the
    // bad-pixel masks are laid out for.
    static constexpr float kFactor = 2.0f;
    // The calibration's marker for a pixel whose two raw values are equal.
    static constexpr float kNucToRadInvalid = -1000.0f;

    // Frames of width x height (even width, both sides at least 12), a
    // window of nFrames >= 1 frames, magnification `factor` (2 only). Throws
    // Exception otherwise.
    SuperResolution(int width, int height, int nFrames, float factor);

    // The two-point calibration, per pixel: raw values nuc1 and nuc2 (the
    // camera's signed 16-bit NUC values) seen at the radiances rad1 and rad2.
    // gain = (rad2 - rad1) / (nuc2 - nuc1), offset = rad1 - gain * nuc1; a
    // pixel with nuc1 == nuc2 gets kNucToRadInvalid for both. Then each
    // matrix is repaired on its own, in row-major order and in place: a value
    // v <= -1000 or v >= 1000 (NaN is neither) becomes the mean of those of
    // its four direct neighbours (left, right, above, below) that lie
    // strictly inside (-1000, 1000), so a value repaired earlier counts for
    // the later ones; with no such neighbour it becomes 0/0 (NaN), left so
    // on purpose: the radiance of that pixel is then NaN, which the
    // bad-pixel detector repairs in every frame. Throws Exception when a
    // matrix is empty or not of the frame size; nothing is changed then.
    void setNucToRad(const cv::Mat_<short>& nuc1, const cv::Mat_<float>& rad1, const cv::Mat_<short>& nuc2,
                     const cv::Mat_<float>& rad2);
    bool hasNucToRad() const;
    // The calibration (empty matrices before setNucToRad).
    void getNucToRad(cv::Mat_<float>& gain, cv::Mat_<float>& offset) const;

    // One raw frame (width x height signed 16-bit NUC values, row-major) to
    // radiance (raw * gain + offset per pixel), added to the window, then
    // computeSR into `result` (getOutputSize() floats). Returns computeSR's
    // value (the detector's -2 of the new frame is not reported here).
    // Throws Exception "NucToRad() not initialized" before setNucToRad.
    float processFrame2(const short* raw, float* result);
    // The radiance of the last frame processFrame2 converted.
    void getRadiance(cv::Mat_<float>& out) const;

    // Adds one frame of height x width samples (copied, as float). Returns
    // 0, or -2 when the bad-pixel detector could not repair every defect
    // (the frame is still added). T is short or float.
    template <typename T>
    int addFrame(const T* frame);
    // As above; throws Exception unless the matrix is height x width.
    template <typename T>
    int addFrame(const cv::Mat_<T>& frame);

    // Reconstructs from the frames held (at least one; Exception otherwise)
    // into `out` (getOutputSize() samples, row-major; short output is
    // rounded and saturated). See the class comment for the value.
    template <typename T>
    float computeSR(T* out);
    // As above; (re)creates `out` as outputHeight x outputWidth.
    template <typename T>
    float computeSR(cv::Mat_<T>& out);

    // True when the image's range (maximum - minimum) is at least the
    // structure threshold (default 2.0, in the image's units).
    template <typename T>
    bool checkImageStructureQuality(const cv::Mat_<T>& image) const;

    // Forgets the frames held; buffers are kept.
    void clearFrames();

    // The 3 x 3 map of the last registration: cell (1 + j, 1 + i) for
    // i, j in {-1, 0, 1} is the share of the frames whose residual shift lies
    // at half-pixel phase (i/2, j/2), the shifts being spread over the
    // neighbouring cells by bilinear weights. All ones in the middle cell
    // means every frame sits on the reference's grid (no gain in
    // resolution); weight spread over the cells means the frames sample the
    // finer grid. Zeros before the first registration and after an abort
    // before it.
    void getQuality(cv::Mat_<float>& q) const;

    // The fallback output, into the result buffer: output pixel (row, col)
    // is the mean of the held frames' samples at (row / 2, col / 2). Throws
    // Exception when no frame is held.
    void simpleCombine();
    // The result buffer: the last reconstruction or simple combination
    // (outputHeight x outputWidth floats).
    void getResult(cv::Mat_<float>& out) const;

    // Chooses the kind of data of the bad-pixel detector (NUC raw counts or
    // radiance, the default); see SuperResolutionBadPixelHandling.
    void setDataIsNUC(bool isNUC);

    // Each setter throws velmor::kro::Exception with the message given and
    // then changes nothing.
    void setPsfSigma(float sigma);          // > 0: "Invalid standard deviation of the sensor psf specified."
    void setRegError(float error);          // (0, 1]: "Invalid maximum registration error specified."
    void setRelativeResidue(float residue); // >= 1e-6: "Invalid total-variation term weight specified."
                                            // (the TV weight's text: intended, callers match on it)
    void setWeightTV(float weight);         // >= 1: "Invalid total-variation term weight specified."
    void setMaxCGIters(int iterations);     // >= 1: "Invalid maximum number of iterations specified."
    void setReferenceIndex(int index);      // 0 .. nFrames-1: "Invalid reference index specified."
    void setMinStructureThreshold(float threshold);
    // Threads of every inner loop: 0 (the default) takes OpenMP's default
    // for a new parallel region, n > 0 at most n. Throws for n < 0.
    void setThreads(int threads);

    float getPsfSigma() const;
    float getRegError() const;
    float getRelativeResidue() const;
    float getWeightTV() const;
    int getMaxCGIters() const;
    int getReferenceIndex() const { return referenceIndex; }
    float getMinStructureThreshold() const { return minStructureThreshold; }
    int getThreads() const { return threadCount; }

    // The complete shift of each held frame of the last registration (before
    // the integer part was cut off), in low-resolution pixels.
    void getCompleteShifts(std::vector<PointF>& out) const;
    // The validity masks of the last registration, one per window position
    // (1 = pixel used, 0 = dropped); `out` is resized to at least nFrames.
    void getMasks(std::vector<cv::Mat_<unsigned char>>& out) const;
    // This engine's channel and those of its minimiser, to configure them
    // together.
    std::vector<DebugChannel*> getInternalDebugChannelObjects();

    int getWindowSize() const { return windowSize; }
    int getFramesLoaded() const { return framesLoaded; }
    int getInputSize() const { return inputSize; }
    int getOutputWidth() const { return outputWidth; }
    int getOutputHeight() const { return outputHeight; }
    int getOutputSize() const { return outputSize; }
    // Wall-clock milliseconds of the last computeSR's registration and
    // minimisation (0 for a step that did not run).
    double getLastRegistrationMilliseconds() const { return lastRegistrationMs; }
    double getLastMinimizationMilliseconds() const { return lastMinimizationMs; }

private:
    friend class SuperResolutionPeer;

    template <typename T>
    int loadFrame(const T* frame);
    template <typename T>
    void saveFrame(T* out) const;
    void NucToRad(const cv::Mat_<short>& raw);
    void computeQuality_();
    // The reconstruction proper (computeSR without the output and the
    // quality figure): fills `result` and returns 0, -3 or -6, or the code
    // of an abort (`aborted` set, `result` holding the simple combination).
    int reconstruct(bool& aborted);
    int abortWith(int code, bool& aborted);
    int displacementAndCoverage();
    float qualityFigure() const;
    void refreshPointers();
    void log(const std::string& text);
    void traceTime(const char* label, double seconds);

    SuperResolutionBadPixelHandling badPixels;
    SuperResolutionRegistration registration;
    SuperResolutionMinimization minimization;
    int width;
    int height;
    int inputSize;
    int outputWidth;
    int outputHeight;
    int outputSize;
    int spectrumSize;
    int windowSize;
    float factor;
    int framesLoaded = 0;
    int referenceIndex = 0;
    // The constructor's 2.0: the structure threshold of
    // checkImageStructureQuality, as in SrFloat.
    float minStructureThreshold = 2.0f;
    int threadCount = 0;

    // Owned pixels: a copy of the engine gets its own.
    OwnedMat<cv::Mat_<float>> nucToRadGain;
    OwnedMat<cv::Mat_<float>> nucToRadOffset;
    OwnedMat<cv::Mat_<float>> radiance;
    OwnedMat<cv::Mat_<float>> quality;

    // Frame storage, oldest first; frames, spectra and their finiteness
    // rotate together (whole buffers are swapped, nothing is copied).
    std::vector<std::vector<float>> frames;
    std::vector<std::vector<float>> spectra;  // spectrumSize complex values each
    std::vector<unsigned char> spectrumFinite;
    std::vector<std::vector<float>> workFrames;
    std::vector<std::vector<char>> masks;
    std::vector<float> result;
    std::vector<PointF> shifts;          // residual shifts of the last registration
    std::vector<PointF> completeShifts;  // complete shifts of the last registration
    std::vector<cv::Mat_<float>> frameViews;
    std::vector<cv::Mat_<float>> heldFrames;
    std::vector<float*> framePointers;
    std::vector<float (*)[2]> spectrumPointers;
    std::vector<float*> workFramePointers;
    std::vector<char*> maskPointers;
    StopWatch stepWatch;
    double lastRegistrationMs = 0.0;
    double lastMinimizationMs = 0.0;
};

extern template KROLIB_EXPORT int SuperResolution::addFrame<short>(const short*);
extern template KROLIB_EXPORT int SuperResolution::addFrame<float>(const float*);
extern template KROLIB_EXPORT int SuperResolution::addFrame<short>(const cv::Mat_<short>&);
extern template KROLIB_EXPORT int SuperResolution::addFrame<float>(const cv::Mat_<float>&);
extern template KROLIB_EXPORT float SuperResolution::computeSR<short>(short*);
extern template KROLIB_EXPORT float SuperResolution::computeSR<float>(float*);
extern template KROLIB_EXPORT float SuperResolution::computeSR<short>(cv::Mat_<short>&);
extern template KROLIB_EXPORT float SuperResolution::computeSR<float>(cv::Mat_<float>&);
extern template KROLIB_EXPORT bool SuperResolution::checkImageStructureQuality<short>(const cv::Mat_<short>&) const;
extern template KROLIB_EXPORT bool SuperResolution::checkImageStructureQuality<float>(const cv::Mat_<float>&) const;

} // namespace kro
} // namespace velmor
