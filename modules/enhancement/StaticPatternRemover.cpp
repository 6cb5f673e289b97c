#include "StaticPatternRemover.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "detail/FilterArithmetic.h"
#include "detail/ImageOverlap.h"
#include "detail/Parallel.h"
#include "detail/StaticPatternStep.h"
#include "detail/Throw.h"

namespace velmor {
namespace kro {

namespace {

using detail::div9LessAccurate;

constexpr short kSaturated = 32767;  // marker of a saturated sample, passed unchanged
constexpr int kReach = 4;            // the 1x9 run reaches four columns each side
constexpr int kMinColumnsPerThread = 64;

using detail::correction;

// Column index `offset` away from c: clamped into [0, last] at the borders,
// plain in the interior (where the compiler can then vectorise over c).
template <bool kClamp>
inline int column(int c, int offset, int last)
{
    return kClamp ? std::min(std::max(c + offset, 0), last) : c + offset;
}

struct Spread {
    std::int32_t sum8;    // sum of the eight samples around the centre
    std::int32_t spread;  // max(|min - mean8|, |max - mean8|), mean8 = sum8 >> 3
};

// Spread of nine samples, a4 the centre. Written out for the vectoriser.
inline Spread spreadOf(std::int32_t a0, std::int32_t a1, std::int32_t a2, std::int32_t a3,
                       std::int32_t a4, std::int32_t a5, std::int32_t a6, std::int32_t a7,
                       std::int32_t a8, std::int32_t minInit, std::int32_t maxInit)
{
    const std::int32_t low = std::min(
        std::min(std::min(std::min(minInit, a0), std::min(a1, a2)), std::min(std::min(a3, a4), a5)),
        std::min(std::min(a6, a7), a8));
    const std::int32_t high = std::max(
        std::max(std::max(std::max(maxInit, a0), std::max(a1, a2)), std::max(std::max(a3, a4), a5)),
        std::max(std::max(a6, a7), a8));
    const std::int32_t sum8 = a0 + a1 + a2 + a3 + a5 + a6 + a7 + a8;
    const std::int32_t mean8 = sum8 >> 3;
    return {sum8, std::max(std::abs(low - mean8), std::abs(high - mean8))};
}

// The work space of one part of the columns, reused row after row. The arrays
// cover the columns [base, base + n) and are indexed by column - base.
struct RowWork {
    std::int32_t base;
    std::int32_t* line;        // the line pattern of these columns
    std::int32_t* sum3;
    std::int32_t* sum9;
    std::int32_t* spread3;
    std::int32_t* spread9;
    std::int32_t* lineBefore;  // line correction before this row's update
    std::int32_t* lineAfter;   // line correction after it
};

constexpr int kWorkArrays = 7;
constexpr std::size_t kLineInts = 16;  // int32 values per 64-byte cache line

struct Settings {
    std::int32_t threshold;
    std::int32_t threshold07;
    std::int32_t lineLimit;
    std::int32_t frameLimit;
    std::int32_t minInit;
    std::int32_t maxInit;
};

// First pass over a row, column c: the spreads of the 3x3 block and the 1x9
// run, and the update of the column's line pattern. It depends only on the
// frame and on the column's own line value, so the columns are independent.
template <bool kClamp>
inline void measureColumn(const short* up, const short* mid, const short* down, int c, int last,
                          const Settings& s, const RowWork& w)
{
    const int l = column<kClamp>(c, -1, last);
    const int r = column<kClamp>(c, 1, last);
    const std::int32_t centre = mid[c] + 32768;
    const Spread s3 = spreadOf(up[l] + 32768, up[c] + 32768, up[r] + 32768, mid[l] + 32768, centre,
                               mid[r] + 32768, down[l] + 32768, down[c] + 32768, down[r] + 32768,
                               s.minInit, s.maxInit);
    const Spread s9 = spreadOf(
        mid[column<kClamp>(c, -4, last)] + 32768, mid[column<kClamp>(c, -3, last)] + 32768,
        mid[column<kClamp>(c, -2, last)] + 32768, mid[l] + 32768, centre, mid[r] + 32768,
        mid[column<kClamp>(c, 2, last)] + 32768, mid[column<kClamp>(c, 3, last)] + 32768,
        mid[column<kClamp>(c, 4, last)] + 32768, s.minInit, s.maxInit);
    const int i = c - w.base;
    w.sum3[i] = s3.sum8;
    w.sum9[i] = s9.sum8;
    w.spread3[i] = s3.spread;
    w.spread9[i] = s9.spread;

    const std::int32_t value = w.line[i];
    const std::int32_t lc = correction(value, detail::kLineShift);
    w.lineBefore[i] = lc;
    w.line[i] = detail::nextLinePattern(value, lc, centre, s3.sum8, s3.spread, s9.sum8, s9.spread, s.threshold,
                                        s.threshold07, s.lineLimit);
    w.lineAfter[i] = correction(w.line[i], detail::kLineShift);
}

// Second pass, column c: the output sample and the update of the frame
// pattern. The line corrections of columns left of c are the ones after this
// row's update, those of c and to its right the ones before it, as in a
// left-to-right scan.
template <bool kClamp>
inline void correctColumn(const short* mid, short* out, std::int32_t* frame, int c, int last,
                          const Settings& s, const RowWork& w)
{
    const std::int32_t sample = mid[c];
    const std::int32_t value = frame[c];
    const std::int32_t fc = correction(value, detail::kFrameShift);
    const int i = c - w.base;
    const std::int32_t lcHere = w.lineBefore[i];
    out[c] = sample == kSaturated
                 ? kSaturated
                 : static_cast<short>(sample - div9LessAccurate(fc) - div9LessAccurate(lcHere));

    const std::int32_t r3 = w.spread3[i];
    const std::int32_t r9 = w.spread9[i];
    const bool learn = r3 < s.threshold || r9 < s.threshold;
    std::int32_t e = 0;
    if (learn) {
        // In the interior every left neighbour is left of c; at the left
        // border a clamped neighbour may be c itself.
        const auto leftOf = [&](int offset) {
            const int k = column<kClamp>(c, -offset, last);
            return (!kClamp || k < c) ? w.lineAfter[k - w.base] : w.lineBefore[k - w.base];
        };
        const auto rightOf = [&](int offset) {
            return w.lineBefore[column<kClamp>(c, offset, last) - w.base];
        };
        const std::int32_t left1 = leftOf(1), right1 = rightOf(1);
        const std::int32_t e3 = w.sum3[i] - div9LessAccurate(3 * (right1 - 2 * lcHere + left1));
        const std::int32_t e9 =
            w.sum9[i] - div9LessAccurate(left1 + leftOf(2) + leftOf(3) + leftOf(4) + right1 +
                                         rightOf(2) + rightOf(3) + rightOf(4) - 8 * lcHere);
        e = detail::frameError(e3, e9, r3, r9, s.threshold);
    }
    frame[c] = detail::nextFramePattern(value, fc, sample + 32768, learn, e, s.frameLimit);
}

inline void partOf(int n, int parts, int part, int& begin, int& end)
{
    const int base = n / parts;
    const int extra = n % parts;
    begin = part * base + std::min(part, extra);
    end = begin + base + (part < extra ? 1 : 0);
}

} // namespace

StaticPatternRemover::StaticPatternRemover(int threshold, int lineLimit, int frameLimit)
{
    setThreshold(threshold);
    setLineLimit(lineLimit);
    setFrameLimit(frameLimit);
}

StaticPatternRemover::StaticPatternRemover(const StaticPatternRemoverOptions& options)
    : StaticPatternRemover(options.threshold, options.lineLimit, options.frameLimit)
{
    const std::string problem = options.validate();
    if (!problem.empty())
        KRO_THROW(problem);
    mThreads = options.threads;
}

StaticPatternRemoverOptions StaticPatternRemover::getOptions() const
{
    StaticPatternRemoverOptions o;
    o.threshold = mThreshold;
    o.lineLimit = mLineLimit;
    o.frameLimit = mFrameLimit;
    o.threads = mThreads;
    return o;
}

bool StaticPatternRemover::setThreshold(int threshold)
{
    if (!filter_rules::patternThreshold(threshold).empty())
        return false;
    mThreshold = threshold;
    mThreshold07 = static_cast<std::int32_t>(static_cast<float>(threshold) * 0.7f);
    return true;
}

bool StaticPatternRemover::setLineLimit(int lineLimit)
{
    if (!filter_rules::patternLimit(lineLimit).empty())
        return false;
    mLineLimit = lineLimit;
    return true;
}

bool StaticPatternRemover::setFrameLimit(int frameLimit)
{
    if (!filter_rules::patternLimit(frameLimit).empty())
        return false;
    mFrameLimit = frameLimit;
    return true;
}

void StaticPatternRemover::init(const cv::Size& size)
{
    mLinePattern = cv::Mat_<std::int32_t>::zeros(1, size.width);
    mFramePattern = cv::Mat_<std::int32_t>::zeros(size.height, size.width);
}

void StaticPatternRemover::validateInput(const cv::Size& size)
{
    if (size != mFramePattern.size())
        init(size);
}

int StaticPatternRemover::div9LessAccurate(int x) const { return detail::div9LessAccurate(x); }

void StaticPatternRemover::process(const cv::Mat_<short>& src, cv::Mat_<short>& dst)
{
    if (src.empty())
        KRO_THROW("empty input frame");
    validateInput(src.size());
    dst.create(src.rows, src.cols);
    if (detail::imagesOverlap(src, dst))
        KRO_THROW("source and destination frames share memory");

    const int rows = src.rows;
    const int cols = src.cols;
    const int last = cols - 1;
    const Settings settings{mThreshold, mThreshold07, mLineLimit, mFrameLimit, mMinInit, mMaxInit};
    // Narrow frames are not worth a second thread.
    const int threads = cols >= kMinColumnsPerThread * 2 ? parallel::resolveThreads(mThreads) : 1;
    // Work space: per part of the columns, seven arrays over its columns plus
    // a margin of kReach on each side, each array rounded up to whole cache
    // lines so that no two threads write into one line.
    const std::size_t span = static_cast<std::size_t>((cols + threads - 1) / threads) + 2 * kReach;
    const std::size_t stride = (span + kLineInts - 1) / kLineInts * kLineInts;
    const std::size_t perThread = kWorkArrays * stride;
    if (mRowScratch.size() < perThread * threads + kLineInts)
        mRowScratch.assign(perThread * threads + kLineInts, 0);
    // Start at a cache-line boundary.
    const std::size_t misalignment =
        reinterpret_cast<std::uintptr_t>(mRowScratch.data()) / sizeof(std::int32_t) % kLineInts;
    std::int32_t* const scratch = mRowScratch.data() + (kLineInts - misalignment) % kLineInts;
    std::int32_t* const linePattern = mLinePattern[0];

    const auto workOf = [&](int part, int& begin, int& end, int& lo, int& hi) {
        partOf(cols, threads, part, begin, end);
        lo = std::max(begin - kReach, 0);
        hi = std::min(end + kReach, cols);
        std::int32_t* base = scratch + perThread * static_cast<std::size_t>(part);
        return RowWork{lo,
                       base,
                       base + stride,
                       base + 2 * stride,
                       base + 3 * stride,
                       base + 4 * stride,
                       base + 5 * stride,
                       base + 6 * stride};
    };
    // Columns whose neighbourhood needs no clamping: [kReach, cols - kReach).
    const auto interior = [&](int from, int to, int& midFrom, int& midTo) {
        midFrom = std::min(std::max(from, kReach), to);
        midTo = std::max(std::min(to, cols - kReach), midFrom);
    };
    const auto runPart = [&](int part) {
        int begin, end, lo, hi;
        const RowWork work = workOf(part, begin, end, lo, hi);
        std::copy(linePattern + lo, linePattern + hi, work.line);
        int measureFrom, measureTo, correctFrom, correctTo;
        interior(lo, hi, measureFrom, measureTo);
        interior(begin, end, correctFrom, correctTo);
        for (int y = 0; y < rows && begin < end; ++y) {
            const short* up = src[std::max(y - 1, 0)];
            const short* mid = src[y];
            const short* down = src[std::min(y + 1, rows - 1)];
            for (int c = lo; c < measureFrom; ++c)
                measureColumn<true>(up, mid, down, c, last, settings, work);
KROLIB_SIMD_LOOP
            for (int c = measureFrom; c < measureTo; ++c)
                measureColumn<false>(up, mid, down, c, last, settings, work);
            for (int c = measureTo; c < hi; ++c)
                measureColumn<true>(up, mid, down, c, last, settings, work);

            short* out = dst[y];
            std::int32_t* frame = mFramePattern[y];
            for (int c = begin; c < correctFrom; ++c)
                correctColumn<true>(mid, out, frame, c, last, settings, work);
KROLIB_SIMD_LOOP
            for (int c = correctFrom; c < correctTo; ++c)
                correctColumn<false>(mid, out, frame, c, last, settings, work);
            for (int c = correctTo; c < end; ++c)
                correctColumn<true>(mid, out, frame, c, last, settings, work);
        }
    };
    const auto storePart = [&](int part) {
        int begin, end, lo, hi;
        const RowWork work = workOf(part, begin, end, lo, hi);
        std::copy(work.line + (begin - lo), work.line + (end - lo), linePattern + begin);
    };

    // The columns are cut into one part per thread, each of which runs
    // through all the rows on its own. A part needs the line corrections of
    // up to kReach columns beyond its ends; since a column's line update
    // depends only on the frame and that column's own value, the part keeps
    // a private copy of those margin columns and updates it itself, which
    // needs no exchange with its neighbours and gives exactly the
    // left-to-right result. (A team smaller than asked for takes several
    // parts per thread.)
    mLastThreads = parallel::parallelRegion(threads, [&](const parallel::Team& team) {
        for (int part = team.index(); part < threads; part += team.size())
            runPart(part);
        // Every part has read its margins of the line pattern: store the own columns.
        team.barrier();
        for (int part = team.index(); part < threads; part += team.size())
            storePart(part);
    });
}

bool StaticPatternRemover::setThreads(int threads)
{
    if (!filter_rules::threads(threads).empty())
        return false;
    mThreads = threads;
    return true;
}

} // namespace kro
} // namespace velmor
