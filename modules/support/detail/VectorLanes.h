#pragma once

// Lane-wise vector operations of the fixed-point engine, named after the ARM
// NEON intrinsics whose published results they reproduce bit for bit. They
// are plain scalar loops over the lanes: they need no vector hardware, and
// the compiler is free to vectorise them on any target.
//
// Types: every vector is a plain struct with one std::array `lanes` (lane 0
// first, as in memory); the pair type int16x8x2_t holds two vectors in
// `val[0]` and `val[1]` as the NEON pair types do. All lanes are two's
// complement. Wrapping operations are computed in unsigned or wider types,
// so no operation here has signed-overflow undefined behaviour.
//
// Immediates (the `_n` shifts and the lane of vdup_lane_s32) are template
// parameters, checked at compile time against the instruction's range:
//     int32x4_t r = vrshrq_n_s32<8>(x);
//
// All functions are pure and reentrant.

#include <array>
#include <cstddef>
#include <cstdint>

namespace velmor {
namespace kro {
namespace lanes {

struct int8x8_t {
    std::array<std::int8_t, 8> lanes;
};
struct int16x4_t {
    std::array<std::int16_t, 4> lanes;
};
struct int16x8_t {
    std::array<std::int16_t, 8> lanes;
};
struct int32x2_t {
    std::array<std::int32_t, 2> lanes;
};
struct int32x4_t {
    std::array<std::int32_t, 4> lanes;
};
struct int64x2_t {
    std::array<std::int64_t, 2> lanes;
};
struct int16x8x2_t {
    int16x8_t val[2];
};

namespace detail {

// Two's-complement wrap of the low bits (well defined: conversion of an
// unsigned value to a signed type is modular with GCC and Clang, and
// required to be so from C++20 on).
inline std::int16_t wrap16(std::uint32_t bits) { return static_cast<std::int16_t>(bits & 0xFFFFu); }
inline std::int32_t wrap32(std::uint32_t bits) { return static_cast<std::int32_t>(bits); }
inline std::int32_t wrap32(std::uint64_t bits) { return wrap32(std::uint32_t(bits)); }
inline std::int64_t wrap64(std::uint64_t bits) { return static_cast<std::int64_t>(bits); }

template <typename Vector, typename T>
Vector load(const T* p)
{
    Vector v;
    for (std::size_t i = 0; i < v.lanes.size(); ++i)
        v.lanes[i] = p[i];
    return v;
}

template <typename Vector, typename T>
void store(T* p, const Vector& v)
{
    for (std::size_t i = 0; i < v.lanes.size(); ++i)
        p[i] = v.lanes[i];
}

template <typename Vector, typename T>
Vector broadcast(T value)
{
    Vector v;
    v.lanes.fill(value);
    return v;
}

// x >> n rounded to nearest, ties up, for 1 <= n <= 63, in exact arithmetic:
// floor((x + 2^(n-1)) / 2^n) = floor(x / 2^n) + bit (n-1) of x.
inline std::int64_t roundingShiftRight64(std::int64_t x, int n)
{
    return (x >> n) + ((x >> (n - 1)) & 1);
}

} // namespace detail

// --- loads and stores --------------------------------------------------------

inline int8x8_t vld1_s8(const std::int8_t* p) { return detail::load<int8x8_t>(p); }
inline int16x4_t vld1_s16(const std::int16_t* p) { return detail::load<int16x4_t>(p); }
inline int32x2_t vld1_s32(const std::int32_t* p) { return detail::load<int32x2_t>(p); }
inline int16x8_t vld1q_s16(const std::int16_t* p) { return detail::load<int16x8_t>(p); }
inline int32x4_t vld1q_s32(const std::int32_t* p) { return detail::load<int32x4_t>(p); }

// Sixteen elements: even-indexed ones into val[0], odd-indexed into val[1].
inline int16x8x2_t vld2q_s16(const std::int16_t* p)
{
    int16x8x2_t r;
    for (std::size_t i = 0; i < 8; ++i) {
        r.val[0].lanes[i] = p[2 * i];
        r.val[1].lanes[i] = p[2 * i + 1];
    }
    return r;
}

inline void vst1_s16(std::int16_t* p, int16x4_t v) { detail::store(p, v); }
inline void vst1q_s16(std::int16_t* p, int16x8_t v) { detail::store(p, v); }
inline void vst1q_s32(std::int32_t* p, int32x4_t v) { detail::store(p, v); }

// Inverse of vld2q_s16: val[0] to the even, val[1] to the odd positions.
inline void vst2q_s16(std::int16_t* p, int16x8x2_t v)
{
    for (std::size_t i = 0; i < 8; ++i) {
        p[2 * i] = v.val[0].lanes[i];
        p[2 * i + 1] = v.val[1].lanes[i];
    }
}

// --- widening, narrowing, halves ---------------------------------------------

inline int16x8_t vmovl_s8(int8x8_t a)
{
    int16x8_t r;
    for (std::size_t i = 0; i < 8; ++i)
        r.lanes[i] = a.lanes[i];
    return r;
}

inline int32x4_t vmovl_s16(int16x4_t a)
{
    int32x4_t r;
    for (std::size_t i = 0; i < 4; ++i)
        r.lanes[i] = a.lanes[i];
    return r;
}

// Keeps the low half of each lane (no saturation).
inline int16x4_t vmovn_s32(int32x4_t a)
{
    int16x4_t r;
    for (std::size_t i = 0; i < 4; ++i)
        r.lanes[i] = detail::wrap16(static_cast<std::uint32_t>(a.lanes[i]));
    return r;
}

inline int32x2_t vmovn_s64(int64x2_t a)
{
    int32x2_t r;
    for (std::size_t i = 0; i < 2; ++i)
        r.lanes[i] = detail::wrap32(static_cast<std::uint64_t>(a.lanes[i]));
    return r;
}

inline int16x4_t vget_low_s16(int16x8_t a)
{
    return {{a.lanes[0], a.lanes[1], a.lanes[2], a.lanes[3]}};
}
inline int16x4_t vget_high_s16(int16x8_t a)
{
    return {{a.lanes[4], a.lanes[5], a.lanes[6], a.lanes[7]}};
}
inline int32x2_t vget_low_s32(int32x4_t a) { return {{a.lanes[0], a.lanes[1]}}; }
inline int32x2_t vget_high_s32(int32x4_t a) { return {{a.lanes[2], a.lanes[3]}}; }

// `low` becomes lanes 0.., `high` the upper lanes.
inline int16x8_t vcombine_s16(int16x4_t low, int16x4_t high)
{
    return {{low.lanes[0], low.lanes[1], low.lanes[2], low.lanes[3], high.lanes[0], high.lanes[1],
             high.lanes[2], high.lanes[3]}};
}

inline int32x4_t vcombine_s32(int32x2_t low, int32x2_t high)
{
    return {{low.lanes[0], low.lanes[1], high.lanes[0], high.lanes[1]}};
}

// --- broadcasts ----------------------------------------------------------------

inline int32x2_t vdup_n_s32(std::int32_t value) { return detail::broadcast<int32x2_t>(value); }
inline int16x8_t vdupq_n_s16(std::int16_t value) { return detail::broadcast<int16x8_t>(value); }
inline int32x4_t vdupq_n_s32(std::int32_t value) { return detail::broadcast<int32x4_t>(value); }
inline int64x2_t vdupq_n_s64(std::int64_t value) { return detail::broadcast<int64x2_t>(value); }

template <int lane>
int32x2_t vdup_lane_s32(int32x2_t a)
{
    static_assert(lane >= 0 && lane <= 1, "vdup_lane_s32: lane must be 0 or 1");
    return vdup_n_s32(a.lanes[lane]);
}

// --- arithmetic ------------------------------------------------------------------

// Lane-wise sums, wrapping.
inline int16x4_t vadd_s16(int16x4_t a, int16x4_t b)
{
    int16x4_t r;
    for (std::size_t i = 0; i < 4; ++i)
        r.lanes[i] = detail::wrap16(static_cast<std::uint32_t>(a.lanes[i] + b.lanes[i]));
    return r;
}

inline int16x8_t vaddq_s16(int16x8_t a, int16x8_t b)
{
    int16x8_t r;
    for (std::size_t i = 0; i < 8; ++i)
        r.lanes[i] = detail::wrap16(static_cast<std::uint32_t>(a.lanes[i] + b.lanes[i]));
    return r;
}

inline int32x4_t vaddq_s32(int32x4_t a, int32x4_t b)
{
    int32x4_t r;
    for (std::size_t i = 0; i < 4; ++i)
        r.lanes[i] = detail::wrap32(static_cast<std::uint32_t>(a.lanes[i]) +
                                    static_cast<std::uint32_t>(b.lanes[i]));
    return r;
}

// Lane-wise products, low half kept (wrapping). The 16-bit product is exact
// in int (|a*b| <= 2^30).
inline int16x8_t vmulq_s16(int16x8_t a, int16x8_t b)
{
    int16x8_t r;
    for (std::size_t i = 0; i < 8; ++i) {
        const std::int32_t product = std::int32_t(a.lanes[i]) * b.lanes[i];
        r.lanes[i] = detail::wrap16(static_cast<std::uint32_t>(product));
    }
    return r;
}

inline int32x4_t vmulq_s32(int32x4_t a, int32x4_t b)
{
    int32x4_t r;
    for (std::size_t i = 0; i < 4; ++i)
        r.lanes[i] = detail::wrap32(static_cast<std::uint32_t>(a.lanes[i]) *
                                    static_cast<std::uint32_t>(b.lanes[i]));
    return r;
}

// Saturating rounding doubling multiply, high half: (2ab + 2^31) >> 32,
// computed as (ab + 2^30) >> 31 so that it fits 64 bits. Only
// (-2^31) * (-2^31) leaves the range; it saturates to 2^31 - 1.
inline int32x2_t vqrdmulh_s32(int32x2_t a, int32x2_t b)
{
    int32x2_t r;
    for (std::size_t i = 0; i < 2; ++i) {
        const std::int64_t product = std::int64_t(a.lanes[i]) * b.lanes[i];
        const std::int64_t high = (product + (std::int64_t(1) << 30)) >> 31;
        r.lanes[i] = high > INT32_MAX ? INT32_MAX : static_cast<std::int32_t>(high);
    }
    return r;
}

// Widening product (exact).
inline int64x2_t vmull_s32(int32x2_t a, int32x2_t b)
{
    int64x2_t r;
    for (std::size_t i = 0; i < 2; ++i)
        r.lanes[i] = std::int64_t(a.lanes[i]) * b.lanes[i];
    return r;
}

// acc + a * b per lane; the product is exact, the accumulation wraps.
inline int32x4_t vmlal_s16(int32x4_t acc, int16x4_t a, int16x4_t b)
{
    int32x4_t r;
    for (std::size_t i = 0; i < 4; ++i) {
        const std::int32_t product = std::int32_t(a.lanes[i]) * b.lanes[i];
        r.lanes[i] = detail::wrap32(static_cast<std::uint32_t>(acc.lanes[i]) +
                                    static_cast<std::uint32_t>(product));
    }
    return r;
}

// --- shifts ------------------------------------------------------------------------

// Shift by a signed per-lane count: the count is the signed low byte of the
// lane of `shift` (-128..127), as the instruction reads it. A positive count
// shifts left, wrapping (64 or more gives 0); a negative count -n is a
// rounding right shift, (x + 2^(n-1)) >> n in exact arithmetic (n >= 64
// gives 0).
inline int64x2_t vrshlq_s64(int64x2_t a, int64x2_t shift)
{
    int64x2_t r;
    for (std::size_t i = 0; i < 2; ++i) {
        const std::uint64_t countBits = static_cast<std::uint64_t>(shift.lanes[i]) & 0xFFu;
        const int count = static_cast<std::int8_t>(countBits);
        const std::int64_t x = a.lanes[i];
        if (count >= 64 || count <= -64)
            r.lanes[i] = 0;
        else if (count >= 0)
            r.lanes[i] = detail::wrap64(static_cast<std::uint64_t>(x) << count);
        else
            r.lanes[i] = detail::roundingShiftRight64(x, -count);
    }
    return r;
}

// Rounding right shift by an immediate 1..32: (x + 2^(n-1)) >> n, in 64
// bits so that 2^31 - 1 does not overflow on the way.
template <int n>
int32x4_t vrshrq_n_s32(int32x4_t a)
{
    static_assert(n >= 1 && n <= 32, "vrshrq_n_s32: shift must be 1..32");
    int32x4_t r;
    for (std::size_t i = 0; i < 4; ++i)
        r.lanes[i] = static_cast<std::int32_t>(
            (std::int64_t(a.lanes[i]) + (std::int64_t(1) << (n - 1))) >> n);
    return r;
}

// Left shift by an immediate 0..31, wrapping.
template <int n>
int32x4_t vshlq_n_s32(int32x4_t a)
{
    static_assert(n >= 0 && n <= 31, "vshlq_n_s32: shift must be 0..31");
    int32x4_t r;
    for (std::size_t i = 0; i < 4; ++i)
        r.lanes[i] = detail::wrap32(static_cast<std::uint32_t>(a.lanes[i]) << n);
    return r;
}

} // namespace lanes
} // namespace kro
} // namespace velmor
