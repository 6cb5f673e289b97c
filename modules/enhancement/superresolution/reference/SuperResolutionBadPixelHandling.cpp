#include "SuperResolutionBadPixelHandling.h"

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <cmath>
#include <cstring>

#include "detail/BadPixelStatistics.h"
#include "detail/Parallel.h"
#include "detail/Throw.h"

namespace velmor {
namespace kro {

namespace {

using namespace detail::badpixel;

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
// Bounds of every good pixel's trimmed neighbourhood on row y, and the
// row's counts and upper-bit histogram entries (values, spreads).
void SuperResolutionBadPixelHandling::measureRow_(const cv::Mat_<float>& frame,
                                                  const cv::Mat_<unsigned char>& map, int y,
                                                  std::uint32_t* spreadBins, std::uint32_t* valueBins,
                                                  bool& nanSeen)
{
    const int rows = frame.rows;
    const int cols = frame.cols;
    float* const low = lowBounds.data();
    float* const high = highBounds.data();
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
                nanSeen = true;
            else
                ++spreadBins[orderKey(spread) >> 16];
        }
    }
    rowValueCount[y] = values;
    rowSpreadCount[y] = spreads;
}

// The frame's statistics from the rows' counts and the threads' histograms:
// the 1st and 99th percentile of the good values (their range) and the
// median spread of the judged pixels (typical).
void SuperResolutionBadPixelHandling::selectStatistics_(const cv::Mat_<float>& frame,
                                                        const cv::Mat_<unsigned char>& map, int teamSize,
                                                        int threads, FrameStatistics& stats)
{
    const int rows = frame.rows;
    const int cols = frame.cols;
    const std::size_t pixels = static_cast<std::size_t>(rows) * cols;
    const float* const low = lowBounds.data();
    const float* const high = highBounds.data();
    std::uint32_t* const lowerBits = histogram.data() + 2 * static_cast<std::size_t>(threads) * kBins;
    std::size_t& usable = stats.usable;
    std::size_t& judged = stats.judged;
    double& typical = stats.typical;
    double& range = stats.range;
    const bool nanSpread = stats.nanSpread;
    for (int y = 0; y < rows; ++y) {
        usable += rowValueCount[y];
        judged += rowSpreadCount[y];
    }
    if (judged > 0) {
        // Merge the threads' upper-bit histograms into thread 0's.
        for (int t = 1; t < teamSize; ++t) {
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
}

// Marks the outliers of row y against its neighbourhood bounds and the
// frame's statistics, then keeps the row's smallest and largest good value.
void SuperResolutionBadPixelHandling::markOutlierRow_(const cv::Mat_<float>& frame,
                                                      cv::Mat_<unsigned char>& map, int y,
                                                      const FrameStatistics& stats)
{
    const int rows = frame.rows;
    const int cols = frame.cols;
    const float* const low = lowBounds.data();
    const float* const high = highBounds.data();
    const std::size_t judged = stats.judged;
    const double typical = stats.typical;
    const double range = stats.range;
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

void SuperResolutionBadPixelHandling::classify_(const cv::Mat_<float>& frame,
                                                cv::Mat_<unsigned char>& map, float& goodMin,
                                                float& goodMax, bool& anyGood)
{
    const int rows = frame.rows;
    const std::size_t pixels = static_cast<std::size_t>(rows) * frame.cols;
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
    // Room for the fallback's spreads, so that nothing is allocated inside
    // the parallel region.
    if (spreads.capacity() < pixels)
        spreads.reserve(pixels);

    FrameStatistics stats;
    std::atomic<bool> anyNanSpread{false};
    lastThreads = parallel::parallelRegion(threads, [&](const parallel::Team& team) {
        std::uint32_t* const spreadBins = histogram.data() + 2 * static_cast<std::size_t>(team.index()) * kBins;
        std::uint32_t* const valueBins = spreadBins + kBins;
        std::fill(spreadBins, spreadBins + 2 * kBins, 0u);
        team.forRows(0, rows, [&](int begin, int end) {
            for (int y = begin; y < end; ++y)
                classifyRowByValue_(frame, map, y);
        });
        bool threadNan = false;
        team.forRows(0, rows, [&](int begin, int end) {
            for (int y = begin; y < end; ++y)
                measureRow_(frame, map, y, spreadBins, valueBins, threadNan);
        });
        if (threadNan)
            anyNanSpread = true;
        team.barrier();
        team.single([&] {
            stats.nanSpread = anyNanSpread;
            selectStatistics_(frame, map, team.size(), threads, stats);
        });
        team.forRows(0, rows, [&](int begin, int end) {
            for (int y = begin; y < end; ++y)
                markOutlierRow_(frame, map, y, stats);
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


} // namespace kro
} // namespace velmor
