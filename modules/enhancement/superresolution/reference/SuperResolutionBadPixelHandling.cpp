#include "SuperResolutionBadPixelHandling.h"

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <cmath>
#include <cstring>

#include "detail/Parallel.h"
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
std::uint32_t orderKey(float v)
{
    const std::uint32_t bits = SuperResolutionBadPixelHandling::bitPattern(v);
    return (bits & 0x80000000u) ? ~bits : (bits | 0x80000000u);
}

float fromOrderKey(std::uint32_t key)
{
    const std::uint32_t bits = (key & 0x80000000u) ? (key & 0x7fffffffu) : ~key;
    float v;
    std::memcpy(&v, &bits, sizeof v);
    return v;
}

bool isNanPattern(std::uint32_t bits) { return (bits & 0x7fffffffu) > kExponentMask; }

constexpr std::size_t kBins = std::size_t(1) << 16;

// The bin of `rank` (0-based) in a histogram of `kBins` counts; `rank`
// becomes the rank inside that bin. The rank must be below the total count.
std::uint32_t binOfRank(const std::uint32_t* histogram, std::size_t& rank)
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
void trimmedInteriorBounds(const float* above, const float* row, const float* below, int cols,
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
      upperLimit(other.upperLimit), width(other.width), height(other.height), threadCount(other.threadCount)
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
    threadCount = other.threadCount;
    return *this;
}

SuperResolutionBadPixelHandling::~SuperResolutionBadPixelHandling() = default;

bool SuperResolutionBadPixelHandling::setThreads(int threads)
{
    if (threads < 0)
        return false;
    threadCount = threads;
    return true;
}

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

