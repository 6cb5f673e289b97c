#include "SnrCmod.h"

#include <algorithm>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "Exception.h"
#include "IntFrames.h"
#include "IntegerModel.h"
#include "SpatialNoiseRemover.h"

namespace {

using krotest::floorShift;
using krotest::low16;

std::int64_t div9Model(std::int64_t x)
{
    const std::int64_t t = x + 5, m = t - floorShift(t, 3);
    return floorShift(m + floorShift(m, 12) + floorShift(m, 6), 3);
}

// The spatial block as its definition reads, in 64-bit integers. `gain` is
// the value after clamping into 0..31.
std::vector<int> snrModel(const std::vector<int>& in, int cols, int rows, std::int64_t gain, int mode)
{
    if (mode == 1)
        return in;
    const auto u = [&](int x, int y) {
        const int c = std::min(std::max(x, 0), cols - 1), r = std::min(std::max(y, 0), rows - 1);
        return (low16(in[static_cast<std::size_t>(r) * cols + c]) + 32768) % 65536;
    };
    std::vector<int> out(in.size());
    for (int y = 0; y < rows; ++y)
        for (int x = 0; x < cols; ++x) {
            const std::int64_t v = in[static_cast<std::size_t>(y) * cols + x];
            std::int64_t sum = 0, sad = 0;
            for (int i = 0; i < 9; ++i)
                sum += u(x + i % 3 - 1, y + i / 3 - 1);
            const std::int64_t mean = div9Model(sum);
            for (int i = 0; i < 9; ++i)
                sad += krotest::absolute(u(x + i % 3 - 1, y + i / 3 - 1) - mean);
            const std::int64_t k = gain == 0 ? 32 : std::min<std::int64_t>(sad / gain + 13, 32);
            const std::int64_t r = mean + floorShift((u(x, y) - mean) * k + 16, 5);
            std::int64_t result;
            if (mode == 0)
                result = r - 32768;
            else
                result = v < 0 ? v : (r + 32768) % 65536;
            out[static_cast<std::size_t>(y) * cols + x] = static_cast<int>(result);
        }
    return out;
}

enum class Scene { Random, Smooth, Extremes };

// Full-range random values, a smooth ramp with noise, or extreme values;
// in mode 2 unsigned values with a share of negative markers.
std::vector<int> makeFrame(Scene scene, int cols, int rows, int mode, std::mt19937_64& rng)
{
    const int extremes[] = {-32768, 32767, 0, -1, 65535, 32768, -65536, 70000};
    std::vector<int> frame(static_cast<std::size_t>(cols) * rows);
    for (std::size_t i = 0; i < frame.size(); ++i) {
        const int x = static_cast<int>(i % cols), y = static_cast<int>(i / cols);
        int v = scene == Scene::Random   ? krotest::uniformInt(rng, -32768, 32767)
                : scene == Scene::Smooth ? 40 * x - 30 * y + krotest::uniformInt(rng, -25, 25)
                                         : extremes[rng() % 8];
        if (mode == 2 && scene != Scene::Extremes)
            v = rng() % 16 == 0 ? -krotest::uniformInt(rng, 1, 40000) : v + 32768;
        frame[i] = v;
    }
    return frame;
}

// Sizes from 1x1 to a sensor frame, gains at and beyond their bounds (read
// clamped into 0..31), signed and unsigned modes, several scenes.
TEST(SnrCmod, MatchesScalarModelOverSizesGainsModesAndScenes)
{
    std::mt19937_64 rng(11);
    for (const auto& size : {std::make_pair(1, 1), std::make_pair(7, 1), std::make_pair(1, 7), std::make_pair(5, 3),
                            std::make_pair(13, 11), std::make_pair(160, 120)})
        for (int mode : {0, 2})
            for (Scene scene : {Scene::Random, Scene::Smooth, Scene::Extremes}) {
                const int cols = size.first, rows = size.second;
                int gain = 0;
                SnrCmod model(cols, rows, gain, mode);
                const std::vector<int> in = makeFrame(scene, cols, rows, mode, rng);
                std::vector<int> out(in.size());
                for (int g : {0, 1, 6, 17, 31, -4, 32, 2147483647}) {
                    gain = g;  // read through the reference, no call on the model
                    model.ProcessFrame(in.data(), out.data());
                    ASSERT_TRUE(krotest::intFramesEqual(snrModel(in, cols, rows, std::min(std::max(g, 0), 31), mode),
                                                        out, cols))
                        << cols << "x" << rows << ", mode " << mode << ", gain " << g << ", scene "
                        << static_cast<int>(scene);
                }
            }
}

TEST(SnrCmod, GainZeroAndBypassReturnTheFrameUnchanged)
{
    std::mt19937_64 rng(12);
    int gain = 0;
    SnrCmod smoothing(31, 17, gain, 0);
    std::vector<int> in = makeFrame(Scene::Random, 31, 17, 0, rng), out(in.size());
    smoothing.ProcessFrame(in.data(), out.data());
    EXPECT_EQ(in, out);

    gain = 31;
    SnrCmod bypass(31, 17, gain, 1);
    in = makeFrame(Scene::Extremes, 31, 17, 0, rng);
    bypass.ProcessFrame(in.data(), out.data());
    EXPECT_EQ(in, out);
    bypass.ProcessFrame(in.data(), in.data());  // in place in bypass
    EXPECT_EQ(out, in);
}

TEST(SnrCmod, EqualsTheSoftwareFilterOnSignedFrames)
{
    std::mt19937_64 rng(13);
    for (int g = 0; g <= 31; g += 3) {
        int gain = g;
        SnrCmod model(37, 23, gain, 0);
        velmor::kro::SpatialNoiseRemover filter(g);
        cv::Mat_<short> src(23, 37), dst;
        std::vector<int> in(src.total()), out(src.total());
        for (std::size_t i = 0; i < in.size(); ++i)
            src(static_cast<int>(i / 37), static_cast<int>(i % 37)) = static_cast<short>(
                in[i] = g % 2 ? krotest::uniformInt(rng, -32768, 32767) : 3000 + krotest::uniformInt(rng, -60, 60));
        filter.process(src, dst);
        model.ProcessFrame(in.data(), out.data());
        EXPECT_TRUE(krotest::intFramesEqual(std::vector<int>(dst.begin(), dst.end()), out, 37)) << "gain " << g;
    }
}

TEST(SnrCmod, BadFramesAndPositionsAreRefused)
{
    int gain = 6;
    EXPECT_THROW(SnrCmod(0, 5, gain, 0), velmor::kro::Exception);
    EXPECT_THROW(SnrCmod(65536, 65536, gain, 0), velmor::kro::Exception);
    SnrCmod model(4, 3, gain, 0);
    EXPECT_THROW(model.ProcessPel(0, 0), velmor::kro::Exception) << "no frame yet";
    std::vector<int> frame(24, 100);
    EXPECT_THROW(model.ProcessFrame(frame.data(), frame.data() + 5), velmor::kro::Exception);
    EXPECT_THROW(model.ProcessFrame(nullptr, frame.data()), velmor::kro::Exception);
    model.ProcessFrame(frame.data(), frame.data() + 12);
    EXPECT_THROW(model.ProcessPel(4, 0), velmor::kro::Exception);
    EXPECT_THROW(model.ProcessPel(0, -1), velmor::kro::Exception);
}

} // namespace
