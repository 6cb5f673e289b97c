#pragma once

#include <exception>
#include <functional>
#include <vector>

#include <opencv2/core.hpp>

#include "KroLibExport.h"
#include "OwnedMat.h"
#include "PointF.h"
#include "SrFloatFft2d.h"

namespace velmor {
namespace kro {

namespace parallel {
class Team;
} // namespace parallel

// Registration of the float super-resolution engine by phase correlation
// and one optical-flow step.
//
// For every held frame it finds the displacement against a reference frame,
// builds a validity mask and writes the frame cut to the integer part of its
// displacement, which is what the minimiser consumes:
//  1. integer shift D: the peak of the phase correlation of the frame's and
//     the reference's spectra (rows past height / 2 and columns past
//     width / 2 wrap to negative shifts);
//  2. sub-pixel remainder: one least-squares optical-flow step between the
//     Gaussian-blurred frame (displaced by D) and the blurred reference,
//     with central-difference gradients of the blurred reference, over the
//     part of their overlap where the two blurs are alike (along an axis with
//     a non-zero shift, the bands where either blur is cut short by the
//     frame border are left out);
//  3. mask: the flow residual per pixel, e = (gx u + gy v + d)^2 / (A + C)
//     (A + C: the gradient energy of the flow region), averaged by a mean
//     filter of radius regErrBlurRadius over the overlap; 1 where that mean
//     is below `regError`, 0 elsewhere. The division by the gradient energy
//     makes the threshold independent of the intensity scale (raw counts or
//     normalised values); the default 1e-4 keeps pixels whose local rms
//     residual is below about sqrt(1e-4 N) times the rms gradient (N pixels:
//     1.4 at 160x120, 5.7 at 640x512), i.e. drops only what the shifted
//     reference does not explain (moving or occluded parts), while a well
//     registered frame keeps well over 95 % of its pixels.
//
// Sign convention (the whole engine uses it): a frame whose content is the
// reference moved by d, frame(x, y) = reference(x - d.x, y - d.y), gets the
// shift d (x to the right, y downwards). Cutting it with
// workFrame[p] = frame[p + k], k = width * round(d.y) + round(d.x) (rounding
// half up), aligns it with the reference up to the sub-pixel remainder left in
// `shifts`, and the minimiser models the work frame as the reference moved by
// that remainder.
//
// Masks: one signed byte per pixel, in the coordinates of the work frame (the
// reference grid): 1 where the pixel is used, 0 where it is dropped. Pixels
// that the cut leaves without data (including those that run on into the
// neighbouring row) and pixels outside the overlap for D are always 0. The
// reference's mask is all ones. A frame whose gradients do not determine a
// sub-pixel step (no structure, or structure in one direction only) keeps
// its integer shift and gets a mask of zeros, which the driver reports as a
// poorly covered frame.
//
// Frame ring: the driver calls prepareFrame for every new frame; the
// registration keeps the spectra of the last `windowSize` frames, oldest
// first, in step with the driver's ring of frames, and clearFrames empties it
// together with the driver's.
//
// Sizes: width must be even (the packed real spectrum is exact only for even
// widths), width and height at least 12 (twice the Gaussian radius plus 2).
// Every buffer is allocated by the constructor (setGaussRadius reallocates
// the small kernel); a registration allocates only inside the shared mean
// filter.
//
// Threads: the per-pixel passes run as OpenMP loops in fixed row blocks,
// small images on the calling thread; sums are accumulated in double per row
// and combined in row order, so results do not depend on the thread count.
// One object serves one call at a time; copies are deep and independent.
class KROLIB_EXPORT SrFloatRegistration1 {
public:
    // Throws Exception when width is odd or below 12, height below 12 or
    // windowSize below 1.
    SrFloatRegistration1(int width, int height, int windowSize);
    // Copies are deep (every buffer is an OwnedMat or a vector), so the
    // compiler's copy and move are the right ones.

