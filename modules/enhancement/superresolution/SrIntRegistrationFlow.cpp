#include "SrIntRegistration.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>

#include "detail/Parallel.h"
#include "detail/SrIntRegistrationRows.h"
#include "detail/Throw.h"

// The integer Lucas-Kanade step of SrIntRegistration: gradients of the
// reference, its structure tensor and the repair to an overlap, the 64-bit
// sums, the solve in Fixpoint arithmetic, the residual image, its box filter
// and the mask.

namespace velmor {
namespace kro {

namespace {

// Exponent width of every Fixpoint built from an integer sum.
constexpr signed char kSumExponentWidth = 7;
// Rough operations per pixel of the gradient, sum and mask loops.
constexpr std::size_t kOpsPerPixel = 8;
constexpr int kQ15Exponent = -15;
constexpr int kHalfPixelQ15 = 0x4000;
constexpr int kOnePixelQ15 = 0x8000;

// v * 2^-n, rounded half up (the last bit shifted out is added); n < 0
// multiplies. Values here stay far below 2^62, where a shift of 63 or more
// leaves nothing.
std::int64_t shiftRightRounded(std::int64_t v, int n)
{
    if (n <= 0)
        return v * (std::int64_t(1) << std::min(-n, 62));
    if (n >= 63)
        return 0;
    return (v + (std::int64_t(1) << (n - 1))) >> n;
}

// value = mantissa * 2^exponent as a Fixpoint of the sums' exponent width.
Fixpoint sumFixpoint(std::int64_t mantissa, int exponent, bool& fits)
{
    Fixpoint f;
    f.setExponentWidth(kSumExponentWidth);
    fits = f.fromInt64(mantissa) == 0;
    f.setExponent(static_cast<signed char>(exponent));
    return f;
}

// Brings n integer sums to one exponent, the one their largest magnitude
// needs for a 16-bit mantissa, rounding as Fixpoint does (nearest, ties
// away from zero). False when a mantissa then does not fit 16 bits, which
// the shared exponent rules out: a sign of broken arithmetic.
bool toCommonExponent(const std::int64_t* sums, Fixpoint* out, int n)
{
    std::int64_t largest = 0;
    for (int i = 0; i < n; ++i)
        largest = std::max<std::int64_t>(largest, std::llabs(sums[i]));
    Fixpoint probe;
    probe.setExponentWidth(kSumExponentWidth);
    const int e = probe.fromInt64(largest);
    bool ok = e >= 0 && !probe.saturated();
    for (int i = 0; i < n && ok; ++i) {
        const std::int64_t magnitude = shiftRightRounded(static_cast<std::int64_t>(std::llabs(sums[i])), e);
        bool fits = true;
        out[i] = sumFixpoint(sums[i] < 0 ? -magnitude : magnitude, e, fits);
        ok = fits;
    }
    return ok;
}

// a * b - c * d from the 16-bit mantissas as a 32-bit difference: the product
// with the smaller exponent is shifted right to the other's. The exponent of
// the result is that of the products plus what fromInt32 adds. False when
// the exponent leaves the range of the sums' width.
bool productDifference(const Fixpoint& a, const Fixpoint& b, const Fixpoint& c, const Fixpoint& d,
                       Fixpoint& out)
{
    std::int64_t p = static_cast<std::int64_t>(a.getMantissa()) * b.getMantissa();
    std::int64_t q = static_cast<std::int64_t>(c.getMantissa()) * d.getMantissa();
    const int ep = a.getExponent() + b.getExponent();
    const int eq = c.getExponent() + d.getExponent();
    const int e = std::max(ep, eq);
    p >>= std::min(e - ep, 62);
    q >>= std::min(e - eq, 62);
    // |p|, |q| <= 32767^2, so the difference fits 32 bits.
    out = Fixpoint();
    out.setExponentWidth(kSumExponentWidth);
    out.fromInt32(static_cast<int>(p - q));
    if (out.getMantissa() == 0)
        return true;
    const int total = out.getExponent() + e;
    out.setExponent(static_cast<signed char>(std::clamp(total, -128, 127)));
    return total >= out.minExponent() && total <= out.maxExponent();
}

// numerator / determinant: (numerator mantissa << 16) / determinant
// mantissa, exponent e(numerator) - 16 - e(determinant), the quotient
// brought into a 16-bit mantissa by raising the exponent.
Fixpoint quotient(const Fixpoint& numerator, const Fixpoint& determinant)
{
    const std::int64_t q = static_cast<std::int64_t>(numerator.getMantissa()) * 65536 / determinant.getMantissa();
    Fixpoint f;
    f.setExponentWidth(kSumExponentWidth);
    const int raised = f.fromInt64(q);
    if (q == 0)
        return f;
    const int e = raised + numerator.getExponent() - 16 - determinant.getExponent();
    f.setExponent(static_cast<signed char>(std::clamp(e, -128, 127)));
    return f;
}

// The value in Q15 (mantissa at exponent -15), rounded half up; false when it
// does not fit 16 bits (|value| >= 1 pixel).
bool toQ15(const Fixpoint& value, int& q15)
{
    const std::int64_t q = shiftRightRounded(value.getMantissa(), kQ15Exponent - value.getExponent());
    q15 = static_cast<int>(std::clamp<std::int64_t>(q, -32769, 32768));
    return q >= -32768 && q <= 32767;
}

// Moves a remainder of half a pixel or more into the integer shift: the
// 16-bit two's-complement subtraction of 0x8000 turns r into r - 1 pixel
// when r >= 0.5 and into r + 1 pixel when r < -0.5.
void carryHalfPixel(int& q15, short& integer)
{
    if (q15 >= kHalfPixelQ15)
        ++integer;
    else if (q15 < -kHalfPixelQ15)
        --integer;
    else
        return;
    q15 = static_cast<short>(static_cast<unsigned short>(q15 - kOnePixelQ15));
}

Fixpoint q15Fixpoint(int q15)
{
    Fixpoint f;
    f.setExponentWidth(kSumExponentWidth);
    f.setMantissa(static_cast<short>(q15));
    f.setExponent(static_cast<signed char>(kQ15Exponent));
    return f;
}

// integer + q15 / 2^15 as a Fixpoint.
Fixpoint shiftFixpoint(short integer, int q15)
{
    Fixpoint f;
    f.setExponentWidth(kSumExponentWidth);
    f.fromInt32(integer * kOnePixelQ15 + q15);
    f.incrExponent(static_cast<signed char>(kQ15Exponent));
    return f;
}

bool sameNonEmptySize(const cv::Mat& a, const cv::Mat& b)
{
    return !a.empty() && a.rows == b.rows && a.cols == b.cols;
}

} // namespace

void SrIntRegistration::computeDiffX(const cv::Mat_<unsigned char>& ref, cv::Mat_<short>& out)
{
    if (!sameNonEmptySize(ref, out))
        KRO_THROW("invalid Ref or DiffX frame size");
    const int w = ref.cols;
    forRows(ref.rows, static_cast<std::size_t>(w) * kOpsPerPixel, [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            const unsigned char* in = ref[y];
            short* d = out[y];
            if (w == 1) {
                d[0] = 0;
                continue;
            }
            d[0] = static_cast<short>(in[1] - in[0]);
            KROLIB_SIMD_LOOP
            for (int x = 1; x < w - 1; ++x)
                d[x] = static_cast<short>((in[x + 1] - in[x - 1]) >> 1);
            d[w - 1] = static_cast<short>(in[w - 1] - in[w - 2]);
        }
    });
}

void SrIntRegistration::computeDiffX_neon(const cv::Mat_<unsigned char>& ref, cv::Mat_<short>& out)
{
    if (!sameNonEmptySize(ref, out))
        KRO_THROW("invalid Ref or DiffX frame size");
    const int w = ref.cols;
    constexpr int kLanes = 8;
    forRows(ref.rows, static_cast<std::size_t>(w) * kOpsPerPixel, [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            const unsigned char* in = ref[y];
            short* d = out[y];
            // Eight lanes at a time: widen the right and left neighbours to
            // 16 bits, subtract, halve; the ends and the tail one at a time
            // with the one-sided rule.
            int x = 1;
            for (; x + kLanes <= w - 1; x += kLanes) {
                short right[kLanes];
                short left[kLanes];
                for (int l = 0; l < kLanes; ++l) {
                    right[l] = in[x + 1 + l];
                    left[l] = in[x - 1 + l];
                }
                for (int l = 0; l < kLanes; ++l)
                    d[x + l] = static_cast<short>((right[l] - left[l]) >> 1);
            }
            for (int c = 0; c < w; ++c) {
                if (c >= 1 && c < x)
                    continue;
                const int lo = std::max(c - 1, 0);
                const int hi = std::min(c + 1, w - 1);
                const int diff = in[hi] - in[lo];
                d[c] = static_cast<short>(hi - lo == 2 ? diff >> 1 : diff);
            }
        }
    });
}

