#include "SrIntMinimization.h"

#include "SrIntOptions.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <numeric>
#include <string>

#include "SrIntConvolution.h"
#include "cvext.h"
#include "detail/GaussianPsf.h"
#include "detail/IntConvRows.h"
#include "detail/MasterTrace.h"
#include "detail/Parallel.h"
#include "detail/SrIntSolveState.h"
#include "detail/Throw.h"

namespace velmor {
namespace kro {

using namespace detail::intconv;

namespace {

constexpr int kMaxLowSize = 8192;
constexpr int kMaxFrames = 64;
// Below this many full-grid elements a solve runs on the calling thread
// (as in the float minimiser).
constexpr int kMinParallelFullSize = 150000;
// Low-resolution planes: zero rows above and below the frame.
constexpr int kLowRowsAbove = 2;
constexpr int kLowRowsBelow = 3;
// Elements of slack after every plane, for kernels that read a little past
// the last row.
constexpr int kPlaneSlack = 32;
// Shifts of the normalisation: the frames use at most 2^kDataBits of the
// 16-bit range (kDataBits = 14 keeps half of it for overshoot).
constexpr int kDataBits = 14;
constexpr int kMinDataShift = -2;  // 65535 * 2^-2 < 2^14
constexpr int kMaxDataShift = 14;

int checkedSize(int size)
{
    if (size < 1 || size > kMaxLowSize)
        KRO_THROW("invalid frame size " << size);
    return size;
}

int checkedFactor(int factor)
{
    if (factor != 2)
        KRO_THROW("unsupported super-resolution factor " << factor << " (the fixed-point engine supports 2)");
    return factor;
}

} // namespace

SrIntMinimization::SrIntMinimization(int width_, int height_, int nFrames_, int factor_)
    : DebugChannel("SrInt"), width(checkedSize(width_)), height(checkedSize(height_)), nFrames(nFrames_),
      factor(checkedFactor(factor_)), psfSize(3 * factor_), fullWidth(2 * width_ + psfSize - 1),
      fullHeight(2 * height_ + psfSize - 1), fullSize(fullWidth * fullHeight), maxIter(8), psfSigma(0.0f),
      weightTV(400), relResValue(0.0f), epsilonValue(0.0f), cumIters(0)
{
    if (nFrames < 1 || nFrames > kMaxFrames)
        KRO_THROW("invalid number of frames " << nFrames << " (allowed: 1-" << kMaxFrames << ")");

    planeOffset = static_cast<std::size_t>(fullWidth) + kPlaneSlack;
    planeSize = static_cast<std::size_t>(fullSize) + 2 * planeOffset;
    lowOffset = static_cast<std::size_t>(kLowRowsAbove) * width;
    lowPlaneSize = static_cast<std::size_t>(height + kLowRowsAbove + kLowRowsBelow) * width + kPlaneSlack;

    const std::size_t lowSize = static_cast<std::size_t>(width) * height;
    for (int i = 0; i < nFrames; ++i)
        converted.emplace_back(height, width);
    frames16.assign(lowPlaneSize * nFrames, 0);
    predictions.assign(lowPlaneSize * nFrames, 0);
    maskWords.assign(lowSize * nFrames, 0);
    for (std::vector<short>* v : {&U, &B, &R, &S, &Q, &Lr, &Ld, &Ldl, &Ldr})
        v->assign(planeSize, 0);
    straightTable.assign(detail::intsolve::kTableSize, 0);
    diagonalTable.assign(detail::intsolve::kTableSize, 0);
    const std::size_t slots = std::max<std::size_t>(fullHeight, static_cast<std::size_t>(nFrames) * height);
    sumSlotsA.assign(slots, 0);
    sumSlotsB.assign(slots, 0);
    maxSlotsA.assign(slots, 0);
    maxSlotsB.assign(slots, 0);
    maxSlotsC.assign(slots, 0);

    ringStride = static_cast<std::size_t>(nFrames) * psfSize * (width + kPlaneSlack);
    spreadStride = static_cast<std::size_t>(width) + 2 * kSpreadGuard + 8;
    accStride = static_cast<std::size_t>(fullWidth) + kPlaneSlack;
    allocateThreadWork(parallel::threadCapacity(threadCount));

    basePsf.assign(psfSize, 0.0f);
    shifts.assign(nFrames, PointF());
    psfX.assign(nFrames, {});
    psfY.assign(nFrames, {});
    setRelRes(0.007f);
    setEpsilon(0.1f);
    setPsfSigma(0.683f);
}

SrIntMinimization::~SrIntMinimization() = default;

void SrIntMinimization::allocateThreadWork(int capacity)
{
    threadCapacity = capacity;
    ringWork.assign(ringStride * capacity, 0);
    ringRows.assign(static_cast<std::size_t>(psfSize) * capacity, -1);
    spreadWork.assign(spreadStride * capacity, 0);
    accWork.assign(accStride * capacity, 0);
    conversionErrors.assign(capacity, nullptr);
}

bool SrIntMinimization::setThreads(int threads)
{
    if (threads < 0)
        return false;
    threadCount = threads;
    // The per-thread rows grow here, never during a solve.
    const int capacity = parallel::threadCapacity(threads);
    if (capacity > threadCapacity)
        allocateThreadWork(capacity);
    return true;
}

void SrIntMinimization::setMaxIter(short iterations)
{
    if (iterations < 0)
        KRO_THROW("invalid maximum number of iterations " << iterations);
    maxIter = iterations;
}

void SrIntMinimization::setPsfSigma(float sigma)
{
    if (!(sigma > 0.0f) || !std::isfinite(sigma))
        KRO_THROW("invalid PSF standard deviation " << sigma);
    psfSigma = sigma;
    detail::buildBasePsf(psfSigma, static_cast<float>(factor), psfSize, basePsf.data());
    rebuildPsfs();
}

void SrIntMinimization::setRelRes(float residue)
{
    if (!(residue >= 0.0f) || !std::isfinite(residue))
        KRO_THROW("invalid relative residue " << residue);
    relResValue = residue;
    relRes.setFloat(residue);
}

void SrIntMinimization::setWeightTV(float weight)
{
    // The rule the options and the tool check up front (a NaN fails it too).
    if (const char* refused = srint_rules::weightTVRange(weight))
        KRO_THROW(refused);
    weightTV = static_cast<short>(weight);
}

void SrIntMinimization::setEpsilon(float eps)
{
    if (!(eps >= 0.001f && eps <= 1.0f))
        KRO_THROW("invalid value given for setEpsilon (allowed: 0.001-1)");
    epsilonValue = eps;
    epsilon.setFloat(eps);
    invEpsilon.setFloat(1.0f / eps);
}

int SrIntMinimization::shiftToFactor(signed char shift)
{
    if (shift == 0)
        return 1;
    std::uint32_t value = 1;
    for (unsigned char count = static_cast<unsigned char>(shift); count != 0; --count)
        value <<= 1;
    return static_cast<int>(value);
}

Fixpoint SrIntMinimization::convToXBitMantissa(const Fixpoint& value, unsigned char bits)
{
    if (bits < 1 || bits > 31)
        KRO_THROW("invalid mantissa width " << int(bits) << " (allowed: 1-31)");
    // The exponent limits are computed in 8 bits: for width 8, 2^7 wraps to
    // -128, so that the maximum is -128 - 1 = 127 and the minimum -(-128) = -128.
    const unsigned char halfRange = static_cast<unsigned char>(1u << (value.getExponentWidth() - 1));
    const int maxExp = static_cast<signed char>(static_cast<unsigned char>(halfRange - 1u));
    const int minExp = static_cast<signed char>(static_cast<unsigned char>(0u - halfRange));
    const std::int64_t low = std::int64_t(1) << (bits - 1);
    const std::int64_t high = (std::int64_t(1) << bits) - 1;
    std::int64_t m = value.getMantissa();
    int e = value.getExponent();
    if (m >= 0 && m < low) {
        while (m < low && e > minExp) {
            m *= 2;
            --e;
        }
    } else if (m > high) {
        while (m > high && e < maxExp) {
            m >>= 1;
            ++e;
        }
        if (m > high)
            KRO_THROW("int32 above possible range of fixpoint");
    } else if (m < -64) {
        // The original test compares the negative mantissa with +2^(bits-1),
        // which every negative mantissa passes: the exponent is walked to
        // its maximum and the value is refused.
        while (e < maxExp) {
            m >>= 1;
            ++e;
        }
        KRO_THROW("int32 below possible range of fixpoint");
    }
    Fixpoint result;
    result.setMantissa(static_cast<short>(m));
    result.setExponent(static_cast<signed char>(e));
    return result;
}

void SrIntMinimization::generatePsfs(int nFrames_, const PointF* shifts_)
{
    if (nFrames_ < 0 || nFrames_ > nFrames)
        KRO_THROW("invalid number of frames " << nFrames_ << " (object built for " << nFrames << ")");
    if (nFrames_ > 0 && !shifts_)
        KRO_THROW("null shifts passed to generatePsfs");
    // The interpolation of the PSF holds within half a pixel. A registration
    // that left more (or no number) has failed for that frame, which the
    // driver reports on its own; the frame is then modelled at the nearest
    // valid shift rather than stopping the reconstruction.
    auto valid = [](float s) { return std::isnan(s) ? 0.0f : std::min(std::max(s, -0.5f), 0.5f); };
    for (int i = 0; i < nFrames_; ++i)
        shifts[i] = PointF(valid(shifts_[i].x), valid(shifts_[i].y));
    rebuildPsfs();
}

void SrIntMinimization::rebuildPsfs()
{
    std::vector<float> taps(psfSize);
    for (int i = 0; i < nFrames; ++i) {
        detail::shiftPsf(basePsf.data(), psfSize, shifts[i].x * factor, taps.data());
        SrIntConvolution::quantizePsf(taps.data(), psfX[i].data());
        detail::shiftPsf(basePsf.data(), psfSize, shifts[i].y * factor, taps.data());
        SrIntConvolution::quantizePsf(taps.data(), psfY[i].data());
    }
}

int SrIntMinimization::regionThreads() const
{
    if (fullSize < kMinParallelFullSize)
        return 1;
    return std::max(1, std::min(parallel::resolveThreads(threadCount), threadCapacity));
}

void SrIntMinimization::masterTrace(const parallel::Team& team, const char* text)
{
    detail::masterTrace(team, *this, traceFailure, text);
}

void SrIntMinimization::masterTraceValue(const parallel::Team& team, const char* text, int value)
{
    detail::masterTraceValue(team, *this, traceFailure, text, value);
}

bool SrIntMinimization::convertFrames(const parallel::Team& team, int nFrames_,
                                     const std::vector<cv::Mat_<float>>& frames)
{
    const int t = team.index();
    team.forRows(0, nFrames_ * height, [&](int begin, int end) {
        try {
            for (int row = begin; row < end;) {
                const int f = row / height, first = row % height;
                const int last = std::min(height, first + (end - row));
                const cv::Mat_<short> part = convertMatFloatToMatInt(
                    frames[f].rowRange(first, last), getMinInputValue(), getMaxInputValue(), getInputScale(), 0.0f,
                    false);
                part.copyTo(converted[f].rowRange(first, last));
                row += last - first;
            }
        } catch (...) {
            conversionErrors[t] = std::current_exception();
        }
    });
    // Threads hold consecutive bands, so the first failing thread met the
    // first offending value in row-major order, as one call over the frames
    // would have.
    for (int k = 0; k < team.size(); ++k)
        if (conversionErrors[k])
            return false;
    return true;
}

int SrIntMinimization::normalizeFrames(const parallel::Team& team, Solve& solve, int nFrames_, int refIndex,
                                       const std::vector<cv::Mat_<signed char>>& masks)
{
    const std::vector<cv::Mat_<short>>& ints = converted;
    const std::int64_t count = static_cast<std::int64_t>(width) * height;
    const cv::Mat_<short>& ref = ints[refIndex];

    // Mean (rounded half away from zero) and range of the reference.
    team.forRows(0, height, [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            const short* row = ref[y];
            // At most 8192 values of 16 bits: the row's sum fits 32 bits.
            int sum = 0;
            int low = row[0], high = row[0];
            for (int x = 0; x < width; ++x) {
                sum += row[x];
                low = std::min<int>(low, row[x]);
                high = std::max<int>(high, row[x]);
            }
            sumSlotsA[y] = sum;
            maxSlotsA[y] = high;
            maxSlotsB[y] = -low;
        }
    });
    const std::int64_t total = parallel::sumInOrder(sumSlotsA.data(), height);
    const int refMax = *std::max_element(maxSlotsA.begin(), maxSlotsA.begin() + height);
    const int refMin = -*std::max_element(maxSlotsB.begin(), maxSlotsB.begin() + height);
    // Every thread has read the slots before any of them is reused.
    team.barrier();
    if (refMax == refMin)
        return kConstantReference;
    solve.mean = static_cast<int>((total >= 0 ? total + count / 2 : total - count / 2) / count);

