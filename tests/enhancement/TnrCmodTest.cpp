#include "TnrCmod.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "Exception.h"
#include "IntFrames.h"
#include "IntegerModel.h"
#include "TemporalNoiseReduction.h"

namespace {

using krotest::floorShift;
using krotest::IntFrame;
using krotest::low16;
using krotest::ModelScene;
using krotest::wrap32;

std::int64_t clampTo(std::int64_t v, std::int64_t low, std::int64_t high) { return std::min(std::max(v, low), high); }

// The temporal block as its definition reads, in 64-bit integers with
// explicit 32-bit wrapping. The caller's parameters are passed per frame and
// clamped as documented.
class TnrModel {
public:
    TnrModel(int mode, bool hwUnits) : mode_(mode), hw_(hwUnits) {}

    IntFrame process(const IntFrame& in, std::int64_t gain, std::int64_t threshold, std::int64_t factor)
    {
        if (mode_ == 1)
            return in;
        const std::int64_t cgain = hw_ ? clampTo(gain, 0, 1023) : clampTo(gain, 0, 10) * 16 / 10;
        const std::int64_t alpha0 = hw_ ? clampTo(factor, 0, 2048) : clampTo(factor, 0, 100) * 2048 / 100;
        threshold = clampTo(threshold, 0, 100);
        const auto u4 = [](std::int64_t v) { return 4 * ((low16(v) + 32768) % 65536); };
        if (accu_.empty()) {
            for (int v : in)
                accu_.push_back(u4(v));
            alpha_ = alpha0;
        }
        IntFrame out(in.size());
        std::int64_t sum = 0;
        for (std::size_t i = 0; i < in.size(); ++i) {
            const std::int64_t v = in[i], diff = accu_[i] - u4(v), ad = krotest::absolute(diff);
            const std::int64_t idx = floorShift(wrap32(ad * cgain), 6);
            const std::int64_t w = (idx >= 0 && idx < 1024) ? TnrCmod::mAlphaTab[idx] : 0;
            sum += idx > 50 ? idx : 0;
            const std::int64_t next = u4(v) + floorShift(wrap32(floorShift(alpha_ * w, 11) * diff), 15);
            const std::int64_t filtered = floorShift(next + 2, 2);
            const bool marker = mode_ != 0 && v < 0, reset = ad > 131071;
            if (mode_ == 0)
                out[i] = static_cast<int>(krotest::wrap16(reset ? v : filtered - 32768));
            else
                out[i] = static_cast<int>(marker || reset ? v : (low16(filtered) + 32768) % 65536);
            accu_[i] = marker ? u4(low16(v) / 64 * 64) : (reset ? u4(v) : next);  // a marker drops its low 6 bits
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
        alpha_ = std::min(std::max(alpha_, std::max<std::int64_t>(alpha0 - 205, 0)), std::min<std::int64_t>(alpha0 + 205, 2047));
        return out;
    }

    std::int64_t alpha() const { return alpha_; }
    const std::vector<std::int64_t>& accumulator() const { return accu_; }

private:
    int mode_;
    bool hw_;
    std::int64_t alpha_ = 0, motion_ = 0;
    std::vector<std::int64_t> accu_;
};

struct Params {
    int gain, threshold, factor;
};

// Every size, mode and scene; parameters at, between and beyond their bounds
// in both unit systems, changed by the caller half way through each run.
TEST(TnrCmod, MatchesScalarModelOverSizesParametersModesAndScenes)
{
    struct Case {
        Params first, later;
        bool hw;
    };
    const Case cases[] = {{{10, 15, 60}, {3, 15, 60}, false},       {{0, 0, 100}, {10, 0, 100}, false},
                          {{10, 100, 0}, {10, 100, 100}, false},    {{10, 99, 80}, {10, 30, 80}, false},
                          {{-3, 200, 150}, {11, -1, -5}, false},    {{16, 15, 1228}, {16, 100, 2048}, true},
                          {{1023, 0, 2048}, {1, 0, 0}, true},       {{5000, -7, 3000}, {-2, 101, -1}, true},
                          {{2147483647, 2147483647, 2147483647}, {-2147483647 - 1, 40, 9}, false}};
    std::uint64_t seed = 1;
    for (const Case& c : cases)
        for (const auto& size : krotest::kModelSizes)
            for (int mode : {0, 1, 2})
                for (ModelScene scene : {ModelScene::Steady, ModelScene::Moving, ModelScene::Random, ModelScene::Extremes}) {
                    const int frames = size.first * size.second > 1000 ? 8 : 16;
                    const auto input = krotest::modelSequence(scene, size.first, size.second, frames, mode == 2, seed++);
                    int gain = c.first.gain, threshold = c.first.threshold, factor = c.first.factor;
                    TnrCmod model(size.first, size.second, gain, threshold, factor, mode, c.hw ? 1 : 0);
                    TnrModel plain(mode, c.hw);
                    IntFrame out(input[0].size());
                    for (int f = 0; f < frames; ++f) {
                        if (f == frames / 2)
                            gain = c.later.gain, threshold = c.later.threshold, factor = c.later.factor;
                        model.ProcessFrame(input[f].data(), out.data());
                        ASSERT_TRUE(krotest::intFramesEqual(plain.process(input[f], gain, threshold, factor), out, size.first))
                            << "gain " << c.first.gain << ", threshold " << c.first.threshold << ", " << size.first
                            << "x" << size.second << ", mode " << mode << ", scene " << static_cast<int>(scene)
                            << ", frame " << f;
                        ASSERT_EQ(model.feedback(), mode == 1 ? 0 : plain.alpha()) << "frame " << f;
                        if (f == 0 && mode == 0 && scene != ModelScene::Extremes) {
                            ASSERT_EQ(input[0], out) << "the first frame passes unchanged";
                        }
                    }
                    if (mode != 1) {
                        ASSERT_TRUE(std::equal(model.accumulator().begin(), model.accumulator().end(),
                                               plain.accumulator().begin()));
                    }
                }
}

TEST(TnrCmod, EqualsTheSoftwareFilterOnSignedFrames)
{
    EXPECT_EQ(&TnrCmod::mAlphaTab, &velmor::kro::TemporalNoiseReduction::mAlphaTab) << "one table, two names";
    for (const auto& p : {std::make_pair(Params{10, 15, 60}, false), std::make_pair(Params{0, 0, 100}, false),
                          std::make_pair(Params{7, 100, 30}, false), std::make_pair(Params{40, 60, 1500}, true)})
        for (ModelScene scene : {ModelScene::Steady, ModelScene::Moving, ModelScene::Random}) {
            const auto input = krotest::modelSequence(scene, 29, 21, 30, false, 77);
            int gain = p.first.gain, threshold = p.first.threshold, factor = p.first.factor;
            TnrCmod model(29, 21, gain, threshold, factor, 0, p.second ? 1 : 0);
            velmor::kro::TemporalNoiseReduction filter(gain, threshold, factor, p.second);
            IntFrame out(input[0].size());
            for (std::size_t f = 0; f < input.size(); ++f) {
                cv::Mat_<short> src(21, 29), dst;
                std::copy(input[f].begin(), input[f].end(), src.begin());
                filter.process(src, dst);
                model.ProcessFrame(input[f].data(), out.data());
                ASSERT_TRUE(krotest::intFramesEqual(IntFrame(dst.begin(), dst.end()), out, 29))
                    << "frame " << f << ", gain " << gain << ", scene " << static_cast<int>(scene);
            }
        }
}

TEST(TnrCmod, MarkersReseedAndFeedbackAdaptsWithinItsBand)
{
    // Mode 2: unsigned values are seeded bit-flipped; a marker (-1: bits
    // 0xFFFF) passes and re-seeds from 0xFFC0 with the top bit flipped.
    int gain = 10, threshold = 15, factor = 60;
    TnrCmod unsignedModel(3, 1, gain, threshold, factor, 2, 0);
    IntFrame in = {100, 200, 300}, out(3);
    unsignedModel.ProcessFrame(in.data(), out.data());
    EXPECT_EQ(unsignedModel.accumulator()[0], (100 ^ 0x8000) * 4);
    in[2] = -1;
    unsignedModel.ProcessFrame(in.data(), in.data());  // in place
    EXPECT_EQ(in, (IntFrame{100, 200, -1}));
    EXPECT_EQ(unsignedModel.accumulator()[2], 0x7FC0 * 4);

    // Still frames (motion limit (1024 * 15) >> 12 = 3): the feedback climbs
    // by 1 per frame from its base (60 %: 1228) to base + 205; much motion
    // takes it down by 102 per frame to base - 205; threshold 100 pins it.
    TnrCmod model(32, 32, gain, threshold, factor, 0, 0);
    IntFrame still(1024, 500), moving(1024), frame(1024);
    for (int f = 0; f < 206; ++f) {
        model.ProcessFrame(still.data(), frame.data());
        ASSERT_EQ(model.feedback(), 1228 + std::min(f + 1, 205)) << "frame " << f;
    }
    // One pixel jumping by 500 (index 500): motion (500 >> 2) >> 2 = 31 is
    // quiet (31 >> 4 < 3) but not still: -20.
    moving = still;
    moving[77] += 500;
    model.ProcessFrame(moving.data(), frame.data());
    EXPECT_EQ(model.feedback(), 1228 + 205 - 20);
    for (int f = 0; f < 6; ++f) {
        for (std::size_t i = 0; i < moving.size(); ++i)
            moving[i] = (i + f) % 2 ? 500 : 4000;
        model.ProcessFrame(moving.data(), frame.data());
    }
    EXPECT_EQ(model.feedback(), 1228 - 205);
    threshold = 100;
    model.ProcessFrame(still.data(), frame.data());
    EXPECT_EQ(model.feedback(), 1228);
    EXPECT_EQ(model.GetGlobalOff(), 1);
    EXPECT_THROW(model.ProcessFrame(frame.data(), nullptr), velmor::kro::Exception);
    EXPECT_THROW(TnrCmod(5, 0, gain, threshold, factor, 0, 0), velmor::kro::Exception);
}

} // namespace
