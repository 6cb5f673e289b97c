#pragma once

#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include "DebugChannel.h"
#include "Fixpoint.h"
#include "KroLibExport.h"
#include "OwnedMat.h"

namespace velmor {
namespace kro {

// Registration of the fixed-point super-resolution engine.
//
// For every frame of the engine's window it estimates the shift against the
// newest frame in two stages: an integer shift between consecutive frames from
// corners tracked with pyramidal Lucas-Kanade (median, then the mean of the
// flows within 2 pixels of it), then one global Lucas-Kanade step over the
// area the two frames share, computed with exact 64-bit sums and Fixpoint
// arithmetic as the camera's hardware does. Pairwise shifts are accumulated
// into total shifts; every frame is then moved by its rounded shift and gets
// a validity mask.
//
// Sign convention (the same as the float registrations, which the point-
// spread functions of the minimisers assume): a frame whose content is the
// newest frame moved by d, frame(x, y) = newest(x - dx, y - dy), has the
// total shift d. Its moved frame is out(x, y) = frame(x + rx, y + ry) with
// (rx, ry) the rounded shift, zero where nothing moves in, and its sub-pixel
// shift is the remainder d - (rx, ry), in [-0.5, 0.5).
//
// Frames: height x width 16-bit images. prepareFrame maps each frame to 8
// bits with one grey-value mapping per window (the range of the first frame
// plus 10 % on both sides; it only widens, and prepareFrame returns -8 when it
// had to widen while older frames are held: they were mapped differently and
// the caller should empty its window), blurs it with a Gaussian and builds its
// tracker pyramid. Prepared frame i is the caller's frame slot i: both are
// oldest first and rotate together once the window is full.
//
// Each doRegistrationVideo registers the frame before the newest against the
// newest and keeps that pairwise shift; older frames reuse the pairwise shifts
// of earlier calls (they rotate with the window), so a call costs one
// registration. Pairs that no earlier call registered (the caller did not
// register after every frame) are registered from the prepared frames then.
//
// Masks (signed bytes, 1 = use, 0 = drop) are computed in each frame's own
// coordinates: 1 where the frame, moved by its pairwise shift, explains the
// next newer frame. The residual of the Lucas-Kanade step is squared and
// normalised by the gradient energy of the shared area (as the float corner
// registration does, so that regError means the same in both engines), box
// filtered, and compared with regError.
//
// Errors: velmor::kro::Exception with the messages of the steps below (too
// few corners, a result that leaves the integer shift, values out of the
// 16-bit range, bad sizes). An exception leaves the prepared frames and the
// pairwise shifts as they were.
//
// Threads: the pixel loops run through the parallel layer on at most
// getThreads() threads (0 = OpenMP's default, small frames on the calling
// thread); sums are exact 64-bit integers, so results never depend on the
// thread count. Corner search, tracking, blur and pyramids run in the image
// library. One object serves one call at a time; copies are deep.
//
// Buffers are allocated in the constructor; in the steady state (one
// registration per prepared frame) a call allocates only what the image
// library's corner, tracking and filter calls keep for themselves.
class KROLIB_EXPORT SrIntRegistration : public DebugChannel {
public:
    // windowSize 0 (or a count beyond int, a negative size converted) builds
    // an object that refuses frames: the driver reports that size itself.
    // Throws Exception when a frame side is not positive.
    SrIntRegistration(int width, int height, unsigned int windowSize);
    ~SrIntRegistration() override;

    // Maps, blurs and prepares a height x width frame as the newest one.
    // Returns 0, or -8 when the grey-value mapping had to widen while more
    // than one frame is held (the frame is prepared with the wider mapping).
    int prepareFrame(const cv::Mat_<short>& frame);
    // Forgets all prepared frames and the grey-value mapping: the next frame
    // starts a new window.
    void clearFrames();

    // Registers the prepared frames against the newest one. frames holds at
    // least getCount() height x width frames, slot i being prepared frame i.
    // Writes, for every held frame i: subPixelShifts[i], roundedShifts[i],
    // masks[i] (moved with the frame) and movedFrames[i]; totalShifts[i] for
    // every frame except the one before the newest, whose total keeps the
    // value passed in (its pairwise shift is in its rounded and sub-pixel
    // shifts). Output vectors shorter than the window are resized, missing
    // images allocated. Returns 0, or kNoFrames when nothing is prepared.
    int doRegistrationVideo(const std::vector<cv::Mat_<short>>& frames,
                            std::vector<cv::Point_<Fixpoint>>& subPixelShifts,
                            std::vector<cv::Point_<Fixpoint>>& totalShifts,
                            std::vector<cv::Point_<short>>& roundedShifts,
                            std::vector<cv::Mat_<signed char>>& masks,
                            std::vector<cv::Mat_<short>>& movedFrames);

    static constexpr int kNoFrames = -1;
    static constexpr int kMappingWidened = -8;

