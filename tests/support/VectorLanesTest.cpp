#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <random>

#include "detail/VectorLanes.h"

namespace velmor {
namespace kro {
namespace lanes {
namespace {

using i128 = __int128;
using Lanes16x8 = std::array<std::int16_t, 8>;
using Lanes16x4 = std::array<std::int16_t, 4>;
using Lanes32x4 = std::array<std::int32_t, 4>;
using Lanes32x2 = std::array<std::int32_t, 2>;
using Lanes64x2 = std::array<std::int64_t, 2>;
constexpr std::int32_t kMin32 = INT32_MIN;
constexpr std::int32_t kMax32 = INT32_MAX;
constexpr std::int64_t kMin64 = INT64_MIN;
constexpr std::int64_t kMax64 = INT64_MAX;

// Plain models in 128-bit arithmetic of the instructions' definitions.
std::int64_t lowBits(i128 x, int bits)
{
    const i128 modulus = i128(1) << bits;
    i128 r = x % modulus;
    if (r < 0)
        r += modulus;
    if (r >= modulus / 2)
        r -= modulus;
    return static_cast<std::int64_t>(r);
}

// Floor division by 2^n of a 128-bit value, written without shifts.
i128 floorDivPow2(i128 x, int n)
{
    const i128 d = i128(1) << n;
    i128 q = x / d;
    if (x % d != 0 && x < 0)
        --q;
    return q;
}

std::int32_t modelQrdmulh(std::int32_t a, std::int32_t b)
{
    const i128 r = floorDivPow2(2 * i128(a) * b + (i128(1) << 31), 32);
    return r > kMax32 ? kMax32 : r < kMin32 ? kMin32 : static_cast<std::int32_t>(r);
}

std::int64_t modelRshl(std::int64_t x, std::int8_t count)
{
    if (count >= 0)
        return count >= 64 ? 0 : lowBits(i128(x) * (i128(1) << count), 64);
    const int n = -count;
    if (n > 100)
        return 0;  // x + 2^(n-1) lies in (0, 2^n) for every 64-bit x
    return static_cast<std::int64_t>(floorDivPow2(i128(x) + (i128(1) << (n - 1)), n));
}

TEST(VectorLanes, WrappingArithmeticMatchesTheModuloModelAtTheEdges)
{
    const int16x8_t a = {{32767, -32768, -1, 1, 200, -200, 181, 0}};
    const int16x8_t b = {{1, -1, -32768, 32767, 200, 200, 182, 5}};
    EXPECT_EQ((Lanes16x8{-32768, 32767, 32767, -32768, 400, 0, 363, 5}), vaddq_s16(a, b).lanes);
    // 200*200 = 40000 -> -25536; -200*200 = -40000 -> 25536; 181*182 = 32942 -> -32594
    EXPECT_EQ((Lanes16x8{32767, -32768, -32768, 32767, -25536, 25536, -32594, 0}),
              vmulq_s16(a, b).lanes);
    EXPECT_EQ((Lanes16x4{-32768, 32767, 32767, -32768}),
              vadd_s16(vget_low_s16(a), vget_low_s16(b)).lanes);

    const int32x4_t c = {{kMax32, kMin32, 65536, -3}};
    const int32x4_t d = {{1, -1, 65536, kMin32}};
    EXPECT_EQ((Lanes32x4{kMin32, kMax32, 131072, kMax32 - 2}), vaddq_s32(c, d).lanes);
    EXPECT_EQ((Lanes32x4{kMax32, kMin32, 0, kMin32}), vmulq_s32(c, d).lanes);
    EXPECT_EQ((Lanes32x4{-2, 0, 1 << 17, -6}), vshlq_n_s32<1>(c).lanes);
    EXPECT_EQ((Lanes32x4{kMin32, 0, 0, kMin32}), vshlq_n_s32<31>(c).lanes);

    // acc + a*b: the product is exact, the sum wraps.
    const int32x4_t acc = {{kMax32, kMin32, 10, 0}};
    const int16x4_t p = {{-32768, -32768, -3, -32768}};
    const int16x4_t q = {{-32768, 32767, 4, -32768}};
    EXPECT_EQ((Lanes32x4{kMin32 + (1 << 30) - 1, 1073774592, -2, 1 << 30}),
              vmlal_s16(acc, p, q).lanes);
}

TEST(VectorLanes, SaturatingRoundingDoublingMultiplyHighHalf)
{
    EXPECT_EQ((Lanes32x2{kMax32, kMax32}),
              vqrdmulh_s32(vdup_n_s32(kMin32), vdup_n_s32(kMin32)).lanes);
    // (2 * 2^30 * 2^30 + 2^31) >> 32 = 2^29; -2^31 * 2^31-1 -> -(2^31 - 1).
    EXPECT_EQ((Lanes32x2{1 << 29, -kMax32}),
              vqrdmulh_s32({{1 << 30, kMin32}}, {{1 << 30, kMax32}}).lanes);
    // Rounding to nearest, ties up: 2ab = 2^31 (a half) gives 1, 2^31 - 2
    // gives 0, -2^31 (minus a half) gives 0 and -2^32 gives -1.
    EXPECT_EQ((Lanes32x2{1, 0}),
              vqrdmulh_s32({{1 << 15, (1 << 15) - 1}}, {{1 << 15, (1 << 15) + 1}}).lanes);
    EXPECT_EQ((Lanes32x2{0, -1}),
              vqrdmulh_s32({{-(1 << 15), -(1 << 16)}}, {{1 << 15, 1 << 15}}).lanes);

    std::mt19937 rng(7);
    std::uniform_int_distribution<std::int32_t> any(kMin32, kMax32);
    for (int i = 0; i < 20000; ++i) {
        const int32x2_t a = {{any(rng), any(rng)}}, b = {{any(rng), i % 2 ? kMin32 : any(rng)}};
        const int32x2_t r = vqrdmulh_s32(a, b);
        const int64x2_t wide = vmull_s32(a, b);
        for (int l = 0; l < 2; ++l) {
            ASSERT_EQ(modelQrdmulh(a.lanes[l], b.lanes[l]), r.lanes[l])
                << a.lanes[l] << " * " << b.lanes[l];
            ASSERT_EQ(i128(a.lanes[l]) * b.lanes[l], i128(wide.lanes[l]));
        }
    }
}

TEST(VectorLanes, RoundingShiftsAddHalfBeforeShiftingWithoutOverflow)
{
    const int32x4_t x = {{kMax32, kMin32, 5, -5}};
    EXPECT_EQ((Lanes32x4{1 << 30, -(1 << 30), 3, -2}), vrshrq_n_s32<1>(x).lanes);
    EXPECT_EQ((Lanes32x4{1, -1, 0, 0}), vrshrq_n_s32<31>(x).lanes);
    EXPECT_EQ((Lanes32x4{0, 0, 0, 0}), vrshrq_n_s32<32>(x).lanes);  // (x + 2^31) >> 32

    // Counts are the signed low byte of each lane: 0x1FF is -1, 0x100 is 0.
    EXPECT_EQ((Lanes64x2{(kMax64 >> 1) + 1, -2}),
              vrshlq_s64({{kMax64, -5}}, {{-1, 0x1FF}}).lanes);
    EXPECT_EQ((Lanes64x2{-2, 7}), vrshlq_s64({{kMax64, 7}}, {{1, 0x100}}).lanes);
    EXPECT_EQ((Lanes64x2{1, 0}), vrshlq_s64({{kMax64, kMin64}}, {{-63, -64}}).lanes);
    EXPECT_EQ((Lanes64x2{0, kMin64}), vrshlq_s64({{1, 1}}, {{64, 63}}).lanes);

    std::mt19937_64 rng(11);
    std::uniform_int_distribution<std::int64_t> any(kMin64, kMax64);
    std::uniform_int_distribution<int> count(-128, 127);
    for (int i = 0; i < 20000; ++i) {
        const std::int64_t v = i % 3 ? any(rng) : any(rng) >> (i % 60);
        const std::int8_t c = static_cast<std::int8_t>(i % 5 ? count(rng) % 70 : count(rng));
        // Upper bits of the count lane must be ignored.
        const std::int64_t countLane =
            static_cast<std::int64_t>((any(rng) & ~std::int64_t(0xFF)) | std::uint8_t(c));
        ASSERT_EQ(modelRshl(v, c), vrshlq_s64({{v, v}}, {{countLane, countLane}}).lanes[1])
            << v << " by " << int(c);
    }
}

TEST(VectorLanes, WideningNarrowingAndHalvesKeepTheirLanes)
{
    const std::int8_t bytes[8] = {-128, 127, -1, 0, 1, 2, 3, 4};
    EXPECT_EQ((Lanes16x8{-128, 127, -1, 0, 1, 2, 3, 4}), vmovl_s8(vld1_s8(bytes)).lanes);
    const std::int16_t shorts[4] = {-32768, 32767, -1, 7};
    const int32x4_t wide = vmovl_s16(vld1_s16(shorts));
    EXPECT_EQ((Lanes32x4{-32768, 32767, -1, 7}), wide.lanes);
    // Narrowing keeps the low half, without saturation.
    EXPECT_EQ((Lanes16x4{-32768, 32767, -1, 7}), vmovn_s32(wide).lanes);
    EXPECT_EQ((Lanes16x4{-1, 0, -32768, 0x1234}),
              vmovn_s32({{65535, 65536, 0x7FFF8000, 0x56781234}}).lanes);
    EXPECT_EQ((Lanes32x2{-1, kMin32}), vmovn_s64({{0x1FFFFFFFFLL, kMin64 + kMax32 + 1}}).lanes);

    const std::int32_t ints[4] = {1, 2, 3, 4};
    const int32x4_t v = vld1q_s32(ints);
    EXPECT_EQ((Lanes32x4{3, 4, 1, 2}), vcombine_s32(vget_high_s32(v), vget_low_s32(v)).lanes);
    EXPECT_EQ((Lanes32x2{2, 2}), vdup_lane_s32<1>(vget_low_s32(v)).lanes);
    EXPECT_EQ((Lanes64x2{kMin64, kMin64}), vdupq_n_s64(kMin64).lanes);
    const int16x8_t s = vdupq_n_s16(-9);
    EXPECT_EQ(s.lanes, vcombine_s16(vget_low_s16(s), vget_high_s16(s)).lanes);
    std::int32_t out[4];
    vst1q_s32(out, vdupq_n_s32(-6));
    EXPECT_EQ((Lanes32x4{-6, -6, -6, -6}), (Lanes32x4{out[0], out[1], out[2], out[3]}));
}

TEST(VectorLanes, DeinterleavingLoadAndInterleavingStoreAreInverse)
{
    std::int16_t in[16];
    for (int i = 0; i < 16; ++i)
        in[i] = static_cast<std::int16_t>(i * 1000 - 7000);
    const int16x8x2_t pair = vld2q_s16(in);
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(in[2 * i], pair.val[0].lanes[i]);
        EXPECT_EQ(in[2 * i + 1], pair.val[1].lanes[i]);
    }
    std::int16_t out[18] = {};
    vst2q_s16(out + 1, pair);
    EXPECT_EQ(0, out[0]);
    EXPECT_EQ(0, out[17]);
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(in[i], out[i + 1]);

    std::int16_t halves[12] = {};
    vst1q_s16(halves, vld1q_s16(in));
    vst1_s16(halves + 8, vget_high_s16(vld1q_s16(in + 8)));
    for (int i = 0; i < 8; ++i)
        EXPECT_EQ(in[i], halves[i]);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(in[12 + i], halves[8 + i]);
}

} // namespace
} // namespace lanes
} // namespace kro
} // namespace velmor
