#pragma once

#include <exception>
#include <vector>

#include <opencv2/core.hpp>

#include "KroLibExport.h"
#include "PointF.h"

namespace velmor {
namespace kro {

namespace parallel {
class Team;
} // namespace parallel

// Registration of the float super-resolution engine by tracked corners.
//
// For every held frame it finds the displacement against a reference frame in
// two stages: a robust integer shift from the corners of the reference
// tracked with pyramidal Lucas-Kanade optical flow (median, then the mean of
// the displacements within 2 pixels of the median, rounded), then the
// sub-pixel remainder from one dense least-squares optical-flow step over the
// area that the frame and the reference share. It also builds a validity mask
// per frame and cuts every frame to its integer shift, so that the minimiser
// only sees sub-pixel residual shifts.
//
// Sign convention: a frame whose content is the reference moved by +d,
// frame(x, y) = reference(x - dx, y - dy), gets the shift d. Cutting it with
// out[p] = frame[p + round(d)] (doRegistration) aligns it to the reference up
// to the sub-pixel remainder, which is the shift the minimiser models.
//
// Frames: width x height floats, row-major. The object keeps a ring of at
// most nFrames prepared frames (a blurred copy and an 8-bit Lucas-Kanade
// pyramid of each) that stays in step with its caller's ring of frames:
// prepareFrame appends the newest frame and, once the ring is full, first
// drops the oldest, so prepared frame i is always the caller's frame i.
//
// Masks: width x height signed bytes per frame, in the coordinates of the
// frame after the cut (the reference grid): 1 where the frame, aligned by its
// shift, matches the reference; 0 where the frame has no data after the cut or
// the alignment leaves a large residual (occlusion, moving objects, borders).
//
// Mask rule: with the sub-pixel step (rx, ry) and the blurred images R
// (reference) and F (frame cut to the integer shift), the residual left after
// the step at pixel p is e(p) = (F(p) - R(p) + gx(p) rx + gy(p) ry)^2 / (Sxx +
// Syy), where gx, gy are the central-difference gradients of R and Sxx + Syy
// their energy summed over the N pixels of the shared area. The normalisation
// makes e independent of the intensity scale of the camera. e is averaged
// over a (2 regErrBlurRadius + 1)^2 window and a pixel is kept when the mean
// is below regError (default 0.0001). Per pixel this keeps residuals below
// sqrt(regError * N) times the RMS gradient of the reference: about 1.4 at
// 160x120 and 5.7 at 640x512 with the default, so noise and sub-pixel
// interpolation pass while occlusions, moving objects and border effects are
// dropped.
//
// Errors: velmor::kro::Exception for bad arguments and for a displacement
// of half the frame height or more ("Too large displacement");
// doRegistration returns -9 when no corner of the reference can be tracked
// into some frame (flat or featureless frames).
//
// Threads: the dense steps run as OpenMP loops, all in one parallel region
// per registration (small frames on the calling thread); sums are kept per
// row in double and combined in row order, so results do not depend on the
// number of threads. The corner search and tracking run in the image
// library. One object serves one call at a time; copies are deep and
// independent.
//
// Work buffers are allocated in the constructor; a registration allocates
// nothing of its own (the image library's corner and tracking calls and the
// mean filter keep their own temporaries).
class KROLIB_EXPORT SrFloatRegistration2 {
public:
    // width x height frames, at most nFrames prepared at once. Throws
    // Exception when a size or nFrames is not positive.
    SrFloatRegistration2(int width, int height, int nFrames);
    SrFloatRegistration2(const SrFloatRegistration2& other);
    SrFloatRegistration2& operator=(const SrFloatRegistration2& other);
    SrFloatRegistration2(SrFloatRegistration2&&) = default;
    SrFloatRegistration2& operator=(SrFloatRegistration2&&) = default;
    ~SrFloatRegistration2();

    // Registers frames[0 .. nFrames) against frames[refIndex]. nFrames must
    // equal the number of prepared frames, and frame i must be the frame
    // prepared i-th in the ring. Writes shifts[i] (the sub-pixel remainder
    // after the cut), masks[i] (width*height bytes) and shifted[i] (the frame
    // cut to its integer shift, width*height floats); the complete shifts are
    // kept for getCompleteShifts. Returns 0, or -9 when some frame has no
    // tracked corner (then nothing is shifted and the masks are left as they
    // were). Throws Exception "Too large displacement" when a shift reaches
    // half the frame height in either axis (no frame is cut then), and on bad
    // arguments.
    int doRegistration(int nFrames, int refIndex, float** const frames, PointF* shifts,
                       char** masks, float** shifted);

    // The two-stage search for all frames: writes shifts[i] (complete) and
    // masks[i]. Returns 0 or -9 as doRegistration.
    int registerFrames(int nFrames, int refIndex, float** const frames, PointF* shifts,
                       char** masks);

    // Sets the mask of the reference to all 1 and the masks of the other
    // prepared frames to all 0 (masks holds one array per prepared frame), and
    // computes the reference's gradient images and their row sums for
    // opticalFlow.
    void initialize(char** masks, int refIndex);

    // Blurs one frame (width*height floats), converts it to 8 bits with the
    // series' intensity range and builds its Lucas-Kanade pyramid; see the
    // ring above.
    void prepareFrame(float* frame);

    // Forgets all prepared frames (the intensity range is kept).
    void clearFrames();

    // Finds the corners of the (blurred) reference frame and logs their
    // number ("Num corners: <n>", log level 4).
    void extractCornersRefImage(cv::Mat_<float>& ref);