void SrIntRegistration::computeDiffY(const cv::Mat_<unsigned char>& ref, cv::Mat_<short>& out)
{
    if (!sameNonEmptySize(ref, out))
        KRO_THROW("invalid Ref or DiffY frame size");
    const int w = ref.cols;
    const int h = ref.rows;
    forRows(h, static_cast<std::size_t>(w) * kOpsPerPixel, [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            short* d = out[y];
            if (h == 1) {
                std::fill(d, d + w, short(0));
                continue;
            }
            const int up = std::max(y - 1, 0);
            const int down = std::min(y + 1, h - 1);
            const int halve = down - up == 2 ? 1 : 0;
            const unsigned char* a = ref[up];
            const unsigned char* b = ref[down];
            KROLIB_SIMD_LOOP
            for (int x = 0; x < w; ++x)
                d[x] = static_cast<short>((b[x] - a[x]) >> halve);
        }
    });
}

void SrIntRegistration::addTensorSums(const cv::Mat_<short>& dxImage, const cv::Mat_<short>& dyImage,
                                      std::int64_t& sxx, std::int64_t& sxy, std::int64_t& syy)
{
    if (dxImage.empty() || dyImage.empty())
        return;
    const int w = dxImage.cols;
    const int h = dxImage.rows;
    std::int64_t* slots = rowSums.data();
    forRows(h, static_cast<std::size_t>(w) * kOpsPerPixel, [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            const short* dx = dxImage[y];
            const short* dy = dyImage[y];
            std::int64_t xx = 0;
            std::int64_t xy = 0;
            std::int64_t yy = 0;
            KROLIB_SIMD_LOOP
            for (int x = 0; x < w; ++x) {
                const int a = dx[x];
                const int b = dy[x];
                xx += a * a;
                xy += a * b;
                yy += b * b;
            }
            slots[3 * y] = xx;
            slots[3 * y + 1] = xy;
            slots[3 * y + 2] = yy;
        }
    });
    for (int y = 0; y < h; ++y) {
        sxx += slots[3 * y];
        sxy += slots[3 * y + 1];
        syy += slots[3 * y + 2];
    }
}

