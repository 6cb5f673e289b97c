#include "TnrCmod.h"

#include <algorithm>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "Exception.h"
#include "IntFrames.h"
#include "IntegerModel.h"
#include "TemporalNoiseReduction.h"

namespace {

using krotest::floorShift;
using krotest::low16;
using krotest::wrap32;

std::int64_t clampTo(std::int64_t v, std::int64_t low, std::int64_t high) { return std::min(std::max(v, low), high); }

// The temporal block as its definition reads, one pixel after the other in
// 64-bit integers with explicit 32-bit wrapping. The parameters are passed
// per frame as the caller's ints hold them and clamped as documented.
class TnrModel {
public:
    TnrModel(int mode, bool hwUnits) : mode_(mode), hw_(hwUnits) {}

    std::vector<int> process(const std::vector<int>& in, std::int64_t gain, std::int64_t threshold, std::int64_t factor)
    {
        if (mode_ == 1)
            return in;
        const std::int64_t cgain = hw_ ? clampTo(gain, 0, 1023) : clampTo(gain, 0, 10) * 16 / 10;
        const std::int64_t alpha0 = hw_ ? clampTo(factor, 0, 2048) : clampTo(factor, 0, 100) * 2048 / 100;
        threshold = clampTo(threshold, 0, 100);
        const auto u = [](std::int64_t v) { return (low16(v) + 32768) % 65536; };
        if (accu_.empty()) {
            for (int v : in)
                accu_.push_back(4 * u(v));
            alpha_ = alpha0;
        }
        std::vector<int> out(in.size());
        std::int64_t sum = 0;
        for (std::size_t i = 0; i < in.size(); ++i) {
            const std::int64_t v = in[i], u4 = 4 * u(v);
            std::int64_t& a = accu_[i];
            const std::int64_t diff = a - u4, ad = krotest::absolute(diff);
            const std::int64_t idx = floorShift(wrap32(ad * cgain), 6);
            const std::int64_t w = (idx >= 0 && idx < 1024) ? TnrCmod::mAlphaTab[idx] : 0;
            sum += idx > 50 ? idx : 0;
            const std::int64_t next = u4 + floorShift(wrap32(floorShift(wrap32(alpha_ * w), 11) * diff), 15);
            const std::int64_t filtered = floorShift(next + 2, 2);
            if (mode_ == 0) {
                out[i] = static_cast<int>(krotest::wrap16(ad > 131071 ? v : filtered - 32768));
                a = ad > 131071 ? u4 : next;
            } else if (v < 0) {  // marker: passes, re-seeds from its bits without the low six
                out[i] = static_cast<int>(v);
                a = 4 * u(low16(v) / 64 * 64);
            } else {
                out[i] = static_cast<int>(ad > 131071 ? v : (low16(filtered) + 32768) % 65536);
                a = ad > 131071 ? u4 : next;
            }
        }
        motion_ = wrap32(floorShift(floorShift(sum, 2) + 3 * motion_, 2));
        const std::int64_t limit = floorShift(static_cast<std::int64_t>(in.size()) * threshold, 12);
        const bool quiet = floorShift(motion_, 4) < limit, still = motion_ < limit;
        if (threshold == 100)
            alpha_ = alpha0;
        else if (quiet)
            alpha_ += alpha_ < alpha0 ? 4 : (still ? 1 : -20);
        else
            alpha_ -= 102;
        alpha_ = std::min(std::max(alpha_, std::max<std::int64_t>(alpha0 - 205, 0)),
                          std::min<std::int64_t>(alpha0 + 205, 2047));
        return out;
    }

private:
    int mode_;
    bool hw_;
    std::int64_t alpha_ = 0, motion_ = 0;
    std::vector<std::int64_t> accu_;
};

enum class Scene { Noisy, Moving, Jumps, Extremes };

// A static scene with small noise, a pattern sliding one column per frame,
// uniformly random frames, or extreme values (beyond 16 bits too); in
// mode 2 unsigned values with a share of negative markers.
std::vector<std::vector<int>> makeSequence(Scene scene, int cols, int rows, int frames, int mode, std::uint64_t seed)
{
    std::mt19937_64 rng(seed);
    std::vector<int> base(static_cast<std::size_t>(cols) * rows);
    for (int& v : base)
        v = krotest::uniformInt(rng, -20000, 20000);
    const int extremes[] = {-32768, 32767, 0, -16385, 16384, 65535, -65536, 100000};
    std::vector<std::vector<int>> out(frames, std::vector<int>(base.size()));
    for (int f = 0; f < frames; ++f)
        for (std::size_t i = 0; i < base.size(); ++i) {
            const int x = static_cast<int>(i % cols), y = static_cast<int>(i / cols);
            int v = scene == Scene::Noisy    ? base[i] + krotest::uniformInt(rng, -20, 20)
                    : scene == Scene::Moving ? ((x + f) / 3 + y / 2) % 2 ? 12000 : -9000
                    : scene == Scene::Jumps  ? krotest::uniformInt(rng, -32768, 32767)
                                             : extremes[rng() % 8];
            if (mode == 2 && scene != Scene::Extremes)
                v = rng() % 25 == 0 ? -krotest::uniformInt(rng, 1, 70000) : v + 32768;
            out[f][i] = v;
        }
    return out;
}

struct Params {
    int gain, threshold, factor;
    bool hwUnits;
};

// Model and scalar model over a sequence in which the caller changes the
// parameters after frame `changeAt`; names the first frame that differs.
::testing::AssertionResult matchesModel(int cols, int rows, int mode, Params first, Params later, int changeAt,
                                        const std::vector<std::vector<int>>& input)
{
    int gain = first.gain, threshold = first.threshold, factor = first.factor;
    TnrCmod model(cols, rows, gain, threshold, factor, mode, first.hwUnits ? 1 : 0);
    TnrModel plain(mode, first.hwUnits);
    std::vector<int> out(input[0].size());
    for (std::size_t f = 0; f < input.size(); ++f) {
        if (static_cast<int>(f) == changeAt) {
            gain = later.gain;
            threshold = later.threshold;
            factor = later.factor;
        }
        model.ProcessFrame(input[f].data(), out.data());
        ::testing::AssertionResult same =
            krotest::intFramesEqual(plain.process(input[f], gain, threshold, factor), out, cols);
        if (!same)
            return same << " in frame " << f;
    }
    return ::testing::AssertionSuccess();
}

// Sizes from 1x1 to a sensor frame; parameters at, between and beyond their
// bounds in both unit systems (the caller's values are clamped where read);
// signed and unsigned modes; multi-frame runs in which the caller's
// parameters change half way.
TEST(TnrCmod, MatchesScalarModelOverSizesParametersModesAndScenes)
{
    const Params cases[][2] = {
        {{10, 15, 60, false}, {3, 15, 60, false}},     {{0, 0, 100, false}, {10, 0, 100, false}},
        {{10, 100, 0, false}, {10, 100, 100, false}},  {{4, 50, 100, false}, {4, 99, 40, false}},
        {{-3, 200, 150, false}, {11, -1, -5, false}},  {{16, 15, 1228, true}, {16, 100, 2048, true}},
        {{1023, 0, 2048, true}, {1, 0, 0, true}},      {{5000, -7, 3000, true}, {-2, 101, -1, true}},
        {{2147483647, 2147483647, 2147483647, false}, {-2147483647 - 1, 40, 2147483647, true}},
    };
    std::uint64_t seed = 1;
    for (const auto& k : cases)
        for (const auto& size : {std::make_pair(1, 1), std::make_pair(7, 1), std::make_pair(1, 7),
                                 std::make_pair(5, 3), std::make_pair(13, 11), std::make_pair(160, 120)})
            for (int mode : {0, 2})
                for (Scene scene : {Scene::Noisy, Scene::Moving, Scene::Jumps, Scene::Extremes}) {
                    const int frames = size.first * size.second > 1000 ? 4 : 16;
                    Params later = k[1];
                    later.hwUnits = k[0].hwUnits;  // fixed at construction
                    ASSERT_TRUE(matchesModel(size.first, size.second, mode, k[0], later, frames / 2,
                                             makeSequence(scene, size.first, size.second, frames, mode, seed++)))
                        << size.first << "x" << size.second << ", mode " << mode << ", scene "
                        << static_cast<int>(scene) << ", gain " << k[0].gain << ", threshold " << k[0].threshold
                        << ", factor " << k[0].factor << (k[0].hwUnits ? " (hardware units)" : "");
                }
}

TEST(TnrCmod, EqualsTheSoftwareFilterOnSignedFrames)
{
    EXPECT_EQ(&TnrCmod::mAlphaTab, &velmor::kro::TemporalNoiseReduction::mAlphaTab) << "one table, two names";
    for (const Params p : {Params{10, 15, 60, false}, Params{0, 0, 100, false}, Params{7, 100, 30, false},
                           Params{16, 3, 2048, true}, Params{40, 60, 1500, true}})
        for (Scene scene : {Scene::Noisy, Scene::Moving, Scene::Jumps}) {
            const auto input = makeSequence(scene, 29, 21, 30, 0, 77);
            int gain = p.gain, threshold = p.threshold, factor = p.factor;
            TnrCmod model(29, 21, gain, threshold, factor, 0, p.hwUnits ? 1 : 0);
            velmor::kro::TemporalNoiseReduction filter(p.gain, p.threshold, p.factor, p.hwUnits);
            std::vector<int> out(input[0].size());
            for (std::size_t f = 0; f < input.size(); ++f) {
                cv::Mat_<short> src(21, 29), dst;
                std::copy(input[f].begin(), input[f].end(), src.begin());
                filter.process(src, dst);
                model.ProcessFrame(input[f].data(), out.data());
                ASSERT_TRUE(krotest::intFramesEqual(std::vector<int>(dst.begin(), dst.end()), out, 29))
                    << "frame " << f << ", gain " << p.gain << ", scene " << static_cast<int>(scene);
            }
        }
}

TEST(TnrCmod, FirstFrameAndBypassPassUnchangedAndMarkersReseed)
{
    int gain = 10, threshold = 15, factor = 60;
    const std::vector<int> first = {-32768, 32767, 5, -1, 1234, 0};
    std::vector<int> out(6);
    TnrCmod model(3, 2, gain, threshold, factor, 0, 0);
    model.ProcessFrame(first.data(), out.data());
    EXPECT_EQ(first, out);

    TnrCmod bypass(3, 2, gain, threshold, factor, 1, 0);
    const std::vector<int> odd = {70000, -70000, 1, 2, 3, 4};
    for (int f = 0; f < 3; ++f) {
        bypass.ProcessFrame(odd.data(), out.data());
        EXPECT_EQ(odd, out);
    }

    // Mode 2: a marker (-1: bits 0xFFFF) passes and re-seeds its
    // accumulator from 0xFFC0 with the top bit flipped, 0x7FC0 * 4.
    TnrCmod unsignedModel(3, 2, gain, threshold, factor, 2, 0);
    const std::vector<int> seed = {100, 200, 300, 400, 500, 600};
    unsignedModel.ProcessFrame(seed.data(), out.data());
    EXPECT_EQ(seed, out);
    const std::vector<int> marked = {100, 200, -1, 400, 500, 600};
    unsignedModel.ProcessFrame(marked.data(), out.data());
    EXPECT_EQ(out[2], -1);
    EXPECT_EQ(unsignedModel.accumulator()[2], 0x7FC0 * 4);
    EXPECT_EQ(unsignedModel.accumulator()[0], (100 ^ 0x8000) * 4) << "unsigned values are seeded bit-flipped";
}

TEST(TnrCmod, FeedbackAdaptsWithinItsBandAndStopsAtThresholdHundred)
{
    // Still frames (motion limit (1024 * 15) >> 12 = 3): the feedback climbs
    // by 1 per frame from its base (60 %: 1228) to base + 205; moving frames
    // take 102 per frame down to base - 205; threshold 100 pins it to the base.
    int gain = 10, threshold = 15, factor = 60;
    TnrCmod model(32, 32, gain, threshold, factor, 0, 0);
    std::vector<int> still(1024, 500), moving(1024), out(1024);
    for (int f = 0; f < 204; ++f)
        model.ProcessFrame(still.data(), out.data());
    EXPECT_EQ(model.feedback(), 1228 + 204);
    for (int f = 0; f < 2; ++f)
        model.ProcessFrame(still.data(), out.data());
    EXPECT_EQ(model.feedback(), 1228 + 205);
    for (int f = 0; f < 6; ++f) {
        for (std::size_t i = 0; i < moving.size(); ++i)
            moving[i] = (i + f) % 2 ? 500 : 4000;
        model.ProcessFrame(moving.data(), out.data());
    }
    EXPECT_EQ(model.feedback(), 1228 - 205);
    EXPECT_EQ(model.GetGlobalOff(), 0);
    threshold = 100;
    model.ProcessFrame(still.data(), out.data());
    EXPECT_EQ(model.feedback(), 1228);
    EXPECT_EQ(model.GetGlobalOff(), 1);
}

TEST(TnrCmod, BadFramesAreRefused)
{
    int gain = 10, threshold = 15, factor = 60;
    EXPECT_THROW(TnrCmod(5, 0, gain, threshold, factor, 0, 0), velmor::kro::Exception);
    TnrCmod model(4, 4, gain, threshold, factor, 0, 0);
    std::vector<int> frame(16, 7);
    EXPECT_THROW(model.ProcessFrame(frame.data(), nullptr), velmor::kro::Exception);
    model.ProcessFrame(frame.data(), frame.data());  // in place is allowed: pixels are independent
    EXPECT_EQ(frame, std::vector<int>(16, 7));
}

} // namespace
