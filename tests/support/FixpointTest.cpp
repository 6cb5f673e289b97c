#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <random>
#include <utility>

#include "Fixpoint.h"

namespace velmor {
namespace kro {
namespace {

using Rep = std::pair<int, int>;  // mantissa, exponent

Rep rep(const Fixpoint& f) { return {f.getMantissa(), f.getExponent()}; }

// m * 2^e as stored, of the given exponent width.
Fixpoint make(int m, int e, int width = Fixpoint::kDefaultExponentWidth)
{
    Fixpoint f;
    f.setExponentWidth(static_cast<signed char>(width));
    f.setMantissa(static_cast<short>(m));
    f.setExponent(static_cast<signed char>(e));
    return f;
}

Rep fromInt32(int v)
{
    Fixpoint f;
    f.fromInt32(v);
    EXPECT_FALSE(f.saturated()) << v;
    return rep(f);
}

TEST(Fixpoint, IntegersKeepExponentZeroUntilTheyNeedMoreThan15BitsThenRoundToNearest)
{
    EXPECT_EQ(Rep(32767, 0), fromInt32(32767));
    EXPECT_EQ(Rep(-32767, 0), fromInt32(-32767));
    EXPECT_EQ(Rep(0, 0), fromInt32(0));
    EXPECT_EQ(Rep(-16384, 1), fromInt32(-32768));      // exact
    EXPECT_EQ(Rep(32766, 1), fromInt32(65532));        // exact
    EXPECT_EQ(Rep(32767, 1), fromInt32(65533));        // 32766.5: tie away from zero
    EXPECT_EQ(Rep(-32767, 1), fromInt32(-65533));
    EXPECT_EQ(Rep(16384, 2), fromInt32(65535));        // 32767.5 carries into one more bit
    EXPECT_EQ(Rep(16384, 17), fromInt32(INT_MAX));     // 2^31
    EXPECT_EQ(Rep(-16384, 17), fromInt32(INT_MIN));
    EXPECT_EQ(Rep(12345, 0), rep(Fixpoint(12345)));

    // fromInt64 returns the exponent: 0 exactly when the integer fitted.
    Fixpoint f;
    f.setExponentWidth(7);
    EXPECT_EQ(0, f.fromInt64(-32767));
    EXPECT_EQ(26, f.fromInt64(1LL << 40));
    EXPECT_EQ(Rep(16384, 26), rep(f));
    const long long base = 3LL << 40;  // 24576 * 2^27
    EXPECT_EQ(27, f.fromInt64(base + (1LL << 26)));  // exactly half an ulp: away from zero
    EXPECT_EQ(Rep(24577, 27), rep(f));
    f.fromInt64(base + (1LL << 26) - 1);
    EXPECT_EQ(Rep(24576, 27), rep(f));
    f.fromInt64(-base - (1LL << 26));
    EXPECT_EQ(Rep(-24577, 27), rep(f));
    EXPECT_EQ(49, f.fromInt64(LLONG_MIN));
    EXPECT_EQ(Rep(-16384, 49), rep(f));
    f.fromInt64(LLONG_MAX);  // rounds up to 2^63
    EXPECT_EQ(Rep(16384, 49), rep(f));
    EXPECT_EQ(7, f.getExponentWidth());
    EXPECT_FALSE(f.saturated());
}

TEST(Fixpoint, ScaledInt64IsTheIntegerTimesTwoToTheScale)
{
    Fixpoint f;
    f.setExponentWidth(7);
    f.fromInt64(3, -2);
    EXPECT_EQ(Rep(3, -2), rep(f));
    EXPECT_EQ(0.75f, f.toFloat());
    f.fromInt64(-(5LL << 20), -30);  // -5 * 2^-10 in a 23-bit integer
    EXPECT_EQ(Rep(-20480, -22), rep(f));
    f.fromInt64(1LL << 40, 40);  // 2^80 is beyond 2^63 * 32767: saturates
    EXPECT_EQ(Rep(32767, 63), rep(f));
    EXPECT_TRUE(f.saturated());
    f.fromInt64(5, -70);  // 5 * 2^-70 rounds to 0 at exponent -64
    EXPECT_EQ(Rep(0, 0), rep(f));
    EXPECT_TRUE(f.saturated());
    f.fromInt64(48, -69);  // 1.5 * 2^-64 rounds away to 2 * 2^-64
    EXPECT_EQ(Rep(2, -64), rep(f));
    EXPECT_TRUE(f.saturated());
}

TEST(Fixpoint, ExponentWidthSetsTheRangeAndBringsTheValueIntoIt)
{
    Fixpoint f;
    EXPECT_EQ(8, f.getExponentWidth());
    EXPECT_EQ(-128, f.minExponent());
    EXPECT_EQ(127, f.maxExponent());
    f.setExponentWidth(7);
    EXPECT_EQ(-64, f.minExponent());
    EXPECT_EQ(63, f.maxExponent());

    Fixpoint small = make(1, 70);  // fits width 7 as 128 * 2^63
    small.setExponentWidth(7);
    EXPECT_EQ(Rep(128, 63), rep(small));
    EXPECT_FALSE(small.saturated());
    Fixpoint large = make(-300, 100);
    large.setExponentWidth(7);
    EXPECT_EQ(Rep(-32767, 63), rep(large));
    EXPECT_TRUE(large.saturated());
    Fixpoint tiny = make(96, -70);  // 1.5 * 2^-64
    tiny.setExponentWidth(7);
    EXPECT_EQ(Rep(2, -64), rep(tiny));

    // The result of an operation takes the narrower width of its operands.
    const Fixpoint big = make(16384, 100);
    const Fixpoint sum = Fixpoint::add(big, make(1, 0, 7));
    EXPECT_EQ(7, sum.getExponentWidth());
    EXPECT_EQ(Rep(32767, 63), rep(sum));
    EXPECT_TRUE(sum.saturated());
}

TEST(Fixpoint, NegationIsExactAndComparisonUsesValues)
{
    EXPECT_EQ(Rep(-32767, 127), rep(Fixpoint::neg(make(32767, 127))));
    EXPECT_EQ(Rep(32767, -128), rep(Fixpoint::neg(make(-32767, -128))));
    // -32768 only arrives through setMantissa; its negation moves the exponent.
    const Fixpoint minMantissa = Fixpoint::neg(make(-32768, 5));
    EXPECT_EQ(Rep(16384, 6), rep(minMantissa));
    EXPECT_FALSE(minMantissa.saturated());
    const Fixpoint atTop = Fixpoint::neg(make(-32768, 63, 7));
    EXPECT_EQ(Rep(32767, 63), rep(atTop));
    EXPECT_TRUE(atTop.saturated());
    EXPECT_EQ(Rep(0, 0), rep(Fixpoint::neg(Fixpoint())));

    // Different representations of one value are neither smaller.
    EXPECT_FALSE(Fixpoint::lt(make(16384, -1), make(8192, 0)));
    EXPECT_FALSE(Fixpoint::lt(make(8192, 0), make(16384, -1)));
    EXPECT_TRUE(Fixpoint::lt(make(32767, -6), make(1, 9)));     // 511.98 < 512
    EXPECT_TRUE(Fixpoint::lt(make(-1, 5), make(-32767, -10)));  // -32 < -31.999
    EXPECT_TRUE(Fixpoint::lt(make(-1, -128), Fixpoint()));
    EXPECT_FALSE(Fixpoint::lt(Fixpoint(), make(0, 100)));
}

TEST(Fixpoint, OutOfRangeResultsSaturateOrRoundAndRaiseTheStickyFlag)
{
    const Fixpoint top = make(32767, 63, 7);
    const Fixpoint over = Fixpoint::mul(top, Fixpoint(2));
    EXPECT_EQ(Rep(32767, 63), rep(over));
    EXPECT_TRUE(over.saturated());
    EXPECT_EQ(Rep(-32767, 63), rep(Fixpoint::mul(top, Fixpoint(-2))));

    // The flag travels through later, in-range steps and copies.
    Fixpoint later = Fixpoint::add(Fixpoint::div(over, Fixpoint(1 << 20)), Fixpoint(1));
    EXPECT_TRUE(later.saturated());
    Fixpoint copy;
    copy = later;
    EXPECT_EQ(later.getStatus(), copy.getStatus());
    copy.clearStatus();
    EXPECT_FALSE(Fixpoint::add(copy, Fixpoint(1)).saturated());

    const Fixpoint under = Fixpoint::mul(make(16384, -60, 7), make(16384, -60, 7));
    EXPECT_EQ(Rep(0, 0), rep(under));
    EXPECT_TRUE(under.saturated());
    // 2^-66 * 3 = 0.75 * 2^-64 rounds to 1 * 2^-64 at the bottom exponent.
    const Fixpoint gradual = Fixpoint::mul(make(3, -33, 7), make(1, -33, 7));
    EXPECT_EQ(Rep(1, -64), rep(gradual));
    EXPECT_TRUE(gradual.saturated());

    // incrExponent keeps the mantissa while it can, then trades exponent
    // for mantissa bits before it saturates.
    Fixpoint step = Fixpoint(1);
    step.incrExponent(100);
    EXPECT_EQ(Rep(1, 100), rep(step));
    step.incrExponent(40);  // 2^140
    EXPECT_EQ(Rep(8192, 127), rep(step));
    EXPECT_FALSE(step.saturated());
    step.incrExponent(2);  // 2^142 > 32767 * 2^127
    EXPECT_EQ(Rep(32767, 127), rep(step));
    EXPECT_TRUE(step.saturated());
    Fixpoint low = make(3, -120);
    low.incrExponent(-10);  // 0.75 * 2^-128
    EXPECT_EQ(Rep(1, -128), rep(low));
    EXPECT_TRUE(low.saturated());
}

TEST(Fixpoint, DivisionByZeroSaturatesWithTheSignOfTheDividend)
{
    const Fixpoint zero;
    const Fixpoint pos = Fixpoint::div(Fixpoint(3), zero);
    EXPECT_EQ(Rep(32767, 127), rep(pos));
    EXPECT_TRUE(pos.saturated());
    const Fixpoint neg = Fixpoint::div(make(-3, 0, 7), zero);
    EXPECT_EQ(Rep(-32767, 63), rep(neg));
    EXPECT_TRUE(neg.saturated());
    const Fixpoint none = Fixpoint::div(zero, make(0, 12));
    EXPECT_EQ(Rep(0, 0), rep(none));
    EXPECT_TRUE(none.saturated());
    EXPECT_FALSE(Fixpoint::div(zero, Fixpoint(7)).saturated());
}

TEST(Fixpoint, FloatsConvertToTheNearest15BitMantissa)
{
    EXPECT_EQ(Rep(24576, -14), rep(Fixpoint(1.5f)));
    EXPECT_EQ(1.5f, Fixpoint(1.5f).toFloat());
    EXPECT_EQ(Rep(-26214, -18), rep(Fixpoint(-0.1f)));  // 0.1 * 2^18 = 26214.4
    EXPECT_EQ(Rep(0, 0), rep(Fixpoint(0.0f)));
    Fixpoint f(2.0f);
    f.setFloat(std::nanf(""));
    EXPECT_EQ(Rep(0, 0), rep(f));
    EXPECT_TRUE(f.saturated());
    f.setFloat(-INFINITY);
    EXPECT_EQ(Rep(-32767, 127), rep(f));
    EXPECT_TRUE(f.saturated());
}

// A product below the exponent range must be rounded once, from the exact
// value: 16391 * 22475 * 2^-79 = 11242.30 * 2^-64 gives 11242. Rounding first
// to 15 bits (22485 * 2^-65) and then again at 2^-64 gives 11243 instead.
TEST(Fixpoint, UnderflowingProductIsRoundedOnceToTheNearest)
{
    const Fixpoint r = Fixpoint::mul(make(16391, -40, 7), make(22475, -39, 7));
    EXPECT_EQ(Rep(11242, -64), rep(r));
}

// add, mul and div of random representable operands against double: the
// result is within half a unit of its last mantissa bit, so within the
// relative bound 2^-15, and its mantissa is normalised.
TEST(Fixpoint, ArithmeticIsWithinHalfAnUlpOfTheExactResult)
{
    std::mt19937 rng(2024);
    std::uniform_int_distribution<int> mantissa(-32767, 32767);
    std::uniform_int_distribution<int> exponent(-45, 45);
    std::uniform_int_distribution<int> bits(0, 15);
    const double bound = std::ldexp(1.0, -15);
    for (int i = 0; i < 200000; ++i) {
        // Small mantissas too: operands are not always normalised.
        const Fixpoint a = make(mantissa(rng) >> bits(rng), exponent(rng));
        const Fixpoint b = make(mantissa(rng) >> bits(rng), exponent(rng));
        const double x = a.toDouble(), y = b.toDouble();
        const int op = i % 3;
        if (op == 2 && y == 0.0)
            continue;
        const Fixpoint r = op == 0   ? Fixpoint::add(a, b)
                           : op == 1 ? Fixpoint::mul(a, b)
                                     : Fixpoint::div(a, b);
        const double exact = op == 0 ? x + y : op == 1 ? x * y : x / y;
        ASSERT_FALSE(r.saturated());
        const double error = std::fabs(r.toDouble() - exact);
        ASSERT_LE(error, bound * std::fabs(exact)) << "op " << op << ": " << x << ", " << y;
        ASSERT_LE(error, std::ldexp(0.5, r.getExponent())) << "op " << op << ": " << x << ", " << y;
        const int m = std::abs(r.getMantissa());
        ASSERT_TRUE(exact == 0.0 ? rep(r) == Rep(0, 0) : m >= 16384 && m <= 32767)
            << "op " << op << ": mantissa " << r.getMantissa();
    }
}

} // namespace
} // namespace kro
} // namespace velmor