void SrIntRegistration::computeStructureTensor(const cv::Mat_<short>& dxImage, const cv::Mat_<short>& dyImage,
                                               std::int64_t& sxx, std::int64_t& sxy, std::int64_t& syy)
{
    if (dxImage.rows != dyImage.rows || dxImage.cols != dyImage.cols)
        KRO_THROW("invalid DiffX or DiffY frame size");
    sxx = sxy = syy = 0;
    addTensorSums(dxImage, dyImage, sxx, sxy, syy);
}

void SrIntRegistration::computeRepair(const cv::Mat_<short>& rowsX, const cv::Mat_<short>& rowsY,
                                      const cv::Mat_<short>& colsX, const cv::Mat_<short>& colsY,
                                      std::int64_t& sxx, std::int64_t& sxy, std::int64_t& syy)
{
    sxx = sxy = syy = 0;
    computeHorizontalRepair(rowsX, rowsY, sxx, sxy, syy);
    computeVerticalRepair(colsX, colsY, sxx, sxy, syy);
}

void SrIntRegistration::computeHorizontalRepair(const cv::Mat_<short>& dxImage, const cv::Mat_<short>& dyImage,
                                                std::int64_t& sxx, std::int64_t& sxy, std::int64_t& syy)
{
    addTensorSums(dxImage, dyImage, sxx, sxy, syy);
}

