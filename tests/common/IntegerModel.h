#pragma once

// Plain integer helpers for the scalar reference models of the bit-exact
// filters: wide (64-bit) values, explicit wrapping and flooring, no bit
// tricks, so that a model does not share the shortcuts of the code it checks.

#include <cstdint>

namespace krotest {

// The value of v as a 32-bit two's-complement register would hold it.
inline std::int64_t wrap32(std::int64_t v)
{
    const std::int64_t modulus = std::int64_t(1) << 32;
    std::int64_t r = v % modulus;
    if (r < 0)
        r += modulus;
    if (r >= modulus / 2)
        r -= modulus;
    return r;
}

// The value of v stored into a signed 16-bit sample.
inline std::int64_t wrap16(std::int64_t v)
{
    std::int64_t r = v % 65536;
    if (r < 0)
        r += 65536;
    if (r >= 32768)
        r -= 65536;
    return r;
}

// floor(v / 2^n): an arithmetic right shift, written as a division.
inline std::int64_t floorShift(std::int64_t v, int n)
{
    const std::int64_t p = std::int64_t(1) << n;
    return v >= 0 ? v / p : -((-v + p - 1) / p);
}

inline std::int64_t absolute(std::int64_t v) { return v < 0 ? -v : v; }

} // namespace krotest
