#pragma once

#include <cstdint>

#include "KroLibExport.h"

namespace velmor {
namespace kro {

// A small floating-point number of the fixed-point engine: a signed 16-bit
// mantissa m and a signed exponent e, value m * 2^e. It carries the scalars
// that must span a wide range (residues, step lengths, normalisation
// factors, the total-variation weight) while the images stay 16-bit
// integers and the sums 32- or 64-bit integers.
//
// Representation and rounding (the choices this library makes):
//  - The exponent width w (1 to 8 bits) sets the exponent range
//    [-2^(w-1), 2^(w-1) - 1]. A default-constructed value has width 8
//    (-128 to 127); the engine narrows it to 7 on every value it builds
//    from an integer sum.
//  - Mantissas stay within [-32767, 32767] after every operation of this
//    class, so that neg() is always exact (-32768 can only arrive through
//    setMantissa).
//  - add, mul, div and the float conversions give the value rounded to the
//    nearest representable one, ties away from zero, with the mantissa
//    normalised to full precision (|m| in [16384, 32767] unless the value
//    is 0 or the exponent is at its minimum). Their relative error is at
//    most 2^-15 for results within range.
//  - fromInt32 and fromInt64 only raise the exponent: a value that fits 16
//    bits keeps exponent 0 (or the given scale); otherwise the low bits
//    are rounded away (nearest, ties away from zero). The exponent they
//    return is therefore 0 exactly when the integer fitted.
//  - Out of range: a result too large for the exponent range saturates to
//    mantissa +-32767 at the largest exponent; a result too small for full
//    precision is rounded once, from the exact value, at the smallest
//    exponent (possibly to 0), and flagged when that lost bits. Division by zero
//    saturates with the sign of the dividend (0 / 0 gives 0). Each of
//    these sets the sticky status flag kSaturated, the role of the fourth
//    byte: it travels with the value through copies and arithmetic (a
//    result is flagged when an operand was), so a caller can tell at the
//    end of a computation whether any step left the range.
//  - Zero is mantissa 0 with exponent 0 (from every operation here).
//  - The exponent width of a result is the smaller of its operands'.
class KROLIB_EXPORT Fixpoint {
public:
    // Bits of the status byte.
    static constexpr unsigned char kSaturated = 1;
    static constexpr signed char kDefaultExponentWidth = 8;

    Fixpoint();
    Fixpoint(int value);
    Fixpoint(float value);
    Fixpoint(const Fixpoint& other) = default;
    Fixpoint& operator=(const Fixpoint& other) = default;
    virtual ~Fixpoint();

    static Fixpoint add(const Fixpoint& a, const Fixpoint& b);
    static Fixpoint mul(const Fixpoint& a, const Fixpoint& b);
    static Fixpoint div(const Fixpoint& a, const Fixpoint& b);
    static Fixpoint neg(const Fixpoint& a);
    // a < b, exactly (values compared, not representations).
    static bool lt(const Fixpoint& a, const Fixpoint& b);

    // Becomes the float's value (NaN becomes 0 and infinities saturate,
    // both flagged). The exponent width is kept.
    virtual void setFloat(float value);
    // The value as a float (exact when it lies in float's range, +-infinity
    // beyond it).
    virtual float toFloat() const;

    virtual void fromInt32(int value);
    // Returns the resulting exponent.
    virtual signed char fromInt64(long long value);
    // Becomes value * 2^scale.
    virtual void fromInt64(long long value, signed char scale);

    virtual signed char getExponent() const;
    // Stores the exponent as given (not checked against the width).
    virtual void setExponent(signed char exponent);
    // Multiplies the value by 2^d (saturating or rounding at the ends of the
    // exponent range as above).
    virtual void incrExponent(signed char d);
    // 1 to 8; other values are clamped into that range. The current value is
    // brought into the new range.
    virtual void setExponentWidth(signed char width);
    virtual signed char getExponentWidth() const;
    virtual short getMantissa() const;
    // Stores the mantissa as given (no normalisation).
    virtual void setMantissa(short mantissa);

    unsigned char getStatus() const { return status; }
    void clearStatus() { status = 0; }
    bool saturated() const { return (status & kSaturated) != 0; }

    // The value as a double: exact for every representable value.
    double toDouble() const;
    // Smallest and largest exponent of the current width.
    int minExponent() const;
    int maxExponent() const;

private:
    // Sets the value m * 2^e (any 64-bit m, any int e) within this object's
    // exponent width: rounded to 16 bits, then left-normalised when
    // `fullPrecision`, then brought into the exponent range.
    void assign(std::int64_t m, int e, bool fullPrecision);

    short mantissa = 0;
    signed char exponent = 0;
    signed char exponentWidth = kDefaultExponentWidth;
    unsigned char status = 0;
};

} // namespace kro
} // namespace velmor
