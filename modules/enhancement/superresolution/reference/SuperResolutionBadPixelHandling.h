#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include <opencv2/core.hpp>

#include "KroLibExport.h"
#include "PointF.h"

namespace velmor {
namespace kro {

// Finds defective pixels in the low-resolution frames of a super-resolution
// window, repairs them in the frames, marks the places of the super-resolved
// image (magnification 2) that they influenced and refills those places from
// the good samples of all frames.
//
// Use by an engine that holds `nFrames` frames, oldest first:
//   - every new frame:   detectAndReplaceBadPixel(frame)
//   - after minimising:  maskBadPixel(sr, shifts); replaceMaskedPixel(sr, shifts, frames)
//   - when the engine drops all its frames: clearDefectMaps()
//
// Defect maps. One 8-bit map per held frame, of the frame size, in the same
// order as the engine's frames. While fewer than `nFrames` maps exist,
// detectAndReplaceBadPixel appends one; after that it recycles the oldest map
// as the newest, which is exactly how the engine rotates its frame buffers.
// Status per pixel:
//   0  good
//   1  the camera marked the pixel with the pattern 130
//   2  the camera marked the pixel with the pattern 129
//   3  bad for another reason (see "Status 3" below)
//   4  below the lower limit
//   5  above the upper limit
//
// Markers. A marked pixel of a float image carries, as its 32-bit pattern,
// the integer 129, 130 or 132: tiny subnormal numbers that no radiance or
// count reaches, so they survive in float images without colliding with
// data. They are read and written only as bit patterns (never compared or
// produced as float values), so they are found and kept even when the
// process flushes subnormals to zero (FTZ/DAZ). 130 and 129 come from the
// camera (in the super-resolved image: from pixels of status 1 and 2); 132
// marks the influence of a pixel the detector found bad. Code built with
// -ffast-math must not do arithmetic on images that hold markers.
//
// Detector limits. A sample beyond the limits is not a measurement:
//   - radiance data (the default, setDataIsNUC(false)): the limits are the
//     float range, so only +-infinity is beyond them. Radiance has no fixed
//     rail; dead and hot pixels are caught by the local test of status 3.
//   - NUC data (setDataIsNUC(true)): the frames hold non-uniformity-corrected
//     raw counts of a signed 16-bit path. The rails -32768 (underflow, a
//     dead pixel pulled to the floor) and 32767 (the camera's saturation
//     value, a stuck-high pixel) are beyond the limits [-32767, 32766].
//   setLimits overrides them (for example [1, 16382] for a 14-bit sensor);
//   setDataIsNUC resets them to the defaults of the chosen kind of data.
//
// Status 3, in this order of precedence after the markers and the limits:
//   - the value is not a number (a failed calibration gives 0/0);
//   - any other non-zero subnormal pattern (a foreign marker, such as a 132
//     fed back from a super-resolved image, or integer data misread as float);
//   - an isolated outlier, the signature of a dead or hot pixel. Let lo2
//     and hi2 be the second-smallest and second-largest usable values among
//     the pixel's 8 neighbours (smallest and largest when fewer than 5 are
//     usable; at least 3 are needed, so corners are judged too), s = hi2 -
//     lo2 the local spread, t the typical spread of the frame (median of s
//     over the frame, about 1.7 sigma on pure noise) and R the frame's
//     robust range (1st to 99th percentile of its usable values). The pixel
//     is bad when it lies below lo2 - T or above hi2 + T, with
//         T = max(6 t, 0.05 R, min(6 s, 0.25 R)).
//     6 t keeps noise out (a pixel of Gaussian noise would have to lie about
//     10 sigma out); 6 s keeps edges, ramps and texture out; 0.05 R keeps
//     fine detail of a strongly textured scene out; but a sample more than a
//     quarter of the scene's range beyond all its neighbours (a dead pixel
//     near the floor, a hot or stuck pixel near saturation) is bad even in
//     busy texture. On the frame's edge, where the neighbours lie on one side
//     only, the factor 6 becomes 18 and the quarter 0.375. Dropping the most
//     extreme neighbour on each side keeps a pair of adjacent defects from
//     hiding each other. Tuned on real 16-bit driving sequences (160x128 and
//     640x512, 125 frames, scene range about 2500 to 4700 counts, typical
//     spread about 30): no scene pixel was flagged; of pixels set to 0, 991
//     of 992 were found, of pixels raised by 1000 counts 97 %, by 300 counts
//     about 60 %. Milder defects cannot be told from scene detail in one frame.
//     About 4 to 5 ms per 640x512 frame on one core; large frames share
//     their rows among threads, with the same result for any thread count.
//
// Replacement (getReplacementValue_): the median of the good pixels of the
// 3x3 neighbourhood; when none is good (a defect inside a cluster), the
// median of the good pixels of the 5x5 neighbourhood. The median follows
// one side of an edge instead of blurring across it, and it ignores a
// neighbour that is still off. "Good" means status 0 in the frame's map; the
// replacements are computed from the unrepaired frame, so their order does
// not matter.
//
// When a pixel has no good neighbour in its 5x5 neighbourhood, the pixel
// gets a substitute: a 130 marker (status 1, painted blue, a cold pixel) the
// smallest good value of the frame, a 129 marker (status 2, painted red, a
// hot pixel) the largest; neither counts as an error. Any other such pixel
// is "really bad": status 5 gets the largest good value, status 4 the
// smallest, status 3 the value 0, and the detector returns -2. With 11 or
// more really bad pixels it throws and leaves the frame untouched (its map
// is kept, so the maps stay in step with the engine's frames).
//
// Copies are deep (a copied handler does not share maps). Not thread-safe:
// one object serves one call at a time.
class KROLIB_EXPORT SuperResolutionBadPixelHandling {
public:
    // Marker bit patterns in float images.
    static constexpr std::uint32_t kMarkerHot = 129u;      // camera mark, status 2
    static constexpr std::uint32_t kMarkerCold = 130u;     // camera mark, status 1
    static constexpr std::uint32_t kMarkerDetected = 132u; // found by the detector