    // Stored without validation (the driver validates); regErrorFix follows.
    float getRegError() const { return regError; }
    void setRegError(float error);
    // Radius of the Gaussian blur of prepared frames (2 r + 1 taps, sigma
    // sqrt(3 r^2 / 25)); also sets the box filter of the masks (radius
    // (r + 1) / 2). Applies to frames prepared afterwards. Throws Exception
    // for a negative radius.
    int getBlurRadius() const { return blurRadius; }
    void setBlurRadius(int radius);
    // 0: OpenMP's default for a new region; n > 0: at most n (negative
    // values count as 0). Results never depend on it.
    void setThreads(int threads) { threadCount = threads < 0 ? 0 : threads; }
    int getThreads() const { return threadCount; }
    // The most threads any loop of the last prepareFrame or
    // doRegistrationVideo ran on.
    int getLastThreadCount() const { return lastThreads; }
    // Prepared frames held, 0 to the window size.
    int getCount() const { return count; }
    int getWindowSize() const { return windowSize; }

protected:
    // The integer Lucas-Kanade steps, overridable by a hardware model. Images
    // are the tracker's 8-bit base images and 16-bit gradients.
    //
    // Horizontal gradient: (I[c+1] - I[c-1]) >> 1 inside, one-sided
    // differences in the first and last column (0 for a single column).
    // computeDiffX_neon is the eight-lane form of the same (identical
    // results). Throw "invalid Ref or DiffX frame size" unless ref and diffX
    // have the same non-empty size.
    void computeDiffX(const cv::Mat_<unsigned char>& ref, cv::Mat_<short>& diffX);
    virtual void computeDiffX_neon(const cv::Mat_<unsigned char>& ref, cv::Mat_<short>& diffX);
    // The same along columns ("invalid Ref or DiffY frame size").
    void computeDiffY(const cv::Mat_<unsigned char>& ref, cv::Mat_<short>& diffY);
    // Exact sums over all pixels of dx^2, dx dy and dy^2 ("invalid DiffX or
    // DiffY frame size" unless the sizes agree).
    virtual void computeStructureTensor(const cv::Mat_<short>& diffX, const cv::Mat_<short>& diffY,
                                        std::int64_t& sxx, std::int64_t& sxy, std::int64_t& syy);
    // The tensor sums of the gradients outside an overlap: a band of whole
    // rows (rowsX, rowsY) through computeHorizontalRepair and a band of
    // columns beside the overlap's rows (colsX, colsY) through
    // computeVerticalRepair. Zeroes its outputs first; the two helpers add.
    virtual void computeRepair(const cv::Mat_<short>& rowsX, const cv::Mat_<short>& rowsY,
                               const cv::Mat_<short>& colsX, const cv::Mat_<short>& colsY,
                               std::int64_t& sxx, std::int64_t& sxy, std::int64_t& syy);
    virtual void computeHorizontalRepair(const cv::Mat_<short>& diffX, const cv::Mat_<short>& diffY,
                                         std::int64_t& sxx, std::int64_t& sxy, std::int64_t& syy);
    virtual void computeVerticalRepair(const cv::Mat_<short>& diffX, const cv::Mat_<short>& diffY,
                                       std::int64_t& sxx, std::int64_t& sxy, std::int64_t& syy);
    // With t = second - first per pixel: sxt = sum dx t, syt = sum dy t
    // (all four images of one size).
    virtual void computeOpticalFlowSumDiffXtYt(const cv::Mat_<unsigned char>& first,
                                               const cv::Mat_<unsigned char>& second,
                                               const cv::Mat_<short>& diffX, const cv::Mat_<short>& diffY,
                                               std::int64_t& sxt, std::int64_t& syt);
    // Per pixel: r = t - (dx u + dy v) rounded to an integer (u, v the step
    // as Fixpoint values with exponents <= 0), "out of range" when r leaves
    // the 16-bit range; error = r^2 * 2^-errorShift, rounded half up (a
    // negative errorShift multiplies), saturated to 16 bits.
    virtual void computeOpticalFlowError(const cv::Mat_<unsigned char>& first,
                                         const cv::Mat_<unsigned char>& second,
                                         const cv::Mat_<short>& diffX, const cv::Mat_<short>& diffY,
                                         const Fixpoint& u, const Fixpoint& v, int errorShift,
                                         cv::Mat_<short>& error);

private:
    friend class SrIntRegistrationPeer;  // the unit tests' view of the steps

    // The two tracker pyramids (index 0 the previous frame's, 1 the newest
    // frame's) and the prepared frame each was built from (-1: none). A
    // pyramid level reads a border around its pixels that a plain copy would
    // lose, so a copy starts without pyramids and rebuilds them from its
    // prepared frames when it needs them (the build is deterministic).
    struct Pyramids {
        std::vector<cv::Mat> levels[2];
        int frame[2] = {-1, -1};
        Pyramids() = default;
        Pyramids(const Pyramids&) {}
        Pyramids& operator=(const Pyramids&)
        {
            levels[0].clear();
            levels[1].clear();
            frame[0] = frame[1] = -1;
            return *this;
        }
    };

