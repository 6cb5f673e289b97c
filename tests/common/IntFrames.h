#pragma once

// Helpers for the tests of the hardware models, whose frames are plain
// row-major int32 arrays.

#include <cstdint>
#include <random>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace krotest {

using IntFrame = std::vector<int>;

// The sizes every model is checked at: 1x1, a row, a column, odd sizes and
// a sensor frame (cols, rows).
const std::pair<int, int> kModelSizes[] = {{1, 1}, {7, 1}, {1, 7}, {2, 3}, {13, 11}, {160, 120}};

// gtest assertion: same values; on failure names the first differing pixel
// as (x, y) of a frame of `cols` columns.
inline ::testing::AssertionResult intFramesEqual(const IntFrame& expected, const IntFrame& actual, int cols)
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

inline int uniformInt(std::mt19937_64& rng, int low, int high)
{
    return low + static_cast<int>(rng() % static_cast<std::uint64_t>(static_cast<std::int64_t>(high) - low + 1));
}

enum class ModelScene {
    Steady,    // fixed column and pixel offsets around a level, +-2 noise per frame,
               // one pixel in 4000 flickering by 60..200
    Moving,    // bars sliding one column per frame
    Random,    // uniform signed 16-bit values
    Extremes,  // saturated values and values beyond 16 bits
};

// Frames of signed 16-bit values; with `unsignedMarkers`, unsigned values
// (+32768) with one in 20 replaced by a negative marker (Extremes excepted).
inline std::vector<IntFrame> modelSequence(ModelScene scene, int cols, int rows, int frames, bool unsignedMarkers,
                                           std::uint64_t seed)
{
    std::mt19937_64 rng(seed);
    const int level = uniformInt(rng, -20000, 20000);
    IntFrame base(static_cast<std::size_t>(cols) * rows);
    for (std::size_t i = 0; i < base.size(); ++i)
        base[i] = level + static_cast<int>(i % cols) * 7919 % 41 - 20 + uniformInt(rng, -6, 6);
    const int extremes[] = {-32768, 32767, 0, -1, 32766, 65535, -65536, 100000};
    std::vector<IntFrame> out(frames, IntFrame(base.size()));
    for (int f = 0; f < frames; ++f)
        for (std::size_t i = 0; i < base.size(); ++i) {
            const int x = static_cast<int>(i % cols), y = static_cast<int>(i / cols);
            int v = scene == ModelScene::Steady   ? base[i] + uniformInt(rng, -2, 2) +
                                                        (rng() % 4000 == 0 ? uniformInt(rng, 60, 200) : 0)
                    : scene == ModelScene::Moving ? (((x + f) / 3 + y / 2) % 2 ? 12000 : -9000) + uniformInt(rng, -99, 99)
                    : scene == ModelScene::Random ? uniformInt(rng, -32768, 32767)
                                                  : extremes[rng() % 8];
            if (unsignedMarkers && scene != ModelScene::Extremes)
                v = rng() % 20 == 0 ? -uniformInt(rng, 1, 70000) : v + 32768;
            out[f][i] = v;
        }
    return out;
}

} // namespace krotest
