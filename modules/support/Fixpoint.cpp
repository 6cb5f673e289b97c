#include "Fixpoint.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace velmor {
namespace kro {

namespace {

constexpr std::int64_t kMaxMantissa = 32767;
constexpr std::int64_t kNormalLow = 16384;  // |m| >= this: full precision
// Bits of headroom the operations keep below the 64-bit limit while they
// line up operands: mantissas are placed at bit 46 (15 bits + 31 guard
// bits), so a sum of two still fits with room to spare.
constexpr int kGuardBits = 31;
constexpr int kMaxWidth = 8;

std::uint64_t magnitude(std::int64_t v)
{
    return v < 0 ? std::uint64_t(0) - static_cast<std::uint64_t>(v) : static_cast<std::uint64_t>(v);
}

// |v| / 2^s rounded to nearest, ties away from zero (s >= 1, s < 64).
std::uint64_t roundedShift(std::uint64_t v, int s)
{
    const std::uint64_t half = std::uint64_t(1) << (s - 1);
    return (v >> s) + ((v & ((half << 1) - 1)) >= half ? 1 : 0);
}

// v * 2^(-s) as the 64-bit integer of a sticky right shift: the bits shifted
// out are ORed into bit 0, so that a later rounding of the result still sees
// that the value was not exact (and never rounds a non-tie as a tie).
std::uint64_t stickyShift(std::uint64_t v, int s)
{
    if (s <= 0)
        return v;
    if (s >= 64)
        return v != 0 ? 1 : 0;
    const std::uint64_t lost = v & ((std::uint64_t(1) << s) - 1);
    return (v >> s) | (lost != 0 ? 1 : 0);
}

// Left-normalised operand: m * 2^e with |m| at bit 46 (or 0).
struct Wide {
    std::int64_t m;
    int e;
};

Wide widen(const Fixpoint& f)
{
    const std::int64_t m = f.getMantissa();
    if (m == 0)
        return {0, 0};
    int shift = kGuardBits;
    std::uint64_t mag = magnitude(m) << shift;
    while (mag < (std::uint64_t(1) << 46)) {
        mag <<= 1;
        ++shift;
    }
    const std::int64_t signedMag = static_cast<std::int64_t>(mag);
    return {m < 0 ? -signedMag : signedMag, f.getExponent() - shift};
}

} // namespace

Fixpoint::Fixpoint() = default;

Fixpoint::Fixpoint(int value)
{
    fromInt32(value);
}

Fixpoint::Fixpoint(float value)
{
    setFloat(value);
}

Fixpoint::~Fixpoint() = default;

int Fixpoint::minExponent() const
{
    return -(1 << (exponentWidth - 1));
}

int Fixpoint::maxExponent() const
{
    return (1 << (exponentWidth - 1)) - 1;
}

void Fixpoint::assign(std::int64_t m, int e, bool fullPrecision)
{
    if (m == 0) {
        mantissa = 0;
        exponent = 0;
        return;
    }
    const bool negative = m < 0;
    std::uint64_t mag = magnitude(m);
    // Round once to 15 bits of magnitude. A carry out of the rounding
    // (32767.5 -> 32768) needs one more bit: redo from the exact value with
    // the larger shift rather than rounding twice.
    int s = 0;
    while ((mag >> s) > static_cast<std::uint64_t>(kMaxMantissa))
        ++s;
    std::uint64_t r = s > 0 ? roundedShift(mag, s) : mag;
    if (r > static_cast<std::uint64_t>(kMaxMantissa)) {
        ++s;
        r = roundedShift(mag, s);
    }
    const int exactExponent = e;
    e += s;
    if (fullPrecision)
        while (r < static_cast<std::uint64_t>(kNormalLow)) {
            r <<= 1;
            --e;
        }
    // Below the exponent range: round once, from the exact value, at the
    // smallest exponent (possibly to 0); flagged when bits were lost.
    const int lo = minExponent();
    const int hi = maxExponent();
    if (e < lo) {
        const int t = lo - exactExponent;  // right shift of the exact magnitude
        bool lost = false;
        if (t <= 0) {
            r = mag << -t;  // fits: it is at most the left-normalised r
        } else if (t < 64) {
            r = roundedShift(mag, t);
            lost = (mag & ((std::uint64_t(1) << t) - 1)) != 0;
        } else {
            r = t == 64 && mag >= (std::uint64_t(1) << 63) ? 1 : 0;
            lost = true;
        }
        e = lo;
        if (r > static_cast<std::uint64_t>(kMaxMantissa)) {  // 32768 from rounding: exact halving
            r >>= 1;
            ++e;
        }
        if (lost)
            status |= kSaturated;
        if (r == 0)
            e = 0;
    }
    // Bring a small mantissa up as far as it goes before saturating: the
    // value may still fit with a larger mantissa at a lower exponent.
    while (e > hi && r <= static_cast<std::uint64_t>(kMaxMantissa / 2)) {
        r <<= 1;
        --e;
    }
    if (e > hi) {
        r = kMaxMantissa;
        e = hi;
        status |= kSaturated;
    }
    const short value = static_cast<short>(r);
    mantissa = negative ? static_cast<short>(-value) : value;
    exponent = static_cast<signed char>(e);
}

Fixpoint Fixpoint::add(const Fixpoint& a, const Fixpoint& b)
{
    Fixpoint result;
    result.exponentWidth = std::min(a.exponentWidth, b.exponentWidth);
    result.status = a.status | b.status;
    const Wide x = widen(a);
    const Wide y = widen(b);
    if (x.m == 0 || y.m == 0) {
        const Wide& only = x.m == 0 ? y : x;
        result.assign(only.m, only.e, true);
        return result;
    }
    // Line up on the larger exponent; the smaller operand keeps a sticky bit
    // of what it loses, which makes the final rounding exact.
    const Wide& big = x.e >= y.e ? x : y;
    const Wide& small = x.e >= y.e ? y : x;
    const std::uint64_t smallMag = stickyShift(magnitude(small.m), big.e - small.e);
    const std::int64_t smallAligned =
        small.m < 0 ? -static_cast<std::int64_t>(smallMag) : static_cast<std::int64_t>(smallMag);
    result.assign(big.m + smallAligned, big.e, true);
    return result;
}

Fixpoint Fixpoint::mul(const Fixpoint& a, const Fixpoint& b)
{
    Fixpoint result;
    result.exponentWidth = std::min(a.exponentWidth, b.exponentWidth);
    result.status = a.status | b.status;
    result.assign(static_cast<std::int64_t>(a.mantissa) * b.mantissa, a.exponent + b.exponent, true);
    return result;
}

Fixpoint Fixpoint::div(const Fixpoint& a, const Fixpoint& b)
{
    Fixpoint result;
    result.exponentWidth = std::min(a.exponentWidth, b.exponentWidth);
    result.status = a.status | b.status;
    if (b.mantissa == 0) {
        if (a.mantissa != 0) {
            result.assign(a.mantissa < 0 ? -kMaxMantissa : kMaxMantissa, result.maxExponent(), false);
            result.status |= kSaturated;
        } else {
            result.status |= kSaturated;
        }
        return result;
    }
    // The dividend at bit 46 over a divisor of at most 16 bits leaves a
    // quotient of at least 31 bits; the remainder becomes a sticky bit.
    const Wide x = widen(a);
    const std::uint64_t num = magnitude(x.m);
    const std::uint64_t den = magnitude(b.mantissa);
    const std::uint64_t q = num / den;
    const std::uint64_t sticky = (num % den) != 0 ? 1 : 0;
    const std::uint64_t mag = (q << 1) | sticky;  // one more bit keeps the sticky apart from q
    const bool negative = (x.m < 0) != (b.mantissa < 0);
    const std::int64_t m = static_cast<std::int64_t>(mag);
    result.assign(negative ? -m : m, x.e - b.exponent - 1, true);
    return result;
}

Fixpoint Fixpoint::neg(const Fixpoint& a)
{
    Fixpoint result(a);
    result.assign(-static_cast<std::int64_t>(a.mantissa), a.exponent, false);
    return result;
}

bool Fixpoint::lt(const Fixpoint& a, const Fixpoint& b)
{
    return a.toDouble() < b.toDouble();
}

void Fixpoint::setFloat(float value)
{
    status = 0;
    if (std::isnan(value)) {
        mantissa = 0;
        exponent = 0;
        status |= kSaturated;
        return;
    }
    if (std::isinf(value)) {
        assign(value < 0 ? -kMaxMantissa : kMaxMantissa, maxExponent(), false);
        status |= kSaturated;
        return;
    }
    // A float is m24 * 2^e exactly; its 24-bit mantissa as an integer.
    int e = 0;
    const float fraction = std::frexp(value, &e);  // value = fraction * 2^e, |fraction| in [0.5, 1)
    const std::int64_t m = static_cast<std::int64_t>(std::ldexp(fraction, 24));
    assign(m, e - 24, true);
}

float Fixpoint::toFloat() const
{
    // Beyond float's range the conversion of the double would be undefined.
    const double v = toDouble();
    if (v > std::numeric_limits<float>::max())
        return std::numeric_limits<float>::infinity();
    if (v < -std::numeric_limits<float>::max())
        return -std::numeric_limits<float>::infinity();
    return static_cast<float>(v);
}

double Fixpoint::toDouble() const
{
    return std::ldexp(static_cast<double>(mantissa), exponent);
}

void Fixpoint::fromInt32(int value)
{
    status = 0;
    assign(value, 0, false);
}

signed char Fixpoint::fromInt64(long long value)
{
    status = 0;
    assign(value, 0, false);
    return exponent;
}

void Fixpoint::fromInt64(long long value, signed char scale)
{
    status = 0;
    assign(value, scale, false);
}

signed char Fixpoint::getExponent() const
{
    return exponent;
}

void Fixpoint::setExponent(signed char e)
{
    exponent = e;
}

void Fixpoint::incrExponent(signed char d)
{
    assign(mantissa, exponent + d, false);
}

void Fixpoint::setExponentWidth(signed char width)
{
    exponentWidth = static_cast<signed char>(std::clamp<int>(width, 1, kMaxWidth));
    assign(mantissa, exponent, false);
}

signed char Fixpoint::getExponentWidth() const
{
    return exponentWidth;
}

short Fixpoint::getMantissa() const
{
    return mantissa;
}

void Fixpoint::setMantissa(short m)
{
    mantissa = m;
}

} // namespace kro
} // namespace velmor