    // Largest deviation of a used sample, number of used samples (all
    // frames), and the reference's sum of squared deviations.
    const int mean = solve.mean;
    team.forRows(0, nFrames_ * height, [&](int begin, int end) {
        for (int row = begin; row < end; ++row) {
            const int f = row / height, y = row % height;
            const short* v = ints[f][y];
            const signed char* m = masks[f][y];
            int deviation = 0, used = 0;
            for (int x = 0; x < width; ++x) {
                const int d = m[x] ? std::abs(v[x] - mean) : 0;
                deviation = std::max(deviation, d);
                used += m[x] != 0;
            }
            std::int64_t squares = 0;
            if (f == refIndex)
                for (int x = 0; x < width; ++x)
                    squares += (v[x] - mean) * (v[x] - mean);
            maxSlotsC[row] = deviation;
            sumSlotsB[row] = squares;
            maxSlotsA[row] = used;
        }
    });
    const int rows = nFrames_ * height;
    const std::int64_t used = std::accumulate(maxSlotsA.begin(), maxSlotsA.begin() + rows, std::int64_t(0));
    if (used == 0)
        return kNoSampleUsed;
    const int deviation = *std::max_element(maxSlotsC.begin(), maxSlotsC.begin() + rows);
    int shift = kMaxDataShift;
    while (shift > kMinDataShift && (static_cast<std::int64_t>(deviation) << (shift - kMinDataShift)) >
                                        (std::int64_t(1) << (kDataBits - kMinDataShift)))
        --shift;
    solve.shift = shift;
    // The spread of the reference in data units sets the scale of the TV
    // thresholds; it is computed once per solve, in double (the same value
    // on every thread).
    const double squares = static_cast<double>(parallel::sumInOrder(sumSlotsB.data(), rows));
    solve.sigma = std::sqrt(squares / static_cast<double>(count)) * std::ldexp(1.0, shift);

