#include "SpatialNoiseRemover.h"

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "Exception.h"
#include "IntegerModel.h"
#include "TestImages.h"
#include "detail/FilterArithmetic.h"

namespace {

using velmor::kro::SpatialNoiseRemover;
using krotest::absolute;
using krotest::floorShift;
using krotest::wrap16;

std::int64_t div9Model(std::int64_t x)
{
    const std::int64_t t = x + 5;
    const std::int64_t m = t - floorShift(t, 3);
    return floorShift(m + floorShift(m, 12) + floorShift(m, 6), 3);
}

// The filter as its definition reads: clamped 3x3 block, plain division.
cv::Mat_<short> snrModel(const cv::Mat_<short>& src, int gain)
{
    cv::Mat_<short> dst(src.rows, src.cols);
    for (int r = 0; r < src.rows; ++r) {
        for (int c = 0; c < src.cols; ++c) {
            std::int64_t u[9];
            int i = 0;
            for (int dr = -1; dr <= 1; ++dr)
                for (int dc = -1; dc <= 1; ++dc) {
                    const int rr = std::min(std::max(r + dr, 0), src.rows - 1);
                    const int cc = std::min(std::max(c + dc, 0), src.cols - 1);
                    u[i++] = src(rr, cc) + 32768;
                }
            std::int64_t sum = 0;
            for (std::int64_t v : u)
                sum += v;
            const std::int64_t mean = div9Model(sum);
            std::int64_t sad = 0;
            for (std::int64_t v : u)
                sad += absolute(v - mean);
            const std::int64_t k = gain == 0 ? 32 : std::min<std::int64_t>(sad / gain + 13, 32);
            dst(r, c) = static_cast<short>(wrap16(mean - 32768 + floorShift((u[4] - mean) * k + 16, 5)));
        }
    }
    return dst;
}

// Test images: full-range noise, small noise around a level (every k from 13
// to 32 occurs), saturated extremes, and a step edge with noise.
cv::Mat_<short> makeImage(int kind, int rows, int cols, std::uint64_t seed)
{
    std::mt19937_64 rng(seed);
    cv::Mat_<short> image(rows, cols);
    const int level = static_cast<int>(rng() % 60000) - 30000;
    for (int r = 0; r < rows; ++r) {
        for (int c = 0; c < cols; ++c) {
            int v = 0;
            switch (kind) {
            case 0: v = static_cast<int>(rng() % 65536) - 32768; break;
            case 1: v = level + static_cast<int>(rng() % 61) - 30; break;
            case 2: v = rng() % 2 ? 32767 : -32768; break;
            default: v = (c < cols / 2 ? -3000 : 9000) + static_cast<int>(rng() % 201) - 100; break;
            }
            image(r, c) = static_cast<short>(v);
        }
    }
    return image;
}

TEST(SpatialNoiseRemover, MatchesScalarModelOverSizesGainsAndImages)
{
    const cv::Size sizes[] = {{1, 1}, {9, 1}, {1, 9}, {2, 2}, {13, 7}, {160, 120}};
    std::uint64_t seed = 11;
    for (int gain : {0, 1, 2, 5, 6, 13, 30, 31}) {
        SpatialNoiseRemover filter(gain);
        for (const cv::Size& size : sizes) {
            for (int kind = 0; kind < 4; ++kind) {
                const cv::Mat_<short> src = makeImage(kind, size.height, size.width, seed++);
                cv::Mat_<short> out;
                filter.process(src, out);
                ASSERT_TRUE(krotest::imagesEqual(snrModel(src, gain), out))
                    << "gain " << gain << ", " << size << ", image kind " << kind;
            }
        }
    }
}

TEST(SpatialNoiseRemover, RegionOfInterestAndReusedOutputMatchModel)
{
    const cv::Mat_<short> whole = makeImage(1, 40, 50, 77);
    const cv::Mat_<short> roi = whole(cv::Rect(3, 5, 31, 17));
    cv::Mat_<short> out(2, 2, short(0));  // wrong size: reallocated
    SpatialNoiseRemover filter(6);
    filter.process(roi, out);
    EXPECT_IMAGES_EQUAL(snrModel(roi.clone(), 6), out);
}

TEST(SpatialNoiseRemover, SameBytesWithOneAndTwoThreads)
{
    const cv::Mat_<short> src = makeImage(3, 131, 157, 21);
    cv::Mat_<short> out1, out2;
    {
        krotest::ThreadCount count(1);
        SpatialNoiseRemover(6).process(src, out1);
    }
    {
        krotest::ThreadCount count(2);
        SpatialNoiseRemover(6).process(src, out2);
    }
    EXPECT_IMAGES_EQUAL(out1, out2);
}

TEST(SpatialNoiseRemover, GainZeroReturnsInput)
{
    const cv::Mat_<short> src = makeImage(0, 21, 17, 5);
    cv::Mat_<short> out;
    SpatialNoiseRemover(0).process(src, out);
    EXPECT_IMAGES_EQUAL(src, out);
}

TEST(SpatialNoiseRemover, ConstantFrameIsUnchanged)
{
    for (short level : {short(-32768), short(-1), short(0), short(1234), short(32767)}) {
        for (int gain : {1, 6, 31}) {
            const cv::Mat_<short> src(5, 7, level);
            cv::Mat_<short> out;
            SpatialNoiseRemover(gain).process(src, out);
            EXPECT_IMAGES_EQUAL(src, out) << "level " << level << ", gain " << gain;
            const cv::Mat_<short> single(1, 1, level);
            SpatialNoiseRemover(gain).process(single, out);
            EXPECT_EQ(out(0, 0), level) << "1x1, level " << level << ", gain " << gain;
        }
    }
}

TEST(SpatialNoiseRemover, FlatAreaKeepsThirteenThirtySecondsOfTheDeviation)
{
    // A 3x3 frame, all 100 except a centre of 109: sum of u = 9 * 32868 + 9,
    // mean = div9(295821) = 32869, sad = 8 * 1 + 8 = 16; gain 31 gives
    // k = 16 / 31 + 13 = 13, centre output 32869 - 32768 + ((8 * 13 + 16) >> 5)
    // = 101 + 3 = 104.
    cv::Mat_<short> src(3, 3, short(100));
    src(1, 1) = 109;
    cv::Mat_<short> out;
    SpatialNoiseRemover(31).process(src, out);
    EXPECT_EQ(out(1, 1), 104);
}

TEST(SpatialNoiseRemover, InvalidGainsAreRefusedOrReplacedByZero)
{
    const cv::Mat_<short> src = makeImage(1, 9, 11, 9);
    cv::Mat_<short> out;
    for (int bad : {32, -1}) {
        SpatialNoiseRemover filter(bad);
        filter.process(src, out);
        EXPECT_IMAGES_EQUAL(src, out) << "constructor with " << bad << " must mean gain 0";
    }
    SpatialNoiseRemover filter(6);
    EXPECT_FALSE(filter.setGain(32));
    EXPECT_FALSE(filter.setGain(-1));
    filter.process(src, out);
    EXPECT_IMAGES_EQUAL(snrModel(src, 6), out);
    EXPECT_TRUE(filter.setGain(31));
    filter.process(src, out);
    EXPECT_IMAGES_EQUAL(snrModel(src, 31), out);
}

TEST(SpatialNoiseRemover, RefusesEmptyAndAliasedFrames)
{
    SpatialNoiseRemover filter(6);
    cv::Mat_<short> out;
    EXPECT_THROW(filter.process(cv::Mat_<short>(), out), velmor::kro::Exception);
    cv::Mat_<short> frame = makeImage(1, 8, 8, 1);
    EXPECT_THROW(filter.process(frame, frame), velmor::kro::Exception);
}

TEST(FilterArithmetic, Div9IsTheShiftFormAndFallsAtMostOneShort)
{
    EXPECT_EQ(velmor::kro::detail::div9(589820), 65535);
    for (std::int32_t x = 0; x <= 9 * 65535 + 5; ++x) {
        const std::int32_t d = velmor::kro::detail::div9(x);
        ASSERT_EQ(d, div9Model(x)) << "x = " << x;
        ASSERT_TRUE(d == (x + 5) / 9 || d == (x + 5) / 9 - 1) << "x = " << x;
    }
    // The mean of nine equal samples is the sample itself.
    for (std::int32_t u = 0; u <= 65535; ++u)
        ASSERT_EQ(velmor::kro::detail::div9(9 * u), u) << "u = " << u;
}

TEST(FilterArithmetic, ReciprocalDivisionIsExactWhereTheFilterUsesIt)
{
    for (std::int32_t d = 1; d <= 31; ++d) {
        const std::int32_t reciprocal = velmor::kro::detail::reciprocalOf(d);
        for (std::int32_t n = 0; n <= 19 * d; ++n)
            ASSERT_EQ(velmor::kro::detail::divideByReciprocal(n, reciprocal), n / d)
                << n << " / " << d;
    }
}

} // namespace