void SrIntRegistration::computeVerticalRepair(const cv::Mat_<short>& dxImage, const cv::Mat_<short>& dyImage,
                                              std::int64_t& sxx, std::int64_t& sxy, std::int64_t& syy)
{
    addTensorSums(dxImage, dyImage, sxx, sxy, syy);
}

void SrIntRegistration::computeOpticalFlowSumDiffXtYt(const cv::Mat_<unsigned char>& first,
                                                      const cv::Mat_<unsigned char>& second,
                                                      const cv::Mat_<short>& dxImage,
                                                      const cv::Mat_<short>& dyImage, std::int64_t& sxt,
                                                      std::int64_t& syt)
{
    const int w = first.cols;
    const int h = first.rows;
    std::int64_t* slots = rowSums.data();
    forRows(h, static_cast<std::size_t>(w) * kOpsPerPixel, [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            const unsigned char* f = first[y];
            const unsigned char* s = second[y];
            const short* dx = dxImage[y];
            const short* dy = dyImage[y];
            std::int64_t xt = 0;
            std::int64_t yt = 0;
            KROLIB_SIMD_LOOP
            for (int x = 0; x < w; ++x) {
                const int t = s[x] - f[x];
                xt += dx[x] * t;
                yt += dy[x] * t;
            }
            slots[3 * y] = xt;
            slots[3 * y + 1] = yt;
        }
    });
    sxt = syt = 0;
    for (int y = 0; y < h; ++y) {
        sxt += slots[3 * y];
        syt += slots[3 * y + 1];
    }
}

void SrIntRegistration::computeOpticalFlowError(const cv::Mat_<unsigned char>& first,
                                                const cv::Mat_<unsigned char>& second,
                                                const cv::Mat_<short>& dxImage, const cv::Mat_<short>& dyImage,
                                                const Fixpoint& u, const Fixpoint& v, int errorShift,
                                                cv::Mat_<short>& error)
{
    // Both components at the larger of their exponents (<= 0), so that one
    // rounding shift brings dx u + dy v to whole grey levels.
    const int eu = u.getExponent();
    const int ev = v.getExponent();
    const int e = std::max(eu, ev);
    const std::int64_t mu = shiftRightRounded(u.getMantissa(), e - eu);
    const std::int64_t mv = shiftRightRounded(v.getMantissa(), e - ev);
    const int shift = std::min(-e, 62);
    const std::int64_t half = shift > 0 ? std::int64_t(1) << (shift - 1) : 0;
    // A negative error shift scales up; 2^32 already saturates any r != 0.
    const int up = std::clamp(-errorShift, 0, 32);
    const int down = std::clamp(errorShift, 0, 62);
    const std::int64_t errorHalf = down > 0 ? std::int64_t(1) << (down - 1) : 0;
    const int w = first.cols;
    std::atomic<bool> outOfRange(false);
    forRows(first.rows, static_cast<std::size_t>(w) * kOpsPerPixel, [&](int begin, int end) {
        bool bad = false;
        for (int y = begin; y < end; ++y) {
            const unsigned char* f = first[y];
            const unsigned char* s = second[y];
            const short* dx = dxImage[y];
            const short* dy = dyImage[y];
            short* out = error[y];
            for (int x = 0; x < w; ++x) {
                const std::int64_t t = s[x] - f[x];
                const std::int64_t model = (dx[x] * mu + dy[x] * mv + half) >> shift;
                const std::int64_t r = t - model;
                bad |= r < -32768 || r > 32767;
                const std::int64_t clipped = std::clamp<std::int64_t>(r, -32768, 32767);
                const std::int64_t squared = (((clipped * clipped) << up) + errorHalf) >> down;
                out[x] = static_cast<short>(std::min<std::int64_t>(squared, 32767));
            }
        }
        if (bad)
            outOfRange = true;
    });
    if (outOfRange)
        KRO_THROW("out of range");
}

