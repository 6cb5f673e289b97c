#include "Peaking.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "Exception.h"
#include "IntFrames.h"
#include "IntegerModel.h"
#include "TestImages.h"

namespace {

using krotest::absolute;
using krotest::floorShift;
using krotest::IntFrame;
using krotest::ModelScene;

struct Settings {
    int enable, gain, coring, limit, reductThres, reductGain;
};

std::int64_t clampTo(std::int64_t v, std::int64_t low, std::int64_t high) { return std::min(std::max(v, low), high); }

// The peaking block as its definition reads, in 64-bit integers. `s` holds
// the values after clamping.
IntFrame peakingModel(const IntFrame& in, int cols, int rows, const Settings& s, const double* localGain)
{
    if (s.enable == 0)
        return in;
    const auto at = [&](int x, int y) -> std::int64_t {
        return in[static_cast<std::size_t>(clampTo(y, 0, rows - 1)) * cols + clampTo(x, 0, cols - 1)];
    };
    IntFrame out(in.size());
    for (int y = 0; y < rows; ++y)
        for (int x = 0; x < cols; ++x) {
            const std::int64_t p = at(x, y);
            const double g = localGain ? localGain[clampTo(floorShift(p, 7), 0, 255)] : 1.0;
            const double product = s.coring * g;
            const std::int64_t c = product > 0 ? static_cast<std::int64_t>(std::trunc(std::min(product, 65536.0))) : 0;
            std::int64_t acc = 0, mx = -32767, mn = 32767;
            for (int dy = -1; dy <= 1; ++dy)
                for (int dx = -1; dx <= 1; ++dx) {
                    const std::int64_t n = at(x + dx, y + dy);
                    std::int64_t d = n - p;
                    if (d > 0)
                        d = std::max<std::int64_t>(d - c, 0);
                    if (d < 0)
                        d = std::min<std::int64_t>(d + c, 0);
                    const std::int64_t weight = dx == 0 && dy == 0 ? -256 : (dx != 0 && dy != 0 ? 16 : 48);
                    acc -= (p + d) * weight;
                    mx = std::max(mx, n);
                    mn = std::min(mn, n);
                }
            const std::int64_t r =
                std::min<std::int64_t>(floorShift(s.reductGain * std::max<std::int64_t>(mx - mn - 512 * s.reductThres, 0), 12), 256);
            const std::int64_t m = std::min<std::int64_t>(absolute(acc), std::int64_t(s.limit) * 4096);
            std::int64_t e = floorShift(floorShift(s.gain * m, 12) * (256 - r) + 128, 8);
            if (acc < 0)
                e = -e;
            out[static_cast<std::size_t>(y) * cols + x] = static_cast<int>(clampTo(p + e, localGain ? 0 : -32767, 32766));
        }
    return out;
}

Settings clamped(const Settings& s)
{
    return {s.enable, static_cast<int>(clampTo(s.gain, 0, 127)), static_cast<int>(clampTo(s.coring, 0, 65535)),
            static_cast<int>(clampTo(s.limit, 0, 4096)), static_cast<int>(clampTo(s.reductThres, 0, 128)),
            static_cast<int>(clampTo(s.reductGain, 0, 32767))};
}

void apply(Peaking& peaking, const Settings& s)
{
    peaking.SetEnable(s.enable);
    peaking.SetGain(s.gain);
    peaking.SetCoring(s.coring);
    peaking.SetLimit(s.limit);
    peaking.SetReductThres(s.reductThres);
    peaking.SetReductGain(s.reductGain);
}

// Sizes from 1x1 to a sensor frame; defaults, every parameter at its bounds
// and beyond them (clamped by the setters); with and without a local-gain
// table whose gains span 0 to far beyond any useful coring.
TEST(Peaking, MatchesScalarModelOverSizesParametersAndLocalGains)
{
    const Settings cases[] = {{1, 14, 22, 130, 20, 30},          {1, 127, 0, 4096, 0, 32767},
                              {1, 0, 22, 130, 20, 30},           {1, 14, 65535, 130, 20, 30},
                              {1, 127, 5, 0, 20, 30},            {1, 60, 3, 4096, 128, 1},
                              {1, 127, 0, 4096, 0, 0},           {-7, 500, -3, 9999, -1, 100000},
                              {1, -2147483647 - 1, 2147483647, -5, 2147483647, -2147483647 - 1}};
    std::vector<double> gains(256);
    std::mt19937_64 rng(5);
    for (std::size_t i = 0; i < gains.size(); ++i)
        gains[i] = i % 17 == 0 ? 0.0 : (i % 29 == 0 ? 1e12 : 0.05 * static_cast<double>(rng() % 100));
    std::uint64_t seed = 1;
    for (const Settings& k : cases)
        for (const auto& size : krotest::kModelSizes)
            for (const double* table : {static_cast<const double*>(nullptr), static_cast<const double*>(gains.data())})
                for (ModelScene scene : {ModelScene::Steady, ModelScene::Moving, ModelScene::Random, ModelScene::Extremes}) {
                    Peaking peaking(size.first, size.second);
                    apply(peaking, k);
                    const IntFrame in = krotest::modelSequence(scene, size.first, size.second, 1, false, seed++)[0];
                    IntFrame out(in.size());
                    peaking.ProcessFrame(in.data(), out.data(), table);
                    ASSERT_TRUE(krotest::intFramesEqual(peakingModel(in, size.first, size.second, clamped(k), table),
                                                        out, size.first))
                        << size.first << "x" << size.second << ", gain " << k.gain << ", coring " << k.coring
                        << ", limit " << k.limit << ", reduction " << k.reductThres << "/" << k.reductGain
                        << (table ? ", local gains" : "") << ", scene " << static_cast<int>(scene);
                }
}

TEST(Peaking, HandWorkedPeakAndClamps)
{
    // A 1000 peak on 0 with the defaults (enable 1): each neighbour's
    // difference -1000 is cored to -978, so acc = 256 * 1000 - 22 * 256 =
    // 250368; the range 1000 is below 20 * 512 (no reduction);
    // e = ((14 * 250368) >> 12) * 256 + 128) >> 8 = 855.
    Peaking peaking(3, 3);
    peaking.SetEnable(1);
    IntFrame in = {0, 0, 0, 0, 1000, 0, 0, 0, 0}, out(9);
    peaking.ProcessFrame(in.data(), out.data(), nullptr);
    EXPECT_EQ(out[4], 1855);

    // Flat frames: acc is 0; only the clamps act (32766 above; -32767 below,
    // or 0 with local gains).
    const std::vector<double> ones(256, 1.0);
    for (const auto& c : {std::make_tuple(32767, false, 32766), std::make_tuple(-32768, false, -32767),
                          std::make_tuple(-5, true, 0), std::make_tuple(1234, true, 1234)}) {
        in.assign(9, std::get<0>(c));
        peaking.ProcessFrame(in.data(), out.data(), std::get<1>(c) ? ones.data() : nullptr);
        EXPECT_EQ(out, IntFrame(9, std::get<2>(c))) << std::get<0>(c);
    }
    // Enable 0 copies exactly, 32767 included.
    peaking.SetEnable(0);
    in = {32767, -32768, 5, 100000, -1, 0, 7, 8, 9};
    peaking.ProcessFrame(in.data(), out.data(), nullptr);
    EXPECT_EQ(in, out);
}

TEST(Peaking, ParameterFileSectionAndMessages)
{
    krotest::TempDir dir;
    const auto settingsOf = [](const Peaking& p) {
        return std::vector<int>{p.GetEnable(), p.GetGain(), p.GetCoring(), p.GetLimit(), p.GetReductThres(), p.GetReductGain()};
    };
    Peaking peaking;
    const std::vector<int> defaults = {0, 14, 22, 130, 20, 30};
    const std::string missing = dir.file("absent.ini");
    testing::internal::CaptureStdout();
    peaking.SetParam(missing.c_str());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "peak: Cannot read " + missing + "\n");
    EXPECT_EQ(settingsOf(peaking), defaults);

