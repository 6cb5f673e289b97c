#include "IntCombination.h"

#include <algorithm>
#include <climits>

namespace velmor {
namespace kro {
namespace detail {
namespace intsolve {

namespace {

constexpr int kCoefficientBits = 15;
constexpr int kMaxCoefficient = 32767;
constexpr int kMaxMantissa = 16383;

int bitLength(int v)
{
    unsigned magnitude = v < 0 ? 0u - static_cast<unsigned>(v) : static_cast<unsigned>(v);
    int n = 0;
    while (magnitude) {
        ++n;
        magnitude >>= 1;
    }
    return n;
}

// m * 2^k, rounded half up when k < 0. For k >= 0 the caller guarantees
// that the result has at most 15 bits.
int scaleMantissa(int m, int k)
{
    if (k >= 0)
        return m * (1 << k);
    if (k < -31)
        return 0;
    const std::int64_t half = std::int64_t(1) << (-k - 1);
    return static_cast<int>((m + half) >> -k);
}

int clampCoefficient(int c)
{
    return std::min(std::max(c, -kMaxCoefficient), kMaxCoefficient);
}

} // namespace

Combination planCombination(const Fixpoint& a0, int e0, int max0, const Fixpoint& a1, int e1, int max1)
{
    const int m[2] = {a0.getMantissa(), a1.getMantissa()};
    const int f[2] = {a0.getExponent() + e0, a1.getExponent() + e1};
    int top = INT_MIN;
    for (int k = 0; k < 2; ++k)
        if (m[k] != 0)
            top = std::max(top, f[k] + bitLength(m[k]));
    Combination plan;
    if (top == INT_MIN)
        return plan;
    const int common = top - kCoefficientBits;
    plan.c0 = clampCoefficient(scaleMantissa(m[0], f[0] - common));
    plan.c1 = clampCoefficient(scaleMantissa(m[1], f[1] - common));
    const std::int64_t bound = static_cast<std::int64_t>(std::abs(plan.c0)) * max0 +
                               static_cast<std::int64_t>(std::abs(plan.c1)) * max1;
    auto rounded = [bound](int shift) {
        return shift == 0 ? bound : (bound + (std::int64_t(1) << (shift - 1))) >> shift;
    };
    while (rounded(plan.shift) > kMaxMantissa)
        ++plan.shift;
    plan.maxAbs = static_cast<int>(rounded(plan.shift));
    plan.exponent = plan.maxAbs == 0 ? 0 : common + plan.shift;
    return plan;
}

Increment planIncrement(const Fixpoint& a, int e, int target)
{
    Increment inc;
    const int m = a.getMantissa();
    const int k = a.getExponent() + e - target;
    if (k >= 0) {
        const std::int64_t c = static_cast<std::int64_t>(m) << std::min(k, 16);
        inc.c = static_cast<int>(std::min<std::int64_t>(std::max<std::int64_t>(c, -kMaxCoefficient), kMaxCoefficient));
    } else if (k >= -30) {
        inc.c = clampCoefficient(m);
        inc.shift = -k;
    }
    return inc;
}

Fixpoint fromSum(std::int64_t sum, int exponent)
{
    Fixpoint value;
    value.setExponentWidth(7);
    value.fromInt64(sum, static_cast<signed char>(std::min(std::max(exponent, -128), 127)));
    return value;
}

} // namespace intsolve
} // namespace detail
} // namespace kro
} // namespace velmor
