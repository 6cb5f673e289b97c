#pragma once

// Statistics helpers of the bad-pixel detector: float classification by bit
// pattern, order-preserving integer keys for histogram selection, trimmed
// neighbourhood bounds and small medians. Private to the detector.

#include <algorithm>
#include <cstdint>
#include <cstring>

#include <opencv2/core.hpp>

#include "SuperResolutionBadPixelHandling.h"

namespace velmor {
namespace kro {
namespace detail {
namespace badpixel {

// What a float's bit pattern says about it, found without float arithmetic
// so that subnormal patterns are recognised even under FTZ/DAZ.
enum class Kind { Number, Marker129, Marker130, NotANumber, Subnormal };

constexpr std::uint32_t kExponentMask = 0x7f800000u;
constexpr std::uint32_t kMantissaMask = 0x007fffffu;

inline Kind kindOf(std::uint32_t bits)
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

inline bool isFinitePattern(std::uint32_t bits) { return (bits & kExponentMask) != kExponentMask; }

// Second-smallest and second-largest usable value among the 8 neighbours of
// (x, y) (smallest and largest when fewer than 5 are usable); false when
// fewer than 3 neighbours are usable.
inline bool trimmedNeighbourBounds(const cv::Mat_<float>& frame, const cv::Mat_<unsigned char>& map,
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
            if ((i == x && j == y) || status[i] != SuperResolutionBadPixelHandling::kGood)
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

// Order-preserving key of a float that is not a NaN: the keys compare as
// unsigned integers the way the floats compare (-0 just below +0).
inline std::uint32_t orderKey(float v)
{
    const std::uint32_t bits = SuperResolutionBadPixelHandling::bitPattern(v);
    return (bits & 0x80000000u) ? ~bits : (bits | 0x80000000u);
}

inline float fromOrderKey(std::uint32_t key)
{
    const std::uint32_t bits = (key & 0x80000000u) ? (key & 0x7fffffffu) : ~key;
    float v;
    std::memcpy(&v, &bits, sizeof v);
    return v;
}

inline bool isNanPattern(std::uint32_t bits) { return (bits & 0x7fffffffu) > kExponentMask; }

constexpr std::size_t kBins = std::size_t(1) << 16;

// The bin of `rank` (0-based) in a histogram of `kBins` counts; `rank`
// becomes the rank inside that bin. The rank must be below the total count.
inline std::uint32_t binOfRank(const std::uint32_t* histogram, std::size_t& rank)
{
    std::uint32_t bin = 0;
    while (rank >= histogram[bin]) {
        rank -= histogram[bin];
        ++bin;
    }
    return bin;
}

// std::min and std::max by value (the same operand is chosen), which the
// compiler turns into branch-free vector code.
inline float minOf(float a, float b) { return b < a ? b : a; }
inline float maxOf(float a, float b) { return a < b ? b : a; }

// Adds v to the running two smallest and two largest values.
inline void addSample(float v, float& min1, float& min2, float& max1, float& max2)
{
    min2 = minOf(min2, maxOf(min1, v));
    min1 = minOf(min1, v);
    max2 = maxOf(max2, minOf(max1, v));
    max1 = maxOf(max1, v);
}

// trimmedNeighbourBounds for the interior columns 1 .. cols - 2 of a row
// whose 8 neighbours all count (the caller checks the defect map): the same
// comparisons in the same order, without the status tests, so that the
// compiler can work on several pixels at once. Columns 0 and cols - 1 are
// left alone.
inline void trimmedInteriorBounds(const float* above, const float* row, const float* below, int cols,
                           float* lo2, float* hi2)
{
    for (int x = 1; x < cols - 1; ++x) {
        float min1 = FLT_MAX, min2 = FLT_MAX;
        float max1 = -FLT_MAX, max2 = -FLT_MAX;
        addSample(above[x - 1], min1, min2, max1, max2);
        addSample(above[x], min1, min2, max1, max2);
        addSample(above[x + 1], min1, min2, max1, max2);
        addSample(row[x - 1], min1, min2, max1, max2);
        addSample(row[x + 1], min1, min2, max1, max2);
        addSample(below[x - 1], min1, min2, max1, max2);
        addSample(below[x], min1, min2, max1, max2);
        addSample(below[x + 1], min1, min2, max1, max2);
        lo2[x] = min2;
        hi2[x] = max2;
    }
}

inline float medianOf(float* values, int count)
{
    std::sort(values, values + count);
    if (count % 2 == 1)
        return values[count / 2];
    return static_cast<float>(0.5 * (static_cast<double>(values[count / 2 - 1]) +
                                     static_cast<double>(values[count / 2])));
}

} // namespace badpixel
} // namespace detail
} // namespace kro
} // namespace velmor