    enum Status : unsigned char {
        kGood = 0,
        kCameraMarked130 = 1,
        kCameraMarked129 = 2,
        kDefect = 3,
        kBelowLowerLimit = 4,
        kAboveUpperLimit = 5
    };

    // Outlier test (status 3), see above: the tolerance in spreads (6), the
    // contrast floor (0.05 R) and the gross-defect contrast (0.25 R), and
    // the multipliers of the first and the last on the frame's edge.
    static constexpr double kOutlierFactor = 6.0;
    static constexpr double kMinOutlierContrast = 0.05;
    static constexpr double kGrossOutlierContrast = 0.25;
    static constexpr double kEdgeOutlierFactor = 3.0;
    static constexpr double kEdgeGrossFactor = 1.5;
    // The detector accepts at most this many pixels that it can neither
    // replace nor excuse as camera markers; at one more it gives up ("Too
    // many defect pixels. No processing possible.").
    static constexpr int kMaxReallyBadPixels = 10;

    static constexpr float kNucLowerLimit = -32767.0f;
    static constexpr float kNucUpperLimit = 32766.0f;

    // nFrames: the number of frames the engine holds (window size). The
    // constructor accepts any value and allocates nothing, because an engine
    // builds this member before it validates its window size with its own
    // message; the detector refuses to run with 0 frames.
    explicit SuperResolutionBadPixelHandling(unsigned int nFrames);
    SuperResolutionBadPixelHandling(const SuperResolutionBadPixelHandling& other);
    SuperResolutionBadPixelHandling& operator=(const SuperResolutionBadPixelHandling& other);
    ~SuperResolutionBadPixelHandling();

    // Classifies the pixels of the newest frame into its defect map and
    // replaces its bad values in place. Returns 0, or -2 when some pixel that
    // is not a camera marker could not be replaced from its neighbours.
    // Throws on an empty frame, on a frame whose size differs from the
    // existing maps, and with "Too many defect pixels. No processing
    // possible." when 11 or more such pixels were found.
    int detectAndReplaceBadPixel(cv::Mat_<float>& frame);

    // Writes markers into the super-resolved image `sr` (magnification 2):
    // for every defect of map k, the 7x7 block around ((x - shifts[k].x) * 2,
    // (y - shifts[k].y) * 2), clipped to the image. Blocks whose centre row
    // lies outside the image, or whose centre column is negative, are
    // skipped. `shifts` holds one shift per map, in map order.
    void maskBadPixel(cv::Mat_<float>& sr, const std::vector<PointF>& shifts);

    // Replaces every marker of `sr` by the mean of the good samples that the
    // frames have at (x / 2 + shifts[k].x, y / 2 + shifts[k].y), truncated to
    // integers; a marker that no good sample covers keeps its pattern.
    // `frames` are the held low-resolution frames in map order. Throws when
    // no map exists or when the counts or sizes do not match the maps.
    void replaceMaskedPixel(cv::Mat_<float>& sr, const std::vector<PointF>& shifts,
                            const std::vector<cv::Mat_<float>>& frames);

    // Paints camera markers for display: pattern 129 red, 130 blue (BGR);
    // every other pixel of `view`, 132 markers included, is left as it is.
    // `view` must have the size of `img`.
    static void colorBadPixel(const cv::Mat_<float>& img, cv::Mat_<cv::Vec3b>& view);