void SrIntRegistration::boxSepFilter2D(cv::Mat_<short>& image, int radius)
{
    // Mean over the (2 radius + 1)^2 window clipped to the image: the error
    // outside the shared area is unknown, not zero. Column sums first, then
    // row sums of those, rounded to the nearest integer.
    const int w = image.cols;
    const int h = image.rows;
    cv::Mat_<int> columns = boxColumns(cv::Rect(0, 0, w, h));
    forRows(h, static_cast<std::size_t>(w) * (2 * radius + 1), [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            int* c = columns[y];
            std::fill(c, c + w, 0);
            for (int yy = std::max(0, y - radius); yy <= std::min(h - 1, y + radius); ++yy) {
                const short* e = image[yy];
                KROLIB_SIMD_LOOP
                for (int x = 0; x < w; ++x)
                    c[x] += e[x];
            }
        }
    });
    forRows(h, static_cast<std::size_t>(w) * (2 * radius + 1), [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            const int rows = std::min(h - 1, y + radius) - std::max(0, y - radius) + 1;
            const int* c = columns[y];
            short* out = image[y];
            for (int x = 0; x < w; ++x) {
                const int x0 = std::max(0, x - radius);
                const int x1 = std::min(w - 1, x + radius);
                std::int64_t sum = 0;
                for (int xx = x0; xx <= x1; ++xx)
                    sum += c[xx];
                const std::int64_t n = static_cast<std::int64_t>(rows) * (x1 - x0 + 1);
                out[x] = static_cast<short>((sum + n / 2) / n);
            }
        }
    });
}

void SrIntRegistration::boxingFilterForSmoothing(cv::Mat_<short>& error)
{
    // Half the blur radius, rounded up: a 7 x 7 mean for the default radius
    // of 5, the window of the float corner registration.
    boxSepFilter2D(error, (blurRadius + 1) / 2);
}

void SrIntRegistration::computeImageMask(const cv::Mat_<short>& error, cv::Mat_<signed char>& mask,
                                         unsigned short threshold)
{
    const int w = error.cols;
    const int limit = threshold;
    forRows(error.rows, static_cast<std::size_t>(w) * kOpsPerPixel, [&](int begin, int end) {
        for (int y = begin; y < end; ++y) {
            const short* e = error[y];
            signed char* m = mask[y];
            KROLIB_SIMD_LOOP
            for (int x = 0; x < w; ++x)
                m[x] = static_cast<signed char>(e[x] < limit ? 1 : 0);
        }
    });
}

int SrIntRegistration::errorShiftFor(std::int64_t energy) const
{
    // error = r^2 / 2^shift is compared with the mantissa of regErrorFix, so
    // a pixel is kept when r^2 < regError * 2^log2(energy): the squared
    // residual against the gradient energy of the shared area, as in the
    // float corner registration, with the energy rounded to a power of two
    // (nearest on a log scale up to a factor 1.5 / sqrt(2)).
    int log2 = 0;
    while (log2 < 62 && (std::int64_t(1) << (log2 + 1)) <= energy)
        ++log2;
    if (log2 > 0 && ((energy >> (log2 - 1)) & 1) != 0)
        ++log2;
    return regErrorFix.getExponent() + log2;
}

void SrIntRegistration::prepareGradientsRefImage(unsigned int pyramid)
{
    trace("start prepareGradientsRefImage");
    const cv::Mat_<unsigned char> ref = pyramids.levels[pyramid][0];
    computeDiffY(ref, diffY);
    computeDiffX(ref, diffX);
    computeStructureTensor(diffX, diffY, refSxx, refSxy, refSyy);
    trace("end prepareGradientsRefImage");
}

