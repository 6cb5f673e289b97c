#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "Exception.h"
#include "SrIntConvolution.h"
#include "TestImages.h"
#include "detail/GaussianPsf.h"

namespace velmor {
namespace kro {
namespace {

std::vector<short> randomShorts(std::size_t n, int low, int high, unsigned seed)
{
    cv::Mat values = krotest::randomImage(1, static_cast<int>(n), CV_32S, low, high + 1, seed);
    std::vector<short> out(n);
    for (std::size_t i = 0; i < n; ++i)
        out[i] = static_cast<short>(values.at<int>(0, static_cast<int>(i)));
    return out;
}

// Q15 taps of the float engine's PSF for a sub-pixel shift (fine pixels).
std::vector<short> psfTaps(float fineShift, float sigma = 0.683f)
{
    float base[6], shifted[6];
    detail::buildBasePsf(sigma, 2.0f, 6, base);
    detail::shiftPsf(base, 6, fineShift, shifted);
    std::vector<short> taps(6);
    SrIntConvolution::quantizePsf(shifted, taps.data());
    return taps;
}

// The model without rounding, in double: sparse(i, j) = sum psfY[k] psfX[l]
// full(2i + k, 2j + l) with the taps as fractions of 2^15.
double exactSample(const SrIntConvolution& c, const std::vector<short>& full, const std::vector<short>& px,
                   const std::vector<short>& py, int i, int j)
{
    double sum = 0.0;
    for (int k = 0; k < 6; ++k)
        for (int l = 0; l < 6; ++l)
            sum += double(py[k]) * px[l] * full[std::size_t(2 * i + k) * c.getFullWidth() + 2 * j + l];
    return sum / (32768.0 * 32768.0);
}

TEST(SrIntConvolution, TapsAreUnsignedQ15AndAHalfSurvivesTheWrap)
{
    const float psf[6] = {0.0f, 0.25f, 0.5f, 0.1f, 1.0f / 65536.0f, 0.5f - 1.0f / 65536.0f};
    short taps[6];
    SrIntConvolution::quantizePsf(psf, taps);
    // 0.5 is 32768 in Q16, stored as -32768 by the conversion, read back as
    // 32768 and halved; 0.1 is 6554 in Q16 (rounded), 3277 in Q15 (half up).
    const short expected[6] = {0, 8192, 16384, 3277, 1, 16384};
    for (int k = 0; k < 6; ++k)
        EXPECT_EQ(expected[k], taps[k]) << "tap " << k;

    const float negative[6] = {0.1f, -0.0001f, 0.0f, 0.0f, 0.0f, 0.0f};
    try {
        SrIntConvolution::quantizePsf(negative, taps);
        FAIL() << "a negative tap was accepted";
    } catch (const Exception& e) {
        EXPECT_EQ("convertMatFloatToMatInt: value clamped to min", std::string(e.what()));
    }
}

// Sample (i, j) sits at fine row 2i and column 2j: a PSF whose only tap is
// one half at index 0 picks full(2i, 2j) / 4, and its transpose puts a
// quarter of the sample back there and nothing elsewhere.
TEST(SrIntConvolution, SampleGridHasStepTwoInBothDirections)
{
    SrIntConvolution c(5, 3);
    ASSERT_EQ(15, c.getFullWidth());
    ASSERT_EQ(11, c.getFullHeight());
    const std::vector<short> full = randomShorts(15 * 11, -16384, 16383, 3);
    const std::vector<short> pick = {16384, 0, 0, 0, 0, 0};
    std::vector<short> sparse(15);
    c.validCorrToSparse(full.data(), pick.data(), pick.data(), sparse.data());
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 5; ++j) {
            const int v = full[std::size_t(2 * i) * 15 + 2 * j];
            // Two passes, each halving and rounding half up.
            EXPECT_EQ((((v + 1) >> 1) + 1) >> 1, sparse[i * 5 + j]) << i << "," << j;
        }