    // Radius r of the Gaussian blur before the flow step, with sigma
    // r * sqrt(3) / 5 (default 5, sigma sqrt(3)). Throws Exception, changing
    // nothing, unless 1 <= r and 2 * r + 2 <= min(width, height).
    void setGaussRadius(int radius);
    int getGaussRadius() const { return gaussRadius; }

    // Largest locally averaged flow residual at which a pixel is kept
    // (default 0.0001). Stored as given; the driver validates the range.
    void setRegError(float error) { regError = error; }
    float getRegError() const { return regError; }

    // Threads of the registration's loops and transforms: 0 (the default)
    // takes OpenMP's default for a new parallel region, n > 0 at most n;
    // small frames run on the calling thread. A negative count is refused
    // (false, nothing changed). Results never depend on it.
    bool setThreads(int threads);
    int getThreads() const { return threadCount; }
    // Threads the last registration of a frame ran on.
    int getLastThreadCount() const { return lastThreads; }

    // Radius of the mean filter that averages the residual before the
    // threshold (default 3). Throws Exception for a negative radius.
    void setRegErrBlurRadius(int radius);
    int getRegErrBlurRadius() const { return regErrBlurRadius; }

    // Adds the spectrum of one new frame (width x height floats, only read).
    // With windowSize spectra held, the oldest is dropped. Throws Exception
    // for a null frame.
    void prepareFrame(float* frame);

    // Forgets every prepared frame (the buffers are kept).
    void clearFrames() { framesPrepared = 0; }

    // Registers the `count` held frames against frame `refPos`:
    //  - frames[i]: the held frames, oldest first, in the order of the
    //    prepared spectra (count must equal the number prepared);
    //  - shifts[i]: receives the sub-pixel remainder of frame i's shift after
    //    the cut (in [-0.5, 0.5)); the complete shifts are kept for
    //    getCompleteShifts;
    //  - masks[i]: receives frame i's mask (width * height bytes);
    //  - workFrames[i]: receives frame i cut to its integer shift.
    // Returns 0. Throws Exception "Too large displacement" when a shift
    // reaches half the height (either axis, against height / 2); the work
    // frames are then left untouched. Throws Exception for a count that does
    // not match the prepared frames, a bad refPos or a null pointer.
    int doRegistration(int count, int refPos, float** frames, PointF* shifts, char** masks,
                       float** workFrames);

    // The complete shifts (integer part included) of the last registration,
    // one per frame.
    void getCompleteShifts(std::vector<PointF>& out) const { out = completeShifts; }

    int getWidth() const { return width; }
    int getHeight() const { return height; }
    int getWindowSize() const { return windowSize; }
    int getFramesPrepared() const { return framesPrepared; }

protected:
    // For a registration that is handed the spectra of the frames with each
    // call (the reference engine's): no ring of its own, and prepareFrame
    // refuses to run.
    SrFloatRegistration1(int width, int height);

    // One frame's spectrum (layout of SrFloatFft2d) and 1 / |value| per bin
    // (0 for a bin of magnitude 0; see computeInverseMagnitudes).
    struct SpectrumView {
        const float (*values)[2];
        const float* inverseMagnitude;
    };
    // The spectrum of held frame i. registerFramesWith asks for the
    // reference's first and keeps it; then for every other frame once, in
    // order, using each view only until the next request.
    using SpectrumSource = std::function<SpectrumView(int frame)>;

    // Registration of `count` frames against frame `refPos` with the given
    // spectra: writes every frame's complete shift into `shifts` and
    // completeShifts and its mask into `masks`; cuts nothing.
    void registerFramesWith(int count, int refPos, float** frames, const SpectrumSource& spectrumOf,
                            PointF* shifts, char** masks);
    // True when every shift lies strictly within half the height on both
    // axes (a non-finite shift does not).
    bool shiftsWithinBound(int count, const PointF* shifts) const;
    void shiftFrame(float* frame, PointF& shift, float* out);
    // out[b] = 1 / |spectrum[b]|, 0 where the magnitude is 0.
    static void computeInverseMagnitudes(const float (*spectrum)[2], int bins, float* out);
    SrFloatFft2d& getFftObject() { return fft; }
    int getSpectrumSize() const { return spectrumSize; }

private:
    friend class SrFloatRegistration1Peer;

