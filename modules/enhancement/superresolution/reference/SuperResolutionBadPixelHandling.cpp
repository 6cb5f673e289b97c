#include "SuperResolutionBadPixelHandling.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "detail/Throw.h"

namespace velmor {
namespace kro {

namespace {

// What a float's bit pattern says about it, found without float arithmetic
// so that subnormal patterns are recognised even under FTZ/DAZ.
enum class Kind { Number, Marker129, Marker130, NotANumber, Subnormal };

constexpr std::uint32_t kExponentMask = 0x7f800000u;
constexpr std::uint32_t kMantissaMask = 0x007fffffu;

Kind kindOf(std::uint32_t bits)
{
    if (bits == SuperResolutionBadPixelHandling::kMarkerHot)
        return Kind::Marker129;
    if (bits == SuperResolutionBadPixelHandling::kMarkerCold)
        return Kind::Marker130;
    const std::uint32_t exponent = bits & kExponentMask;
    const std::uint32_t mantissa = bits & kMantissaMask;
    if (exponent == kExponentMask && mantissa != 0)
        return Kind::NotANumber;
    if (exponent == 0 && mantissa != 0)
        return Kind::Subnormal;
    return Kind::Number; // finite normal numbers, +-0 and +-infinity
}

bool isFinitePattern(std::uint32_t bits) { return (bits & kExponentMask) != kExponentMask; }

// Outliers found in the second pass are written with this status first, so
// that every pixel is judged against the same set of neighbours whatever the
// scan order; they become kDefect at the end of the pass.
constexpr unsigned char kPendingDefect = 0x80;

bool usableNeighbour(unsigned char status) { return status == 0 || status == kPendingDefect; }

// Second-smallest and second-largest usable value among the 8 neighbours of
// (x, y) (smallest and largest when fewer than 5 are usable); false when
// fewer than 3 neighbours are usable.
bool trimmedNeighbourBounds(const cv::Mat_<float>& frame, const cv::Mat_<unsigned char>& map,
                            int x, int y, float& lo2, float& hi2)
{
    float min1 = FLT_MAX, min2 = FLT_MAX;
    float max1 = -FLT_MAX, max2 = -FLT_MAX;
    int count = 0;
    const int y0 = std::max(0, y - 1), y1 = std::min(frame.rows - 1, y + 1);
    const int x0 = std::max(0, x - 1), x1 = std::min(frame.cols - 1, x + 1);
    for (int j = y0; j <= y1; ++j) {
        const float* row = frame[j];
        const unsigned char* status = map[j];
        for (int i = x0; i <= x1; ++i) {
            if ((i == x && j == y) || !usableNeighbour(status[i]))
                continue;
            // Branch-free running two smallest and two largest values (the
            // comparisons are unpredictable on real data).
            const float v = row[i];
            ++count;
            min2 = std::min(min2, std::max(min1, v));
            min1 = std::min(min1, v);
            max2 = std::max(max2, std::min(max1, v));
            max1 = std::max(max1, v);
        }
    }
    if (count < 3)
        return false;
    // Dropping the extremes needs enough neighbours to leave a range: with 3
    // or 4 (a corner, or a pixel beside markers) the plain range is used.
    lo2 = count >= 5 ? min2 : min1;
    hi2 = count >= 5 ? max2 : max1;
    return true;
}

float medianOf(float* values, int count)
{
    std::sort(values, values + count);
    if (count % 2 == 1)
        return values[count / 2];
    return static_cast<float>(0.5 * (static_cast<double>(values[count / 2 - 1]) +
                                     static_cast<double>(values[count / 2])));
}

} // namespace

SuperResolutionBadPixelHandling::SuperResolutionBadPixelHandling(unsigned int nFrames_)
    : nFrames(nFrames_), dataIsNUC(false), lowerLimit(-FLT_MAX), upperLimit(FLT_MAX), width(0),
      height(0)
{
}

SuperResolutionBadPixelHandling::SuperResolutionBadPixelHandling(
    const SuperResolutionBadPixelHandling& other)
    : nFrames(other.nFrames), dataIsNUC(other.dataIsNUC), lowerLimit(other.lowerLimit),
      upperLimit(other.upperLimit), width(other.width), height(other.height)
{
    // cv::Mat copies share their pixels; a copied handler must own its maps.
    defectMaps.reserve(other.defectMaps.size());
    for (const cv::Mat_<unsigned char>& map : other.defectMaps)
        defectMaps.push_back(map.clone());
}

SuperResolutionBadPixelHandling&
SuperResolutionBadPixelHandling::operator=(const SuperResolutionBadPixelHandling& other)
{
    if (this == &other)
        return *this;
    std::vector<cv::Mat_<unsigned char>> maps;
    maps.reserve(other.defectMaps.size());
    for (const cv::Mat_<unsigned char>& map : other.defectMaps)
        maps.push_back(map.clone());
    defectMaps.swap(maps);
    spareMaps.clear();
    nFrames = other.nFrames;
    dataIsNUC = other.dataIsNUC;
    lowerLimit = other.lowerLimit;
    upperLimit = other.upperLimit;
    width = other.width;
    height = other.height;
    return *this;
}

SuperResolutionBadPixelHandling::~SuperResolutionBadPixelHandling() = default;

void SuperResolutionBadPixelHandling::setDataIsNUC(bool isNUC)
{
    dataIsNUC = isNUC;
    lowerLimit = isNUC ? kNucLowerLimit : -FLT_MAX;
    upperLimit = isNUC ? kNucUpperLimit : FLT_MAX;
}

void SuperResolutionBadPixelHandling::setLimits(float lower, float upper)
{
    if (!(lower < upper))
        KRO_THROW("setLimits(): lower limit " << lower << " must be below upper limit " << upper);
    lowerLimit = lower;
    upperLimit = upper;
}

void SuperResolutionBadPixelHandling::clearDefectMaps()
{
    for (cv::Mat_<unsigned char>& map : defectMaps)
        spareMaps.push_back(map);
    defectMaps.clear();
}

cv::Mat_<unsigned char>& SuperResolutionBadPixelHandling::nextDefectMap_(const cv::Mat_<float>& frame)
{
    if (defectMaps.empty()) {
        width = frame.cols;
        height = frame.rows;
    }
    if (defectMaps.size() < nFrames) {
        cv::Mat_<unsigned char> map;
        while (!spareMaps.empty() && map.empty()) {
            if (spareMaps.back().rows == height && spareMaps.back().cols == width)
                map = spareMaps.back();
            spareMaps.pop_back();
        }
        if (map.empty())
            map.create(height, width);
        defectMaps.push_back(map);
    } else {
        // Same rotation as the engine's frame buffers: the oldest becomes the newest.
        std::rotate(defectMaps.begin(), defectMaps.begin() + 1, defectMaps.end());
    }
    return defectMaps.back();
}

void SuperResolutionBadPixelHandling::classifyByValue_(const cv::Mat_<float>& frame,
                                                       cv::Mat_<unsigned char>& map) const
{
    for (int y = 0; y < frame.rows; ++y) {
        const float* row = frame[y];
        unsigned char* status = map[y];
        for (int x = 0; x < frame.cols; ++x) {
            const float& v = row[x];
            const Kind kind = kindOf(bitPattern(v));
            switch (kind) {
            case Kind::Marker129:
                status[x] = kCameraMarked129;
                break;
            case Kind::Marker130:
                status[x] = kCameraMarked130;
                break;
            case Kind::NotANumber:
                status[x] = kDefect;
                break;
            case Kind::Subnormal:
            case Kind::Number:
                if (v > upperLimit)
                    status[x] = kAboveUpperLimit;
                else if (v < lowerLimit)
                    status[x] = kBelowLowerLimit;
                else if (kind == Kind::Subnormal)
                    status[x] = kDefect;
                else
                    status[x] = kGood;
                break;
            }
        }
    }
}

void SuperResolutionBadPixelHandling::classifyOutliers_(const cv::Mat_<float>& frame,
                                                        cv::Mat_<unsigned char>& map)
{
    // First pass: the frame's typical spread (the median over all judged
    // pixels of the trimmed neighbour range, about 1.7 sigma on pure noise)
    // and its robust value range (1st to 99th percentile of the usable
    // values). See the class comment for the tolerance built from them.
    spreads.clear();
    values.clear();
    // Bounds per pixel, kept for the second pass; low > high marks a pixel
    // that is not judged (usable values are finite, so lo2 <= hi2 otherwise).
    const std::size_t pixels = static_cast<std::size_t>(frame.rows) * frame.cols;
    lowBounds.assign(pixels, 1.0f);
    highBounds.assign(pixels, 0.0f);
    for (int y = 0; y < frame.rows; ++y) {
        for (int x = 0; x < frame.cols; ++x) {
            if (map(y, x) != kGood)
                continue;
            values.push_back(frame(y, x));
            const std::size_t i = static_cast<std::size_t>(y) * frame.cols + x;
            if (trimmedNeighbourBounds(frame, map, x, y, lowBounds[i], highBounds[i]))
                spreads.push_back(highBounds[i] - lowBounds[i]);
        }
    }
    if (spreads.empty())
        return; // no pixel has enough usable neighbours to be judged
    const auto middle = spreads.begin() + static_cast<std::ptrdiff_t>(spreads.size() / 2);
    std::nth_element(spreads.begin(), middle, spreads.end());
    const double typical = *middle;
    const auto low = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 100);
    const auto high = values.begin() + static_cast<std::ptrdiff_t>(values.size() * 99 / 100);
    std::nth_element(values.begin(), low, values.end());
    const double p1 = *low;
    std::nth_element(values.begin(), high, values.end());
    const double p99 = *high;
    const double range = p99 - p1;

