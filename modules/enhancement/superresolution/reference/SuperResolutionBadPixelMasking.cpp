#include "SuperResolutionBadPixelHandling.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "detail/BadPixelStatistics.h"
#include "detail/Throw.h"

// The handler's masking of the enlarged image and its diagnostics: marking
// the pixels whose source pixels were defects, replacing them, painting them
// for display, and the value range of the good pixels.

namespace velmor {
namespace kro {

using namespace detail::badpixel;

void SuperResolutionBadPixelHandling::maskBadPixel(cv::Mat_<float>& sr,
                                                   const std::vector<PointF>& shifts)
{
    if (shifts.size() != defectMaps.size())
        KRO_THROW("maskBadPixel(): number of shifts ist not equal to number of defectMaps");
    if (sr.cols <= 0 || sr.rows <= 0)
        return;

    for (std::size_t k = 0; k < defectMaps.size(); ++k) {
        const cv::Mat_<unsigned char>& map = defectMaps[k];
        for (int y = 0; y < map.rows; ++y) {
            for (int x = 0; x < map.cols; ++x) {
                const unsigned char status = map(y, x);
                if (status == kGood)
                    continue;
                const float Y = (static_cast<float>(y) - shifts[k].y) * 2.0f;
                const float X = (static_cast<float>(x) - shifts[k].x) * 2.0f;
                // Only the centre's row range and the left side are tested; a
                // centre just right of the image still marks the columns its
                // block reaches (intended: the block is clipped pixel by pixel).
                if (!(Y >= 0.0f && Y < static_cast<float>(sr.rows) && X >= 0.0f))
                    continue;
                if (X >= static_cast<float>(sr.cols) + 3.0f)
                    continue; // no column of the block is inside
                const std::uint32_t marker = status == kCameraMarked130   ? kMarkerCold
                                             : status == kCameraMarked129 ? kMarkerHot
                                                                          : kMarkerDetected;
                const int cy = static_cast<int>(std::floor(Y));
                const int cx = static_cast<int>(std::floor(X));
                const int r0 = std::max(0, cy - 3), r1 = std::min(sr.rows - 1, cy + 3);
                const int c0 = std::max(0, cx - 3), c1 = std::min(sr.cols - 1, cx + 3);
                for (int r = r0; r <= r1; ++r) {
                    float* row = sr[r];
                    for (int c = c0; c <= c1; ++c)
                        writeMarker(row[c], marker);
                }
            }
        }
    }
}

void SuperResolutionBadPixelHandling::replaceMaskedPixel(cv::Mat_<float>& sr,
                                                         const std::vector<PointF>& shifts,
                                                         const std::vector<cv::Mat_<float>>& frames)
{
    if (defectMaps.empty())
        KRO_THROW("bad pixel masks not initalized");
    if (shifts.size() != defectMaps.size())
        KRO_THROW("replaceMaskedPixel(): number of shifts (" << shifts.size()
                  << ") is not equal to number of defectMaps (" << defectMaps.size() << ")");
    if (frames.size() != defectMaps.size())
        KRO_THROW("replaceMaskedPixel(): number of frames (" << frames.size()
                  << ") is not equal to number of defectMaps (" << defectMaps.size() << ")");
    for (std::size_t k = 0; k < frames.size(); ++k)
        if (frames[k].rows != height || frames[k].cols != width)
            KRO_THROW("replaceMaskedPixel(): frame " << k << " has size " << frames[k].cols << "x"
                      << frames[k].rows << ", the defect maps " << width << "x" << height);

    for (int y = 0; y < sr.rows; ++y) {
        float* row = sr[y];
        for (int x = 0; x < sr.cols; ++x) {
            if (!isMarker(row[x]))
                continue;
            double sum = 0.0;
            int count = 0;
            for (std::size_t k = 0; k < frames.size(); ++k) {
                const double fx = x * 0.5 + shifts[k].x;
                const double fy = y * 0.5 + shifts[k].y;
                // Truncation toward zero: (-1, 0) maps onto column 0. The range
                // test comes first so that no out-of-range value is converted.
                if (!(fx > -1.0 && fx < width && fy > -1.0 && fy < height))
                    continue;
                const int lx = static_cast<int>(fx);
                const int ly = static_cast<int>(fy);
                if (defectMaps[k](ly, lx) != kGood)
                    continue;
                sum += frames[k](ly, lx);
                ++count;
            }
            if (count > 0)
                row[x] = static_cast<float>(sum / count);
        }
    }
}

void SuperResolutionBadPixelHandling::colorBadPixel(const cv::Mat_<float>& img,
                                                    cv::Mat_<cv::Vec3b>& view)
{
    if (view.rows != img.rows || view.cols != img.cols)
        KRO_THROW("colorBadPixel(): view size " << view.cols << "x" << view.rows
                  << " differs from image size " << img.cols << "x" << img.rows);
    for (int y = 0; y < img.rows; ++y) {
        const float* row = img[y];
        cv::Vec3b* out = view[y];
        for (int x = 0; x < img.cols; ++x) {
            const std::uint32_t bits = bitPattern(row[x]);
            if (bits == kMarkerHot)
                out[x] = cv::Vec3b(0, 0, 255);
            else if (bits == kMarkerCold)
                out[x] = cv::Vec3b(255, 0, 0);
        }
    }
}

void SuperResolutionBadPixelHandling::getMinMaxVal(const cv::Mat_<float>& img, float& min,
                                                   float& max, cv::Point* minPos,
                                                   cv::Point* maxPos) const
{
    bool found = false;
    float lo = 0.0f, hi = 0.0f;
    cv::Point loPos(-1, -1), hiPos(-1, -1);
    for (int y = 0; y < img.rows; ++y) {
        const float* row = img[y];
        for (int x = 0; x < img.cols; ++x) {
            const std::uint32_t bits = bitPattern(row[x]);
            if (!isFinitePattern(bits) || isMarker(row[x]))
                continue;
            const float v = row[x];
            if (!found) {
                lo = hi = v;
                loPos = hiPos = cv::Point(x, y);
                found = true;
                continue;
            }
            if (v < lo) {
                lo = v;
                loPos = cv::Point(x, y);
            }
            if (v > hi) {
                hi = v;
                hiPos = cv::Point(x, y);
            }
        }
    }
    min = lo;
    max = hi;
    if (minPos)
        *minPos = loPos;
    if (maxPos)
        *maxPos = hiPos;
}

} // namespace kro
} // namespace velmor