    std::ofstream(dir.file("other.ini")) << "gain=99\n[Histogram_Parameter]\ngain=77\n[Peaking_Parameter ]\ncoring=1\n";
    peaking.SetParam(dir.file("other.ini").c_str());
    EXPECT_EQ(settingsOf(peaking), defaults) << "no key outside the peaking section counts";

    std::ofstream(dir.file("peaking.ini")) << "[Peaking_Parameter]\nenable=1\ngain=0x10\ncoring=010\n"
                                           << "reduct_gain=-4\nlimit=99999\n[Other]\nreduct_thres=5\n";
    peaking.SetParam(dir.file("peaking.ini").c_str());
    EXPECT_EQ(settingsOf(peaking), (std::vector<int>{1, 16, 8, 4096, 20, 0}))
        << "hex and octal read, values clamped, other sections ignored";
}

TEST(Peaking, MatrixBuffersAndBadFrames)
{
    Peaking peaking(6, 4);
    peaking.SetEnable(1);
    velmor::kro::Matrix<int> in(4, 6), out(4, 6), wrong(6, 4);
    const IntFrame frame = krotest::modelSequence(ModelScene::Random, 6, 4, 1, false, 9)[0];
    std::copy(frame.begin(), frame.end(), in.data);
    peaking.ProcessFrame(in, out, nullptr);
    EXPECT_TRUE(krotest::intFramesEqual(peakingModel(frame, 6, 4, {1, 14, 22, 130, 20, 30}, nullptr),
                                        IntFrame(out.data, out.data + 24), 6));
    EXPECT_THROW(peaking.ProcessFrame(in, wrong, nullptr), velmor::kro::Exception);
    EXPECT_THROW(peaking.ProcessFrame(in.data, in.data + 3, nullptr), velmor::kro::Exception);
    EXPECT_THROW(Peaking(0, 1), velmor::kro::Exception);
}

} // namespace