    // A factor beyond 2^14 cannot be meant (the shift is at most 14) and
    // would overflow: an override of shiftToFactor is held to that range.
    const int factorUp = shift > 0 ? std::min(std::max(shiftToFactor(static_cast<signed char>(shift)), -kSampleLimit),
                                              kSampleLimit)
                                   : 1;
    team.forRows(0, rows, [&](int begin, int end) {
        for (int row = begin; row < end; ++row) {
            const int f = row / height, y = row % height;
            const short* v = ints[f][y];
            const signed char* m = masks[f][y];
            short* out = frames16.data() + lowPlaneSize * f + lowOffset + static_cast<std::size_t>(y) * width;
            short* word = maskWords.data() + static_cast<std::size_t>(count) * f + static_cast<std::size_t>(y) * width;
            for (int x = 0; x < width; ++x) {
                // |d| <= 65535, so d * factorUp stays below 2^30.
                const int d = v[x] - mean;
                const int n = shift >= 0 ? d * factorUp : roundShift(d, -shift);
                word[x] = static_cast<short>(m[x] ? -1 : 0);
                out[x] = static_cast<short>(std::min(std::max(n, -kSampleLimit), kSampleLimit - 1) & word[x]);
            }
        }
    });
    return 0;
}

int SrIntMinimization::minimize(int nFrames_, int refIndex, const std::vector<cv::Mat_<float>>& frames,
                                const std::vector<cv::Mat_<signed char>>& masks, cv::Mat_<float>& output)
{
    if (nFrames_ < 1 || nFrames_ > nFrames)
        KRO_THROW("invalid number of frames " << nFrames_ << " (object built for " << nFrames << ")");
    if (refIndex < 0 || refIndex >= nFrames_)
        KRO_THROW("invalid reference index " << refIndex << " for " << nFrames_ << " frames");
    if (static_cast<int>(frames.size()) < nFrames_ || static_cast<int>(masks.size()) < nFrames_)
        KRO_THROW("fewer frames or masks than the " << nFrames_ << " to use");
    for (int i = 0; i < nFrames_; ++i)
        if (frames[i].rows != height || frames[i].cols != width || masks[i].rows != height ||
            masks[i].cols != width)
            KRO_THROW("frame or mask " << i << " is not " << width << "x" << height);
    if (output.rows != 2 * height || output.cols != 2 * width)
        KRO_THROW("output is " << output.cols << "x" << output.rows << ", expected " << 2 * width << "x"
                               << 2 * height);

    trace("start minimize");
    traceFailure = nullptr;
    std::fill(conversionErrors.begin(), conversionErrors.end(), nullptr);
    Solve initial;
    prepareWeights(initial);
    int status = 0;
    lastThreads = parallel::parallelRegion(regionThreads(), [&](const parallel::Team& team) {
        Solve solve = initial;
        // The frames arrive as float; the conversion checks their range.
        if (!convertFrames(team, nFrames_, frames))
            return;
        const int normalised = normalizeFrames(team, solve, nFrames_, refIndex, masks);
        if (normalised < 0) {
            team.single([&] { status = normalised; });
            return;
        }
        layoutTables(solve);
        team.single([&] { fillWeightTables(solve); });
        backProject(team, solve, nFrames_);

        // maxIter bounds both the large iterations and the total of small ones.
        int total = 0;
        if (maxIter > 0 && solve.b.maxAbs > 0) {
            int large = 0;
            int k = 0;
            do {
                masterTraceValue(team, "start large iteration: ", large);
                k = conjugateGradients(team, solve, nFrames_, maxIter - total);
                total += k;
                masterTraceValue(team, "end large iteration: ", large);
            } while (k != 0 && ++large < maxIter);
        }
        masterTraceValue(team, "cummulated iterations ", total);
        writeOutput(team, solve, output);
        team.single([&] { status = total; });
    });
    for (const std::exception_ptr& error : conversionErrors)
        if (error)
            std::rethrow_exception(error);
    if (traceFailure)
        std::rethrow_exception(traceFailure);
    cumIters = static_cast<short>(std::max(status, 0));
    trace("end minimize");
    return status;
}

} // namespace kro
} // namespace velmor
