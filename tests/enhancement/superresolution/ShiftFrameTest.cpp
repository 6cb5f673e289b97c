#include <gtest/gtest.h>

#include <numeric>
#include <vector>

#include "detail/ShiftFrame.h"

namespace velmor {
namespace kro {
namespace {

std::vector<float> ramp(int n)
{
    std::vector<float> v(n);
    std::iota(v.begin(), v.end(), 1.0f);
    return v;
}

TEST(ShiftFrame, PositiveShiftMovesContentUpAndLeftAndZeroesTheTail)
{
    // 4x3 frame holding 1..12; shift (1, 1) -> k = 4 + 1 = 5.
    const std::vector<float> frame = ramp(12);
    std::vector<float> out(12, -1.0f);
    PointF shift(1.2f, 0.6f);
    detail::shiftFrame(frame.data(), 4, 3, shift, out.data());
    const std::vector<float> expected = {6, 7, 8, 9, 10, 11, 12, 0, 0, 0, 0, 0};
    EXPECT_EQ(expected, out);
    EXPECT_FLOAT_EQ(0.2f, shift.x);
    EXPECT_FLOAT_EQ(-0.4f, shift.y);
}

TEST(ShiftFrame, NegativeShiftZeroesTheHeadAndRunsOnIntoTheNextRow)
{
    // shift (-1, 0) -> k = -1: the last value of a row moves to the start of the next.
    const std::vector<float> frame = ramp(6);
    std::vector<float> out(6, -1.0f);
    PointF shift(-0.7f, 0.2f);
    detail::shiftFrame(frame.data(), 3, 2, shift, out.data());
    const std::vector<float> expected = {0, 1, 2, 3, 4, 5};
    EXPECT_EQ(expected, out);
    EXPECT_NEAR(0.3f, shift.x, 1e-6f);
    EXPECT_FLOAT_EQ(0.2f, shift.y);
}

TEST(ShiftFrame, HalfRoundsUpAndRemainderStaysInHalfOpenRange)
{
    const std::vector<float> frame = ramp(9);
    std::vector<float> out(9);
    for (float s : {-2.5f, -0.5f, -0.49f, 0.0f, 0.5f, 1.49f, 2.5f}) {
        PointF shift(s, s);
        detail::shiftFrame(frame.data(), 3, 3, shift, out.data());
        EXPECT_GE(shift.x, -0.5f) << s;
        EXPECT_LT(shift.x, 0.5f) << s;
    }
    PointF half(0.5f, -0.5f);
    detail::shiftFrame(frame.data(), 3, 3, half, out.data());
    EXPECT_FLOAT_EQ(-0.5f, half.x);  // 0.5 rounds to 1
    EXPECT_FLOAT_EQ(-0.5f, half.y);  // -0.5 rounds to 0
}

TEST(ShiftFrame, ShiftBeyondTheFrameGivesZeros)
{
    const std::vector<float> frame = ramp(6);
    std::vector<float> out(6, -1.0f);
    for (float s : {5.0f, -5.0f}) {
        PointF shift(0.0f, s);
        detail::shiftFrame(frame.data(), 3, 2, shift, out.data());
        EXPECT_EQ(std::vector<float>(6, 0.0f), out);
    }
}

TEST(ShiftFrame, ZeroShiftCopies)
{
    const std::vector<float> frame = ramp(5);
    std::vector<float> out(5);
    PointF shift(0.1f, -0.3f);
    detail::shiftFrame(frame.data(), 5, 1, shift, out.data());
    EXPECT_EQ(frame, out);
}

} // namespace
} // namespace kro
} // namespace velmor
