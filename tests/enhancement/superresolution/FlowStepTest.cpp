#include <gtest/gtest.h>

#include <limits>

#include "detail/FlowStep.h"

namespace velmor {
namespace kro {
namespace {

// Worked by hand: [4 0; 0 1] r = -(-8, 2) gives r = (2, -2); a coupled
// tensor [2 1; 1 2] with (gxIt, gyIt) = (-3, 0) gives det 3 and
// r = ((1*0 - 2*-3)/3, (1*-3 - 2*0)/3) = (2, -1).
TEST(FlowStep, SolvesTheNormalEquationsAndRefusesWhatTheThresholdRefuses)
{
    detail::FlowSums s;
    s.xx = 4.0;
    s.yy = 1.0;
    s.gxIt = -8.0;
    s.gyIt = 2.0;
    detail::FlowStep step = detail::solveFlowStep(s, 1e-6);
    EXPECT_TRUE(step.solved);
    EXPECT_EQ(2.0, step.dx);
    EXPECT_EQ(-2.0, step.dy);
    EXPECT_EQ(5.0, step.energy);

    s = detail::FlowSums{2.0, 1.0, 2.0, -3.0, 0.0};
    step = detail::solveFlowStep(s, 0.0);
    EXPECT_TRUE(step.solved);
    EXPECT_DOUBLE_EQ(2.0, step.dx);
    EXPECT_DOUBLE_EQ(-1.0, step.dy);

    // Nearly parallel gradients: det = 1e-7 (xx + yy)^2 passes a zero
    // threshold and fails the phase registration's 1e-6.
    const double e = 1e-7 * 4.0;
    s = detail::FlowSums{1.0, std::sqrt(1.0 - e), 1.0, 1.0, 0.0};
    EXPECT_TRUE(detail::solveFlowStep(s, 0.0).solved);
    EXPECT_FALSE(detail::solveFlowStep(s, 1e-6).solved);

    // No gradient at all, and parallel gradients: never solved.
    EXPECT_FALSE(detail::solveFlowStep(detail::FlowSums{}, 0.0).solved);
    EXPECT_FALSE(detail::solveFlowStep(detail::FlowSums{1.0, 1.0, 1.0, 1.0, 1.0}, 0.0).solved);
    // Non-finite sums are refused rather than turned into a shift.
    s = detail::FlowSums{4.0, 0.0, 1.0, std::numeric_limits<double>::infinity(), 0.0};
    EXPECT_FALSE(detail::solveFlowStep(s, 0.0).solved);
}

} // namespace
} // namespace kro
} // namespace velmor