void SuperResolutionBadPixelHandling::classifyRowByValue_(const cv::Mat_<float>& frame,
                                                          cv::Mat_<unsigned char>& map, int y) const
{
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

// Classifies every pixel of `frame` into `map` (value classes, then the
// outlier test of status 3) and returns the smallest and largest good value.
//
// Steps, in one parallel region over rows (large frames only):
//   1. status by value (markers, NaN, subnormals, limits);
//   2. per pixel the trimmed neighbour bounds, and per thread a histogram of
//      the upper 16 bits of the order keys of the spreads and of the usable
//      values;
//   3. (one thread) the frame's typical spread (median of the spreads) and
//      robust range (1st and 99th percentile of the usable values), selected
//      exactly from the histograms: the merged upper-bit histogram finds the
//      bin of the wanted rank, a second scan counts the lower 16 bits of the
//      keys in that bin. This gives the same order statistics as a sort of
//      the values. A NaN spread would have no place in that order; the
//      bounds start from +-FLT_MAX, so none should occur even with infinite
//      limits, but if one does, the median falls back to nth_element on the
//      spreads in row order, as the detector has always computed it;
//   4. the outlier test per pixel and each row's good extremes.
// The outlier test reads only the bounds of step 2, so every pixel is judged
// against the same neighbours whatever the order or sharing of the rows.
void SuperResolutionBadPixelHandling::classify_(const cv::Mat_<float>& frame,
                                                cv::Mat_<unsigned char>& map, float& goodMin,
                                                float& goodMax, bool& anyGood)
{
    const int rows = frame.rows;
    const int cols = frame.cols;
    const std::size_t pixels = static_cast<std::size_t>(rows) * cols;
    // Scratch grows to the largest frame seen and is kept.
    if (lowBounds.size() < pixels) {
        lowBounds.resize(pixels);
        highBounds.resize(pixels);
    }
    if (rowValueCount.size() < static_cast<std::size_t>(rows)) {
        rowValueCount.resize(rows);
        rowSpreadCount.resize(rows);
        rowGoodMin.resize(rows);
        rowGoodMax.resize(rows);
        rowAnyGood.resize(rows);
    }
    // About 9 samples and a few comparisons per pixel; small frames stay on
    // the calling thread.
    const int threads = parallel::threadsForWork(threadCount, pixels * 16);
    // Per thread two upper-bit histograms (spreads, values), then the three
    // lower-bit histograms of the selection.
    const std::size_t histogramSize = (2 * static_cast<std::size_t>(threads) + 3) * kBins;
    if (histogram.size() < histogramSize)
        histogram.resize(histogramSize);
    std::uint32_t* const lowerBits = histogram.data() + 2 * static_cast<std::size_t>(threads) * kBins;
    // Room for the fallback's spreads, so that nothing is allocated inside
    // the parallel region.
    if (spreads.capacity() < pixels)
        spreads.reserve(pixels);

    std::size_t judged = 0;
    std::size_t usable = 0;
    double typical = 0.0;
    double range = 0.0;
    bool nanSpread = false;
    std::atomic<bool> anyNanSpread{false};
    float* const low = lowBounds.data();
    float* const high = highBounds.data();

    lastThreads = parallel::parallelRegion(threads, [&](const parallel::Team& team) {
        const int thread = team.index();
        std::uint32_t* const spreadBins = histogram.data() + 2 * static_cast<std::size_t>(thread) * kBins;
        std::uint32_t* const valueBins = spreadBins + kBins;
        std::fill(spreadBins, spreadBins + 2 * kBins, 0u);
        bool threadNan = false;

        team.forRows(0, rows, [&](int begin, int end) {
            for (int y = begin; y < end; ++y)
                classifyRowByValue_(frame, map, y);
        });

        team.forRows(0, rows, [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            const float* row = frame[y];
            const unsigned char* status = map[y];
            std::size_t values = 0, spreads = 0;
            float* const rowLow = low + static_cast<std::size_t>(y) * cols;
            float* const rowHigh = high + static_cast<std::size_t>(y) * cols;
            const bool interiorRow = y > 0 && y < rows - 1 && cols >= 3;
            if (interiorRow)
                trimmedInteriorBounds(frame[y - 1], row, frame[y + 1], cols, rowLow, rowHigh);
            const unsigned char* above = interiorRow ? map[y - 1] : nullptr;
            const unsigned char* below = interiorRow ? map[y + 1] : nullptr;
            for (int x = 0; x < cols; ++x) {
                if (status[x] != kGood) {
                    // low > high marks a pixel that is not judged (usable values
                    // are finite or infinite, never NaN, so low <= high otherwise).
                    rowLow[x] = 1.0f;
                    rowHigh[x] = 0.0f;
                    continue;
                }
                ++values;
                ++valueBins[orderKey(row[x]) >> 16];
                // Interior pixels whose 8 neighbours are all good keep the
                // bounds of the fast pass; the others are worked out singly.
                const bool allGood = interiorRow && x > 0 && x < cols - 1 &&
                                     (above[x - 1] | above[x] | above[x + 1] | status[x - 1] |
                                      status[x + 1] | below[x - 1] | below[x] | below[x + 1]) == 0;
                bool isJudged = allGood;
                if (!allGood) {
                    rowLow[x] = 1.0f;
                    rowHigh[x] = 0.0f;
                    isJudged = trimmedNeighbourBounds(frame, map, x, y, rowLow[x], rowHigh[x]);
                }
                if (isJudged) {
                    const std::size_t i = static_cast<std::size_t>(y) * cols + x;
                    ++spreads;
                    const float spread = high[i] - low[i];
                    if (isNanPattern(bitPattern(spread)))
                        threadNan = true;
                    else
                        ++spreadBins[orderKey(spread) >> 16];
                }
            }
            rowValueCount[y] = values;
            rowSpreadCount[y] = spreads;
        }
        });
        if (threadNan)
            anyNanSpread = true;
        team.barrier();

        team.single([&] {
            nanSpread = anyNanSpread;
            for (int y = 0; y < rows; ++y) {
                usable += rowValueCount[y];
                judged += rowSpreadCount[y];
            }
            if (judged > 0) {
                // Merge the threads' upper-bit histograms into thread 0's.
                for (int t = 1; t < team.size(); ++t) {
                    const std::uint32_t* other = histogram.data() + 2 * static_cast<std::size_t>(t) * kBins;
                    for (std::size_t b = 0; b < 2 * kBins; ++b)
                        histogram[b] += other[b];
                }
                const std::uint32_t* spreadHist = histogram.data();
                const std::uint32_t* valueHist = histogram.data() + kBins;
                std::fill(lowerBits, lowerBits + 3 * kBins, 0u);
                std::size_t rankP1 = usable / 100;
                std::size_t rankP99 = usable * 99 / 100;
                const std::uint32_t binP1 = binOfRank(valueHist, rankP1);
                const std::uint32_t binP99 = binOfRank(valueHist, rankP99);
                std::size_t rankMedian = judged / 2;
                const std::uint32_t binMedian = nanSpread ? 0u : binOfRank(spreadHist, rankMedian);
                for (int y = 0; y < rows; ++y) {
                    const float* row = frame[y];
                    const unsigned char* status = map[y];
                    for (int x = 0; x < cols; ++x) {
                        if (status[x] != kGood)
                            continue;
                        const std::uint32_t key = orderKey(row[x]);
                        if (key >> 16 == binP1)
                            ++lowerBits[key & 0xffffu];
                        if (key >> 16 == binP99)
                            ++lowerBits[kBins + (key & 0xffffu)];
                        const std::size_t i = static_cast<std::size_t>(y) * cols + x;
                        if (!nanSpread && low[i] <= high[i]) {
                            const std::uint32_t spreadKey = orderKey(high[i] - low[i]);
                            if (spreadKey >> 16 == binMedian)
                                ++lowerBits[2 * kBins + (spreadKey & 0xffffu)];
                        }
                    }
                }
                const double p1 = fromOrderKey(binP1 << 16 | binOfRank(lowerBits, rankP1));
                const double p99 = fromOrderKey(binP99 << 16 | binOfRank(lowerBits + kBins, rankP99));
                range = p99 - p1;
                if (!nanSpread) {
                    typical = fromOrderKey(binMedian << 16 | binOfRank(lowerBits + 2 * kBins, rankMedian));
                } else {
                    // The spreads in row order, as nth_element needs them to
                    // give its (NaN-dependent) answer.
                    spreads.clear();
                    for (std::size_t i = 0; i < pixels; ++i)
                        if (low[i] <= high[i])
                            spreads.push_back(high[i] - low[i]);
                    const auto middle = spreads.begin() + static_cast<std::ptrdiff_t>(spreads.size() / 2);
                    std::nth_element(spreads.begin(), middle, spreads.end());
                    typical = *middle;
                }
            }
        });

        team.forRows(0, rows, [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            const float* row = frame[y];
            unsigned char* status = map[y];
            // With no judged pixel (none has enough usable neighbours) no
            // outlier is looked for.
            if (judged > 0) {
                for (int x = 0; x < cols; ++x) {
                    const std::size_t i = static_cast<std::size_t>(y) * cols + x;
                    const float lo2 = low[i];
                    const float hi2 = high[i];
                    if (lo2 > hi2)
                        continue;
                    // A pixel on the frame's edge sees its neighbours on one side
                    // only, so a plain gradient already puts it outside their range.
                    const bool onEdge = x == 0 || y == 0 || x == cols - 1 || y == rows - 1;
                    const double factor = onEdge ? kOutlierFactor * kEdgeOutlierFactor : kOutlierFactor;
                    const double gross =
                        onEdge ? kGrossOutlierContrast * kEdgeGrossFactor : kGrossOutlierContrast;
                    // In double: the range of two finite floats can overflow float.
                    const double spread = static_cast<double>(hi2) - static_cast<double>(lo2);
                    // Nested std::max picks the same operand as std::max({a, b, c})
                    // and compiles without branches.
                    const double tolerance =
                        std::max(std::max(factor * typical, kMinOutlierContrast * range),
                                 std::min(factor * spread, gross * range));
                    const double v = row[x];
                    if (v < lo2 - tolerance || v > hi2 + tolerance)
                        status[x] = kDefect;
                }
            }
            // The row's good extremes: the first smallest and first largest
            // in scan order, so combining rows in order matches one scan.
            bool any = false;
            float mn = 0.0f, mx = 0.0f;
            for (int x = 0; x < cols; ++x) {
                if (status[x] != kGood)
                    continue;
                const float v = row[x];
                if (!any) {
                    mn = mx = v;
                    any = true;
                } else {
                    mn = std::min(mn, v);
                    mx = std::max(mx, v);
                }
            }
            rowAnyGood[y] = any;
            rowGoodMin[y] = mn;
            rowGoodMax[y] = mx;
        }
        });
    });

    anyGood = false;
    goodMin = goodMax = 0.0f;
    for (int y = 0; y < rows; ++y) {
        if (!rowAnyGood[y])
            continue;
        if (!anyGood) {
            goodMin = rowGoodMin[y];
            goodMax = rowGoodMax[y];
            anyGood = true;
        } else {
            goodMin = std::min(goodMin, rowGoodMin[y]);
            goodMax = std::max(goodMax, rowGoodMax[y]);
        }
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
    // Substitutes come from the good pixels only: the frame's extremes
    // include the very hot or dead samples being replaced.
    float goodMin = 0.0f, goodMax = 0.0f;
    bool anyGood = false;
    classify_(frame, map, goodMin, goodMax, anyGood);

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