cv::Point_<short> SrIntRegistration::opticalFlow(unsigned int ref, unsigned int cur, cv::Point_<short> intShift,
                                                 cv::Point_<Fixpoint>& subPixel, cv::Point_<Fixpoint>& pairShift,
                                                 cv::Mat_<signed char>& mask)
{
    trace("start opticalFlow");
    const cv::Mat_<unsigned char> refImage = pyramids.levels[ref][0];
    const cv::Mat_<unsigned char> curImage = pyramids.levels[cur][0];
    // The current frame is the reference moved by about intShift: reference
    // pixel p meets current pixel p + intShift.
    const int sx = intShift.x;
    const int sy = intShift.y;
    Region curArea{std::max(sx, 0), std::max(sy, 0), width - std::abs(sx), height - std::abs(sy)};
    Region refArea{std::max(-sx, 0), std::max(-sy, 0), curArea.width, curArea.height};

    std::int64_t sums[3] = {0, 0, 0};
    std::int64_t timeSums[2] = {0, 0};
    if (!curArea.empty()) {
        // The reference's tensor minus what lies outside the overlap: the
        // |sy| whole rows above or below it (the horizontal band) and the
        // |sx| columns left or right of it within its rows (the vertical
        // band), so that the corner both share is taken away once.
        const int bandRows = height - refArea.height;
        const int bandCols = width - refArea.width;
        const cv::Rect rows(0, refArea.y0 > 0 ? 0 : refArea.height, width, bandRows);
        const cv::Rect cols(refArea.x0 > 0 ? 0 : refArea.width, refArea.y0, bandCols, refArea.height);
        std::int64_t repair[3] = {0, 0, 0};
        computeRepair(diffX(rows), diffY(rows), diffX(cols), diffY(cols), repair[0], repair[1], repair[2]);
        sums[0] = refSxx - repair[0];
        sums[1] = refSxy - repair[1];
        sums[2] = refSyy - repair[2];
        // t = reference - current: with that order the solution below is
        // the current frame's remainder against intShift itself.
        computeOpticalFlowSumDiffXtYt(curImage(curArea.rect()), refImage(refArea.rect()), diffX(refArea.rect()),
                                      diffY(refArea.rect()), timeSums[0], timeSums[1]);
    }

    Fixpoint tensor[3];
    if (!toCommonExponent(sums, tensor, 3))
        KRO_THROW("unexpected Exp");
    Fixpoint time[2];
    if (!toCommonExponent(timeSums, time, 2))
        KRO_THROW("unexpected Exp");
    const Fixpoint& sxx = tensor[0];
    const Fixpoint& sxy = tensor[1];
    const Fixpoint& syy = tensor[2];
    Fixpoint det;
    Fixpoint numU;
    Fixpoint numV;
    if (!productDifference(sxx, syy, sxy, sxy, det) || !productDifference(syy, time[0], sxy, time[1], numU) ||
        !productDifference(sxx, time[1], sxy, time[0], numV))
        KRO_THROW("unexpected Exp");

    cv::Point_<short> shift = intShift;
    int q15[2] = {0, 0};
    // No shared area or no gradient structure in one direction (flat or
    // striped content): nothing to refine against, so the frame keeps its
    // integer shift and is dropped by an empty mask.
    const bool solvable = det.getMantissa() > 0;
    if (solvable) {
        const Fixpoint u = quotient(numU, det);
        const Fixpoint v = quotient(numV, det);
        // A step of a whole pixel or more does not fit Q15 either: the
        // corners and the gradient step disagree about the integer shift.
        if (u.getExponent() > 0 || v.getExponent() > 0 || !toQ15(u, q15[0]) || !toQ15(v, q15[1]))
            KRO_THROW("invalid result for shift, shifting away integer pixel shift");
        cv::Mat_<short> error = errorImage(refArea.rect());
        computeOpticalFlowError(curImage(curArea.rect()), refImage(refArea.rect()), diffX(refArea.rect()),
                                diffY(refArea.rect()), u, v, errorShiftFor(sums[0] + sums[2]),
                                error);
        boxingFilterForSmoothing(error);
        carryHalfPixel(q15[0], shift.x);
        carryHalfPixel(q15[1], shift.y);
    }

    // Outputs only now: a failure above leaves them as they were.
    mask = 0;
    if (solvable) {
        cv::Mat_<signed char> inside = mask(refArea.rect());
        computeImageMask(errorImage(refArea.rect()), inside, static_cast<unsigned short>(regErrorFix.getMantissa()));
    }
    subPixel = cv::Point_<Fixpoint>(q15Fixpoint(q15[0]), q15Fixpoint(q15[1]));
    pairShift = cv::Point_<Fixpoint>(shiftFixpoint(shift.x, q15[0]), shiftFixpoint(shift.y, q15[1]));
    trace("end opticalFlow");
    return shift;
}

} // namespace kro
} // namespace velmor