    struct RingSize {
        int frames;
    };
    SrFloatRegistration1(int width, int height, RingSize ring);

    // Gradients of the blurred reference and their tensor (per row and in
    // total).
    void initialize();
    // Fills crossSpectrum (phase correlation) and blurredSpectrum (Gaussian
    // blur) from the reference's and the current frame's spectrum.
    void spectralProducts(const SpectrumView& reference, const SpectrumView& current);
    // Phase-correlation peak and flow step of one frame (the correlation
    // surface and blurredCurrent already computed) in one parallel region;
    // writes the frame's mask and returns its complete shift.
    PointF registerFrame(char* mask);

    // The two steps of registerFrame. Every thread of the team calls them
    // and they share the work through orphaned work-sharing loops (called
    // outside a parallel region they run serially); every thread gets the
    // same result.
    //  - phaseCorrelation: the peak of the correlation surface as a shift;
    //  - opticalFlow: the complete shift from the integer shift, and the mask.
    PointI phaseCorrelation(const parallel::Team& team);
    PointF opticalFlow(const parallel::Team& team, PointI shift, char* mask);
    // The steps of opticalFlow.
    // sums: xx, xy, yy, gx It, gy It over the flow region.
    void flowRegionSums(const parallel::Team& team, PointI shift, int fx0, int fx1, int fy0, int fy1,
                        double* sums);
    void flowError(const parallel::Team& team, PointI shift, double dx, double dy, double energy,
                   const cv::Rect& overlap);
    void flowMask(const parallel::Team& team, const cv::Rect& cells, char* mask);

    // Ring position -> spectrum, and its inverse magnitudes.
    float (*spectrum(int position))[2];
    const float* inverseMagnitude(int position) const;

    // Peak index (row-major) of the correlation surface -> signed shift:
    // rows above height / 2 and columns above width / 2 wrap to negative.
    static PointI unwrapPeak(int index, int width, int height);

    int width;
    int height;
    int inputSize;
    int windowSize;
    int framesPrepared;
    int spectrumSize;
    float regError;
    int gaussRadius;
    int regErrBlurRadius;

    // windowSize spectra (height x (width / 2 + 1) complex, CV_32FC2), in
    // ring order: spectra[0] is the oldest.
    std::vector<OwnedMat<cv::Mat>> spectra;
    // For each spectrum, 1 / |value| per bin (0 where the value is 0), for
    // the phase correlation; made once per frame by prepareFrame rather than
    // in every registration the frame takes part in.
    std::vector<OwnedMat<cv::Mat>> inverseMagnitudes;
    SrFloatFft2d fft;
    OwnedMat<cv::Mat> gaussSpectrum;
    OwnedMat<cv::Mat> crossSpectrum;
    // The current frame's spectrum times gaussSpectrum.
    OwnedMat<cv::Mat> blurredSpectrum;

    OwnedMat<cv::Mat_<float>> correlation;
    OwnedMat<cv::Mat_<float>> blurredReference;
    OwnedMat<cv::Mat_<float>> blurredCurrent;
    OwnedMat<cv::Mat_<float>> gradX;
    OwnedMat<cv::Mat_<float>> gradY;
    OwnedMat<cv::Mat_<float>> errorImage;
    OwnedMat<cv::Mat_<float>> blurredError;

    std::vector<float> kernel;

    float tensorXX;
    float tensorXY;
    float tensorYY;

    std::vector<PointF> completeShifts;

    // Per-row partial results of the ordered reductions: the reference's
    // gradient tensor (xx, xy, yy), the flow sums (bx, by, and the tensor of
    // the excluded columns), the row maxima of the correlation surface.
    std::vector<double> rowTensor;
    std::vector<double> rowFlow;
    std::vector<float> rowPeakValue;
    std::vector<int> rowPeakIndex;
    // An exception raised inside a parallel region, rethrown after it.
    std::exception_ptr regionFailure;
    int threadCount = 0;
    int lastThreads = 1;
};

} // namespace kro
} // namespace velmor