    // Smallest and largest value of `img`, skipping markers (129, 130, 132)
    // and values that are not finite; positions (x = column, y = row) are
    // optional. When no value qualifies, min and max are 0 and the
    // positions (-1, -1).
    void getMinMaxVal(const cv::Mat_<float>& img, float& min, float& max,
                      cv::Point* minPos = nullptr, cv::Point* maxPos = nullptr) const;

    // Chooses the kind of data and resets the limits to its defaults.
    void setDataIsNUC(bool dataIsNUC);

    // Threads of the detector's loops: 0 (the default) takes OpenMP's
    // default for a new parallel region, n > 0 at most n; small frames run on
    // the calling thread. A negative count is refused (false, nothing
    // changed). Results never depend on it.
    bool setThreads(int threads);
    int getThreads() const { return threadCount; }
    // Threads the last detection ran on.
    int getLastThreadCount() const { return lastThreads; }
    bool getDataIsNUC() const { return dataIsNUC; }

    // Overrides the detector limits; lower must be below upper, neither NaN.
    void setLimits(float lower, float upper);
    float getLowerLimit() const { return lowerLimit; }
    float getUpperLimit() const { return upperLimit; }

    // Drops all defect maps (the engine dropped its frames); the next frame
    // starts a new window. The maps' memory is kept for reuse.
    void clearDefectMaps();

    // The maps of the held frames, oldest first.
    const std::vector<cv::Mat_<unsigned char>>& getDefectMaps() const { return defectMaps; }
    unsigned int getNumberOfFrames() const { return nFrames; }

    // Bit-pattern helpers, safe under FTZ/DAZ: they copy bytes and never do
    // float arithmetic.
    static std::uint32_t bitPattern(const float& value)
    {
        std::uint32_t bits;
        std::memcpy(&bits, &value, sizeof bits);
        return bits;
    }
    static bool isMarker(const float& value)
    {
        const std::uint32_t bits = bitPattern(value);
        return bits == kMarkerHot || bits == kMarkerCold || bits == kMarkerDetected;
    }
    static void writeMarker(float& target, std::uint32_t marker)
    {
        std::memcpy(&target, &marker, sizeof marker);
    }

private:
    bool getReplacementValue_(const cv::Mat_<float>& img, int x, int y, float& value) const;
    void classifyRowByValue_(const cv::Mat_<float>& frame, cv::Mat_<unsigned char>& map, int y) const;
    void classify_(const cv::Mat_<float>& frame, cv::Mat_<unsigned char>& map, float& goodMin,
                   float& goodMax, bool& anyGood);
    // The steps of classify_ (see there).
    struct FrameStatistics {
        std::size_t usable = 0;  // good values
        std::size_t judged = 0;  // good pixels with enough good neighbours
        double typical = 0.0;    // median neighbourhood spread
        double range = 0.0;      // 99th minus 1st percentile of the good values
        bool nanSpread = false;  // some spread is NaN (infinite values)
    };
    void measureRow_(const cv::Mat_<float>& frame, const cv::Mat_<unsigned char>& map, int y,
                     std::uint32_t* spreadBins, std::uint32_t* valueBins, bool& nanSeen);
    void selectStatistics_(const cv::Mat_<float>& frame, const cv::Mat_<unsigned char>& map, int teamSize,
                           int threads, FrameStatistics& stats);
    void markOutlierRow_(const cv::Mat_<float>& frame, cv::Mat_<unsigned char>& map, int y,
                         const FrameStatistics& stats);
    cv::Mat_<unsigned char>& nextDefectMap_(const cv::Mat_<float>& frame);

    unsigned int nFrames;
    // Maps of the held frames, oldest first; the newest is back().
    std::vector<cv::Mat_<unsigned char>> defectMaps;
    // Maps released by clearDefectMaps, reused before allocating new ones.
    std::vector<cv::Mat_<unsigned char>> spareMaps;
    bool dataIsNUC;
    float lowerLimit;
    float upperLimit;
    int width;
    int height;

    // Per-frame scratch, grown once to the frame size and reused. `spreads`
    // only serves the median's fallback for NaN spreads.
    std::vector<float> spreads;
    std::vector<float> lowBounds;
    std::vector<float> highBounds;
    // Per row: the number of usable values and of judged pixels; whether the
    // row has a good pixel, and its smallest and largest good value.
    std::vector<std::size_t> rowValueCount;
    std::vector<std::size_t> rowSpreadCount;
    std::vector<float> rowGoodMin;
    std::vector<float> rowGoodMax;
    std::vector<unsigned char> rowAnyGood;
    // Two-level histograms of the exact selection (16 bits per level).
    std::vector<std::uint32_t> histogram;
    struct Replacement {
        int x;
        int y;
        float value;
    };
    std::vector<Replacement> replacements;
    int threadCount = 0;
    int lastThreads = 1;
};

} // namespace kro
} // namespace velmor
