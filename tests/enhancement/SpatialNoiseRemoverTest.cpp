#include "SpatialNoiseRemover.h"

#include <algorithm>
#include <random>

#include <gtest/gtest.h>

#include "Exception.h"
#include "IntegerModel.h"
#include "TestImages.h"
#include "detail/FilterArithmetic.h"

namespace {

using velmor::kro::SpatialNoiseRemover;
using velmor::kro::detail::div9;
using krotest::floorShift;

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
    for (int r = 0; r < src.rows; ++r)
        for (int c = 0; c < src.cols; ++c) {
            std::int64_t u[9], sum = 0, sad = 0;
            for (int i = 0; i < 9; ++i) {
                const int rr = std::min(std::max(r + i / 3 - 1, 0), src.rows - 1);
                const int cc = std::min(std::max(c + i % 3 - 1, 0), src.cols - 1);
                sum += u[i] = src(rr, cc) + 32768;
            }
            const std::int64_t mean = div9Model(sum);
            for (std::int64_t v : u)
                sad += krotest::absolute(v - mean);
            const std::int64_t k = gain == 0 ? 32 : std::min<std::int64_t>(sad / gain + 13, 32);
            dst(r, c) = static_cast<short>(krotest::wrap16(mean - 32768 + floorShift((u[4] - mean) * k + 16, 5)));
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
    for (int r = 0; r < rows; ++r)
        for (int c = 0; c < cols; ++c)
            image(r, c) = static_cast<short>(
                kind == 0   ? static_cast<int>(rng() % 65536) - 32768
                : kind == 1 ? level + static_cast<int>(rng() % 61) - 30
                : kind == 2 ? (rng() % 2 ? 32767 : -32768)
                            : (c < cols / 2 ? -3000 : 9000) + static_cast<int>(rng() % 201) - 100);
    return image;
}

// Gain 0 (the input unchanged) and 1..31, borders on 1xN, Nx1 and 2x2.
TEST(SpatialNoiseRemover, MatchesScalarModelOverSizesGainsAndImages)
{
    const cv::Size sizes[] = {{1, 1}, {9, 1}, {1, 9}, {2, 2}, {13, 7}, {160, 120}};
    std::uint64_t seed = 11;
    for (int gain : {0, 1, 2, 5, 6, 13, 30, 31}) {
        SpatialNoiseRemover filter(gain);
        for (const cv::Size& size : sizes)
            for (int kind = 0; kind < 4; ++kind) {
                const cv::Mat_<short> src = makeImage(kind, size.height, size.width, seed++);
                cv::Mat_<short> out;
                filter.process(src, out);
                ASSERT_TRUE(krotest::imagesEqual(snrModel(src, gain), out))
                    << "gain " << gain << ", " << size << ", image kind " << kind;
            }
    }
}

TEST(SpatialNoiseRemover, RegionOfInterestMatchesModelAndThreadCountDoesNotMatter)
{
    const cv::Mat_<short> roi = makeImage(1, 40, 50, 77)(cv::Rect(3, 5, 31, 17));
    cv::Mat_<short> out(2, 2, short(0));  // wrong size: reallocated
    SpatialNoiseRemover(6).process(roi, out);
    EXPECT_IMAGES_EQUAL(snrModel(roi.clone(), 6), out);

    const cv::Mat_<short> src = makeImage(3, 131, 157, 21);
    cv::Mat_<short> outs[3];
    const int counts[3] = {1, 2, 7};
    for (int i = 0; i < 3; ++i) {
        SpatialNoiseRemover filter(6);
        ASSERT_TRUE(filter.setThreads(counts[i]));
        filter.process(src, outs[i]);
        EXPECT_EQ(filter.getLastThreadCount(), counts[i]);
    }
    EXPECT_IMAGES_EQUAL(outs[0], outs[1]);
    EXPECT_IMAGES_EQUAL(outs[0], outs[2]);
}

TEST(SpatialNoiseRemover, FlatAreaKeepsThirteenThirtySecondsOfTheDeviation)
{
    // A 3x3 frame, all 100 except a centre of 109: sum of u = 9 * 32868 + 9,
    // mean = div9(295821) = 32869, sad = 8 * 1 + 8 = 16; gain 31 gives
    // k = 16 / 31 + 13 = 13, centre output 32869 - 32768 + ((8 * 13 + 16) >> 5)
    // = 101 + 3 = 104.
    cv::Mat_<short> src(3, 3, short(100)), out;
    src(1, 1) = 109;
    SpatialNoiseRemover(31).process(src, out);
    EXPECT_EQ(out(1, 1), 104);
}

TEST(SpatialNoiseRemover, InvalidGainsAndFramesAreRefused)
{
    const cv::Mat_<short> src = makeImage(1, 9, 11, 9);
    cv::Mat_<short> out;
    for (int bad : {32, -1}) {
        SpatialNoiseRemover(bad).process(src, out);
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

    EXPECT_THROW(filter.process(cv::Mat_<short>(), out), velmor::kro::Exception);
    cv::Mat_<short> frame = makeImage(1, 8, 8, 1);
    EXPECT_THROW(filter.process(frame, frame), velmor::kro::Exception);
}

TEST(FilterArithmetic, Div9IsTheShiftFormFallsAtMostOneShortAndKeepsEqualSamples)
{
    EXPECT_EQ(div9(589820), 65535);
    for (std::int32_t x = 0; x <= 9 * 65535 + 5; ++x) {
        const std::int32_t d = div9(x);
        ASSERT_EQ(d, div9Model(x)) << "x = " << x;
        ASSERT_TRUE(d == (x + 5) / 9 || d == (x + 5) / 9 - 1) << "x = " << x;
        // The mean of nine equal samples is the sample itself.
        ASSERT_TRUE(x % 9 != 0 || d == x / 9) << "x = " << x;
    }
}

TEST(FilterArithmetic, ReciprocalDivisionIsExactWhereTheFilterUsesIt)
{
    for (std::int32_t d = 1; d <= 31; ++d) {
        const std::int32_t reciprocal = velmor::kro::detail::reciprocalOf(d);
        for (std::int32_t n = 0; n <= 19 * d; ++n)
            ASSERT_EQ(velmor::kro::detail::divideByReciprocal(n, reciprocal), n / d) << n << " / " << d;
    }
}

} // namespace
