#pragma once

// Helpers for tests of the hardware models, whose frames are plain
// row-major int32 arrays.

#include <cstdint>
#include <random>
#include <vector>

#include <gtest/gtest.h>

namespace krotest {

// gtest assertion: same length and values; on failure names the first
// differing pixel as (x, y) of a frame of `cols` columns.
inline ::testing::AssertionResult intFramesEqual(const std::vector<int>& expected, const std::vector<int>& actual,
                                                 int cols)
{
    if (expected.size() != actual.size())
        return ::testing::AssertionFailure() << "sizes differ: " << expected.size() << " and " << actual.size();
    for (std::size_t i = 0; i < expected.size(); ++i)
        if (expected[i] != actual[i])
            return ::testing::AssertionFailure() << "pixel (" << i % cols << ", " << i / cols << "): expected "
                                                 << expected[i] << ", got " << actual[i];
    return ::testing::AssertionSuccess();
}

// The low 16 bits of v, 0..65535.
inline std::int64_t low16(std::int64_t v)
{
    const std::int64_t r = v % 65536;
    return r < 0 ? r + 65536 : r;
}

// Uniform integers in [low, high], reproducible from the generator.
inline int uniformInt(std::mt19937_64& rng, int low, int high)
{
    return low + static_cast<int>(rng() % static_cast<std::uint64_t>(static_cast<std::int64_t>(high) - low + 1));
}

} // namespace krotest
