#include "SnrCmod.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "Exception.h"
#include "IntFrames.h"
#include "IntegerModel.h"
#include "SpatialNoiseRemover.h"

namespace {

using krotest::floorShift;
using krotest::IntFrame;
using krotest::ModelScene;

std::int64_t div9Model(std::int64_t x)
{
    const std::int64_t t = x + 5, m = t - floorShift(t, 3);
    return floorShift(m + floorShift(m, 12) + floorShift(m, 6), 3);
}

// The spatial block as its definition reads, in 64-bit integers; `gain`
// already clamped into 0..31.
IntFrame snrModel(const IntFrame& in, int cols, int rows, std::int64_t gain, int mode)
{
    if (mode == 1)
        return in;
    const auto u = [&](int x, int y) {
        const int c = std::min(std::max(x, 0), cols - 1), r = std::min(std::max(y, 0), rows - 1);
        return (krotest::low16(in[static_cast<std::size_t>(r) * cols + c]) + 32768) % 65536;
    };
    IntFrame out(in.size());
    for (int y = 0; y < rows; ++y)
        for (int x = 0; x < cols; ++x) {
            std::int64_t sum = 0, sad = 0;
            for (int i = 0; i < 9; ++i)
                sum += u(x + i % 3 - 1, y + i / 3 - 1);
            const std::int64_t mean = div9Model(sum);
            for (int i = 0; i < 9; ++i)
                sad += krotest::absolute(u(x + i % 3 - 1, y + i / 3 - 1) - mean);
            const std::int64_t k = gain == 0 ? 32 : std::min<std::int64_t>(sad / gain + 13, 32);
            const std::int64_t r = mean + floorShift((u(x, y) - mean) * k + 16, 5);
            const std::int64_t v = in[static_cast<std::size_t>(y) * cols + x];
            out[static_cast<std::size_t>(y) * cols + x] =
                static_cast<int>(mode == 0 ? r - 32768 : (v < 0 ? v : (r + 32768) % 65536));
        }
    return out;
}

// Every size, both pixel modes and bypass, gains at and beyond their bounds
// (read through the reference, clamped into 0..31) changed between frames.
TEST(SnrCmod, MatchesScalarModelOverSizesGainsAndModes)
{
    std::uint64_t seed = 11;
    for (const auto& size : krotest::kModelSizes)
        for (int mode : {0, 1, 2})
            for (ModelScene scene : {ModelScene::Steady, ModelScene::Random, ModelScene::Extremes}) {
                const int cols = size.first, rows = size.second;
                int gain = 0;
                SnrCmod model(cols, rows, gain, mode);
                const IntFrame in = krotest::modelSequence(scene, cols, rows, 1, mode == 2, seed++)[0];
                IntFrame out(in.size());
                for (int g : {0, 1, 6, 17, 31, -4, 32, 2147483647}) {
                    gain = g;
                    model.ProcessFrame(in.data(), out.data());
                    ASSERT_TRUE(krotest::intFramesEqual(snrModel(in, cols, rows, std::min(std::max(g, 0), 31), mode),
                                                        out, cols))
                        << cols << "x" << rows << ", mode " << mode << ", gain " << g;
                    if (mode == 1 || (g == 0 && mode == 0 && scene != ModelScene::Extremes)) {
                        ASSERT_EQ(in, out) << "bypass and gain 0 return the frame";
                    }
                }
            }
}

TEST(SnrCmod, EqualsTheSoftwareFilterOnSignedFrames)
{
    for (int g = 0; g <= 31; g += 3) {
        int gain = g;
        SnrCmod model(37, 23, gain, 0);
        velmor::kro::SpatialNoiseRemover filter(g);
        const IntFrame in = krotest::modelSequence(g % 2 ? ModelScene::Random : ModelScene::Steady, 37, 23, 1, false, g)[0];
        IntFrame out(in.size());
        cv::Mat_<short> src(23, 37), dst;
        std::copy(in.begin(), in.end(), src.begin());
        filter.process(src, dst);
        model.ProcessFrame(in.data(), out.data());
        EXPECT_TRUE(krotest::intFramesEqual(IntFrame(dst.begin(), dst.end()), out, 37)) << "gain " << g;
    }
}

TEST(SnrCmod, BadFramesAndPositionsAreRefused)
{
    int gain = 6;
    EXPECT_THROW(SnrCmod(0, 5, gain, 0), velmor::kro::Exception);
    EXPECT_THROW(SnrCmod(65536, 65536, gain, 0), velmor::kro::Exception);
    SnrCmod model(4, 3, gain, 0);
    EXPECT_THROW(model.ProcessPel(0, 0), velmor::kro::Exception) << "no frame yet";
    IntFrame frame(24, 100);
    EXPECT_THROW(model.ProcessFrame(frame.data(), frame.data() + 5), velmor::kro::Exception);
    EXPECT_THROW(model.ProcessFrame(nullptr, frame.data()), velmor::kro::Exception);
    model.ProcessFrame(frame.data(), frame.data() + 12);
    EXPECT_THROW(model.ProcessPel(4, 0), velmor::kro::Exception);
}

} // namespace