    for (int y = 0; y < frame.rows; ++y) {
        for (int x = 0; x < frame.cols; ++x) {
            const std::size_t i = static_cast<std::size_t>(y) * frame.cols + x;
            const float lo2 = lowBounds[i];
            const float hi2 = highBounds[i];
            if (lo2 > hi2)
                continue;
            // A pixel on the frame's edge sees its neighbours on one side
            // only, so a plain gradient already puts it outside their range.
            const bool onEdge = x == 0 || y == 0 || x == frame.cols - 1 || y == frame.rows - 1;
            const double factor = onEdge ? kOutlierFactor * kEdgeOutlierFactor : kOutlierFactor;
            const double gross = onEdge ? kGrossOutlierContrast * kEdgeGrossFactor : kGrossOutlierContrast;
            // In double: the range of two finite floats can overflow float.
            const double spread = static_cast<double>(hi2) - static_cast<double>(lo2);
            const double tolerance =
                std::max({factor * typical, kMinOutlierContrast * range,
                          std::min(factor * spread, gross * range)});
            const double v = frame(y, x);
            if (v < lo2 - tolerance || v > hi2 + tolerance)
                map(y, x) = kPendingDefect;
        }
    }
    for (int y = 0; y < map.rows; ++y) {
        unsigned char* status = map[y];
        for (int x = 0; x < map.cols; ++x)
            if (status[x] == kPendingDefect)
                status[x] = kDefect;
    }
}

bool SuperResolutionBadPixelHandling::getReplacementValue_(const cv::Mat_<float>& img, int x, int y,
                                                           float& value) const
{
    if (defectMaps.empty())
        return false;
    const cv::Mat_<unsigned char>& map = defectMaps.back();
    if (map.rows != img.rows || map.cols != img.cols)
        return false;

    // The 3x3 neighbourhood first; the 5x5 one only for a pixel inside a
    // defect cluster (its inner ring then holds no good pixel).
    float good[24];
    for (int radius = 1; radius <= 2; ++radius) {
        int count = 0;
        const int y0 = std::max(0, y - radius), y1 = std::min(img.rows - 1, y + radius);
        const int x0 = std::max(0, x - radius), x1 = std::min(img.cols - 1, x + radius);
        for (int j = y0; j <= y1; ++j)
            for (int i = x0; i <= x1; ++i)
                if (map(j, i) == kGood && !(i == x && j == y))
                    good[count++] = img(j, i);
        if (count > 0) {
            value = medianOf(good, count);
            return true;
        }
    }
    return false;
}

int SuperResolutionBadPixelHandling::detectAndReplaceBadPixel(cv::Mat_<float>& frame)
{
    if (nFrames == 0)
        KRO_THROW("detectAndReplaceBadPixel(): the handler was built for 0 frames");
    if (frame.empty())
        KRO_THROW("detectAndReplaceBadPixel(): empty frame");
    if (!defectMaps.empty() && (frame.rows != height || frame.cols != width))
        KRO_THROW("detectAndReplaceBadPixel(): frame size " << frame.cols << "x" << frame.rows
                  << " differs from the defect maps' size " << width << "x" << height
                  << " (clear the defect maps before changing the frame size)");

    cv::Mat_<unsigned char>& map = nextDefectMap_(frame);
    classifyByValue_(frame, map);
    classifyOutliers_(frame, map);

    // Substitutes come from the good pixels only: the frame's extremes
    // include the very hot or dead samples being replaced.
    float goodMin = 0.0f, goodMax = 0.0f;
    bool anyGood = false;
    for (int y = 0; y < frame.rows; ++y) {
        for (int x = 0; x < frame.cols; ++x) {
            if (map(y, x) != kGood)
                continue;
            const float v = frame(y, x);
            if (!anyGood) {
                goodMin = goodMax = v;
                anyGood = true;
            } else {
                goodMin = std::min(goodMin, v);
                goodMax = std::max(goodMax, v);
            }
        }
    }

    int code = 0;
    int reallyBad = 0;
    replacements.clear();
    for (int y = 0; y < frame.rows; ++y) {
        for (int x = 0; x < frame.cols; ++x) {
            const unsigned char status = map(y, x);
            if (status == kGood)
                continue;
            float value;
            if (getReplacementValue_(frame, x, y, value)) {
                replacements.push_back({x, y, value});
                continue;
            }
            switch (status) {
            case kCameraMarked130:
                value = goodMin;
                break;
            case kCameraMarked129:
                value = goodMax;
                break;
            case kAboveUpperLimit:
                value = goodMax;
                break;
            case kBelowLowerLimit:
                value = goodMin;
                break;
            default:
                value = 0.0f;
                break;
            }
            if (status != kCameraMarked130 && status != kCameraMarked129) {
                code = -2;
                ++reallyBad;
            }
            replacements.push_back({x, y, value});
        }
    }
    // Checked before anything is written, so a refused frame stays as it came.
    if (reallyBad > kMaxReallyBadPixels)
        KRO_THROW("Too many defect pixels. No processing possible.");

    for (const Replacement& r : replacements)
        frame(r.y, r.x) = r.value;
    return code;
}

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