    std::vector<signed char> mask(15, 1);
    mask[7] = 0;
    std::vector<int> back(15 * 11, -1);
    c.fullConvFromSparse(sparse.data(), pick.data(), pick.data(), mask.data(), back.data());
    for (int r = 0; r < 11; ++r)
        for (int col = 0; col < 15; ++col) {
            const bool onGrid = r % 2 == 0 && col % 2 == 0 && r / 2 < 3 && col / 2 < 5;
            const int s = onGrid ? sparse[(r / 2) * 5 + col / 2] : 0;
            const bool masked = onGrid && (r / 2) * 5 + col / 2 == 7;
            // s / 4 exactly, in quarters.
            const int expected = masked ? 0 : s;
            EXPECT_EQ(expected, back[std::size_t(r) * 15 + col]) << r << "," << col;
        }
}

// Against the model without rounding: each pass rounds once, so the model
// is off by at most one unit (half a unit per pass; the taps of a vector sum
// to one, up to their own rounding) and the transpose by at most a quarter
// unit (a quarter from the kept fraction bit times the taps' parity sum of
// one half, and half a quarter at the end); the two are transposes of each
// other within those roundings.
TEST(SrIntConvolution, PairMatchesTheExactModelAndIsItsOwnTransposeWithinRounding)
{
    struct Case { int w, h; float sx, sy; };
    unsigned seed = 11;
    for (const Case& cs : {Case{1, 1, 0.0f, 0.0f}, Case{7, 1, 0.6f, -0.2f}, Case{1, 6, -1.0f, 1.0f},
                           Case{33, 17, 0.35f, -0.8f}, Case{160, 120, -0.5f, 0.25f}}) {
        SCOPED_TRACE(std::to_string(cs.w) + "x" + std::to_string(cs.h));
        SrIntConvolution c(cs.w, cs.h);
        const std::size_t fullSize = std::size_t(c.getFullWidth()) * c.getFullHeight();
        const std::size_t lowSize = std::size_t(cs.w) * cs.h;
        const std::vector<short> px = psfTaps(cs.sx), py = psfTaps(cs.sy);
        const std::vector<short> x = randomShorts(fullSize, -16384, 16383, seed++);
        const std::vector<short> y = randomShorts(lowSize, -16384, 16383, seed++);
        const std::vector<signed char> ones(lowSize, 1);
        std::vector<short> ax(lowSize);
        std::vector<int> aty(fullSize);
        c.validCorrToSparse(x.data(), px.data(), py.data(), ax.data());
        c.fullConvFromSparse(y.data(), px.data(), py.data(), ones.data(), aty.data());

        double axy = 0.0, xaty = 0.0, exactAxy = 0.0, sumX = 0.0, sumY = 0.0;
        for (int i = 0; i < cs.h; ++i)
            for (int j = 0; j < cs.w; ++j) {
                const double exact = exactSample(c, x, px, py, i, j);
                ASSERT_LE(std::fabs(ax[i * cs.w + j] - exact), 1.0001) << "sample " << i << "," << j;
                axy += double(ax[i * cs.w + j]) * y[i * cs.w + j];
                exactAxy += exact * y[i * cs.w + j];
                sumY += std::abs(y[i * cs.w + j]);
            }
        // The exact transpose element by element, from its definition.
        std::vector<double> exactT(fullSize, 0.0);
        for (int i = 0; i < cs.h; ++i)
            for (int j = 0; j < cs.w; ++j)
                for (int k = 0; k < 6; ++k)
                    for (int l = 0; l < 6; ++l)
                        exactT[std::size_t(2 * i + k) * c.getFullWidth() + 2 * j + l] +=
                            double(py[k]) * px[l] * y[i * cs.w + j] / (32768.0 * 32768.0);
        for (std::size_t p = 0; p < fullSize; ++p) {
            ASSERT_LE(std::fabs(aty[p] / 4.0 - exactT[p]), 0.2501) << "element " << p;
            xaty += x[p] * (aty[p] / 4.0);
            sumX += std::abs(x[p]);
        }
        EXPECT_LE(std::fabs(axy - xaty), sumY + 0.25 * sumX);
        EXPECT_NEAR(exactAxy, axy, sumY);
    }
}

TEST(SrIntConvolution, AnAllZeroMaskGivesAnAllZeroTranspose)
{
    SrIntConvolution c(9, 4);
    const std::vector<short> y = randomShorts(36, -16384, 16383, 5);
    const std::vector<signed char> none(36, 0);
    const std::vector<short> taps = psfTaps(0.3f);
    std::vector<int> full(std::size_t(c.getFullWidth()) * c.getFullHeight(), 7);
    c.fullConvFromSparse(y.data(), taps.data(), taps.data(), none.data(), full.data());
    for (int v : full)
        ASSERT_EQ(0, v);
    EXPECT_THROW(SrIntConvolution(0, 4), Exception);
    EXPECT_THROW(SrIntConvolution(9, 8193), Exception);
}

} // namespace
} // namespace kro
} // namespace velmor