    // Columns [x0, x0 + width) and rows [y0, y0 + height) of one image.
    struct Region {
        int x0 = 0;
        int y0 = 0;
        int width = 0;
        int height = 0;
        bool empty() const { return width <= 0 || height <= 0; }
        cv::Rect rect() const { return cv::Rect(x0, y0, width, height); }
    };

    // Frames and corners.
    void mapTo8Bit(const cv::Mat_<short>& frame, cv::Mat_<unsigned char>& out);
    void sepFilter2D(const cv::Mat_<unsigned char>& in, cv::Mat_<unsigned char>& out);
    void buildPyramid(int pyramid, int frame);
    void ensurePyramid(int pyramid, int frame);
    void registerPair(unsigned int prev, cv::Point_<Fixpoint>& subPixel, cv::Point_<short>& rounded);
    cv::Point_<short> registerWithCorners(unsigned int prev, unsigned int next);
    void extractCorners();
    void trackCorners();
    cv::Point_<short> getMeanFlow(const std::vector<cv::Point_<float>>& flows);
    void accumulateShifts(int newest, std::vector<cv::Point_<Fixpoint>>& subPixelShifts,
                          std::vector<cv::Point_<Fixpoint>>& totalShifts,
                          std::vector<cv::Point_<short>>& roundedShifts);
    void moveImage(const cv::Mat& in, cv::Point_<short> shift, cv::Mat& out);
    void checkRegistrationInput(const std::vector<cv::Mat_<short>>& frames) const;

    // The Lucas-Kanade step.
    void prepareGradientsRefImage(unsigned int pyramid);
    cv::Point_<short> opticalFlow(unsigned int ref, unsigned int cur, cv::Point_<short> intShift,
                                  cv::Point_<Fixpoint>& subPixel, cv::Point_<Fixpoint>& pairShift,
                                  cv::Mat_<signed char>& mask);
    void addTensorSums(const cv::Mat_<short>& diffX, const cv::Mat_<short>& diffY, std::int64_t& sxx,
                       std::int64_t& sxy, std::int64_t& syy);
    void boxingFilterForSmoothing(cv::Mat_<short>& error);
    void boxSepFilter2D(cv::Mat_<short>& image, int radius);
    void computeImageMask(const cv::Mat_<short>& error, cv::Mat_<signed char>& mask, unsigned short threshold);
    int errorShiftFor(std::int64_t energy) const;

    // Threads worth using for `work` elementary operations.
    int threadsFor(std::size_t work);
    // body(rowBegin, rowEnd) over [0, rows) through the parallel layer;
    // records the threads that ran (detail/SrIntRegistrationRows.h).
    template <class F>
    void forRows(int rows, std::size_t opsPerRow, F&& body);

    int width;
    int height;
    int windowSize;
    int count = 0;

    float regError = 0.0001f;
    Fixpoint regErrorFix;
    int blurRadius = 5;
    OwnedMat<cv::Mat_<float>> gaussKernel;

    // Grey-value mapping (v + offset) * scale. lo > hi (an empty range) at
    // construction and after clearFrames, so that the first frame of a
    // window always sets the mapping from its own range: a cleared window
    // starts afresh instead of inheriting a range widened by old scenes.
    float lo;
    float hi;
    float offset = 0.0f;
    float scale = 0.0f;

    OwnedMatVector<cv::Mat_<unsigned char>> preparedFrames;
    Pyramids pyramids;
    std::vector<cv::Point_<float>> corners;
    // The prepared frame the corners lie in (-1: none).
    int cornerFrame = -1;
    // Tracker window (and pyramid border): 21 x 21 as in the float corner
    // registration, large enough for the shifts of a hand-held or
    // vibrating camera at the coarsest of the four levels.
    int winSize = 21;

    std::vector<cv::Point_<Fixpoint>> pairShifts;
    // Whether pairShifts[i] / regMasks[i] hold the registration of frame i
    // against frame i + 1.
    std::vector<unsigned char> pairKnown;
    OwnedMatVector<cv::Mat_<signed char>> regMasks;

    OwnedMat<cv::Mat_<short>> diffX;
    OwnedMat<cv::Mat_<short>> diffY;
    std::int64_t refSxx = 0;
    std::int64_t refSxy = 0;
    std::int64_t refSyy = 0;

    // Scratch: the 8-bit frame before the blur, the error image of the
    // Lucas-Kanade step and the column sums of its box filter, per-row
    // partial sums (three per row), tracker output and flows.
    OwnedMat<cv::Mat_<unsigned char>> mapped;
    OwnedMat<cv::Mat_<short>> errorImage;
    OwnedMat<cv::Mat_<int>> boxColumns;
    std::vector<std::int64_t> rowSums;
    std::vector<cv::Point_<float>> trackedPoints;
    std::vector<unsigned char> trackStatus;
    std::vector<float> trackError;
    std::vector<cv::Point_<float>> flows;
    std::vector<float> medianWork;

    int threadCount = 0;
    int lastThreads = 1;
    // Below this many operations per thread a loop stays on one thread
    // (the unit tests lower it to see small frames split).
    std::size_t minWorkPerThread;
};

} // namespace kro
} // namespace velmor