    // Integer shift of prepared frame `frame` against prepared frame
    // `refIndex` from the corners of the last extractCornersRefImage. Returns
    // 0, or -9 (shift left at (0, 0)) when no corner was tracked.
    int registerWithCorners(unsigned refIndex, unsigned frame, PointI& shift);

    // One dense least-squares step around the integer shift; returns the
    // complete shift and sets mask (width*height bytes) to 1 where the
    // aligned frame matches the reference, leaving the rest as it is (0
    // after initialize). Needs initialize() for refIndex first. When the
    // shared area is empty or carries no usable gradient, the integer shift
    // is returned and the mask is left untouched.
    PointF opticalFlow(unsigned refIndex, unsigned frame, PointI shift, char* mask);

    // Complete shifts of the last registration, one per frame.
    void getCompleteShifts(std::vector<PointF>& out) const;

    // Stored without validation (the driver validates). The blur radius
    // applies to frames prepared afterwards.
    int getBlurRadius() const { return blurRadius; }
    void setBlurRadius(int radius) { blurRadius = radius; }
    float getRegError() const { return regError; }
    void setRegError(float error) { regError = error; }

    // Threads of the registration's loops: 0 (the default) takes OpenMP's
    // default for a new parallel region, n > 0 at most n; small frames run
    // on the calling thread. A negative count is refused (false, nothing
    // changed). Results never depend on it.
    bool setThreads(int threads);
    int getThreads() const { return threadCount; }
    // Threads the last dense step ran on.
    int getLastThreadCount() const { return lastThreads; }
    int getRegErrBlurRadius() const { return regErrBlurRadius; }
    void setRegErrBlurRadius(int radius) { regErrBlurRadius = radius; }

    int getWidth() const { return width; }
    int getHeight() const { return height; }
    int getFrameCapacity() const { return nFrames; }
    // Frames prepared and held, 0 to getFrameCapacity().
    int getPreparedFrames() const { return count; }

private:
    // Reaches the private state from the unit tests.
    friend class SrFloatRegistration2Peer;

    // Integer overlap of the reference and a frame cut to `shift`: columns
    // [x0, x1) and rows [y0, y1) of the reference grid.
    struct Overlap {
        int x0 = 0;
        int x1 = 0;
        int y0 = 0;
        int y1 = 0;
        bool empty() const { return x1 <= x0 || y1 <= y0; }
    };
    Overlap overlapFor(PointI shift) const;

    void validateFrameIndex(long long index, const char* what) const;
    void buildPyramid(int index);
    // The dense steps, written with orphaned work-sharing loops: every thread
    // of the enclosing team calls them (they run serially outside a region).
    // They treat the frames listed in flowFrames together, each loop running
    // over the rows of all of them, so one registration needs few barriers:
    // sums (denseSums), the solves (denseSolve, one thread), residual images
    // (denseResiduals), their mean filters (denseSmooth, whole frames per
    // thread) and the masks (denseMasks).
    void initializeSteps(const parallel::Team& team, char** masks, int refIndex);
    void runDenseSteps(int refIndex, char** initMasks);
    void denseSums(const parallel::Team& team, int refIndex);
    void denseSolve(const parallel::Team& team);
    void denseResiduals(const parallel::Team& team, int refIndex);
    void denseSmooth(const parallel::Team& team);
    void denseMasks(const parallel::Team& team);
    int threadsForFrames(int frames) const;

    // State of the dense step of one frame, shared by the team.
    struct FlowState {
        Overlap area;
        bool valid = false;
        float stepX = 0.0f;
        float stepY = 0.0f;
        float invEnergy = 0.0f;
        PointF result;
    };

    int width;
    int height;
    int size;
    int nFrames;
    int count;

    float regError;
    int blurRadius;
    int regErrBlurRadius;
    int winSize;

    std::vector<cv::Mat> blurred;
    std::vector<std::vector<cv::Mat>> pyramids;
    std::vector<cv::Point2f> corners;

    // Gradients of the blurred reference, and per frame the residual image
    // of the dense step (averaged over the window in place). One residual
    // image per frame lets the frames' mean filters run side by side.
    cv::Mat_<float> gradX;
    cv::Mat_<float> gradY;
    std::vector<cv::Mat_<float>> residuals;

    float rangeMax;
    float rangeMin;
    float scale;
    float offset;

    std::vector<PointF> shifts;

    // The 8-bit image a pyramid is built from.
    cv::Mat image8u;
    // Tracker output and the displacements of the tracked corners.
    std::vector<cv::Point2f> trackedPoints;
    std::vector<unsigned char> trackStatus;
    std::vector<float> trackError;
    std::vector<float> displacementX;
    std::vector<float> displacementY;
    std::vector<float> medianWork;
    // Integer shifts from the corners, one per frame; the frames the dense
    // steps treat and the mask each of them writes.
    std::vector<PointI> cornerShifts;
    std::vector<int> flowFrames;
    std::vector<char*> flowMasks;
    // Row sums of the reference's gx*gx, gx*gy, gy*gy over whole rows, and
    // the five sums of the dense step per frame and row of the shared area.
    std::vector<double> refRowSums;
    std::vector<double> flowRowSums;
    // Index of the prepared frame whose gradients gradX, gradY hold (-1:
    // none; preparing a frame invalidates them since indices move).
    int gradientRef;
    // Dense-step state per frame, and the first failure inside a parallel
    // region (rethrown after it).
    std::vector<FlowState> flowStates;
    std::exception_ptr stepFailure;
    int threadCount = 0;
    int lastThreads = 1;
};

} // namespace kro
} // namespace velmor
