#include "TemporalNoiseReduction.h"

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Exception.h"
#include "IntegerModel.h"
#include "TestImages.h"

namespace {

using velmor::kro::TemporalNoiseReduction;
using krotest::absolute;
using krotest::floorShift;
using krotest::wrap16;
using krotest::wrap32;

// The filter as its definition reads, one pixel after the other in 64-bit
// integers with explicit 32-bit wrapping.
class TnrModel {
public:
    TnrModel(std::int64_t gain, std::int64_t threshold, std::int64_t factor, bool hwUnits)
        : gain_(gain), threshold_(threshold), factor_(factor), hwUnits_(hwUnits)
    {
    }

    cv::Mat_<short> process(const cv::Mat_<short>& src)
    {
        const std::int64_t cgain = hwUnits_ ? gain_ : wrap32(gain_ * 16) / 10;
        const std::int64_t alpha0 = hwUnits_ ? factor_ : wrap32(factor_ * 2048) / 100;
        const std::size_t n = static_cast<std::size_t>(src.rows) * src.cols;
        if (first_ || rows_ != src.rows || cols_ != src.cols) {
            rows_ = src.rows;
            cols_ = src.cols;
            accu_.assign(n, 0);
            for (int r = 0; r < src.rows; ++r)
                for (int c = 0; c < src.cols; ++c)
                    accu_[r * cols_ + c] = (src(r, c) + 32768) * 4;
            alpha_ = alpha0;
            first_ = false;
        }
        cv::Mat_<short> dst(src.rows, src.cols);
        std::int64_t sum = 0;
        for (int r = 0; r < src.rows; ++r) {
            for (int c = 0; c < src.cols; ++c) {
                const std::int64_t s = src(r, c);
                const std::int64_t u4 = 4 * (s + 32768);
                std::int64_t& a = accu_[r * cols_ + c];
                const std::int64_t diff = a - u4;
                const std::int64_t ad = absolute(diff);
                const std::int64_t idx = floorShift(wrap32(ad * cgain), 6);
                const std::int64_t w = (idx >= 0 && idx < 1024) ? TemporalNoiseReduction::mAlphaTab[idx] : 0;
                if (idx > 50)
                    sum += idx;
                const std::int64_t scaled = floorShift(wrap32(alpha_ * w), 11);
                const std::int64_t delta = floorShift(wrap32(scaled * diff), 15);
                if (ad > 131071) {
                    dst(r, c) = static_cast<short>(s);
                    a = u4;
                } else {
                    const std::int64_t next = u4 + delta;
                    dst(r, c) = static_cast<short>(wrap16(floorShift(next + 2, 2) - 32768));
                    a = next;
                }
            }
        }
        motion_ = wrap32(floorShift(floorShift(sum, 2) + 3 * motion_, 2));
        const std::int64_t limit = floorShift(wrap32(static_cast<std::int64_t>(n) * threshold_), 12);
        const bool quiet = floorShift(motion_, 4) < limit;
        const bool still = motion_ < limit;
        if (threshold_ == 100)
            alpha_ = alpha0;
        else if (quiet && still)
            alpha_ += alpha_ >= alpha0 ? 1 : 4;
        else if (quiet)
            alpha_ += alpha_ >= alpha0 ? -20 : 4;
        else
            alpha_ -= 102;
        alpha_ = std::max(alpha_, std::max<std::int64_t>(wrap32(alpha0 - 205), 0));
        alpha_ = std::min(alpha_, std::min<std::int64_t>(wrap32(alpha0 + 205), 2047));
        return dst;
    }

private:
    std::int64_t gain_, threshold_, factor_;
    bool hwUnits_;
    std::int64_t alpha_ = 0, motion_ = 0;
    bool first_ = true;
    int rows_ = -1, cols_ = -1;
    std::vector<std::int64_t> accu_;
};

enum class Scene { Noisy, Moving, Jumps, Extremes };

// A sequence of frames: a static scene with small noise, a scene sliding by
// one column per frame, uniformly random full-range frames, or frames built
// from the extreme values (saturation, half-range jumps).
std::vector<cv::Mat_<short>> makeSequence(Scene scene, int rows, int cols, int frames,
                                          std::uint64_t seed)
{
    std::mt19937_64 rng(seed);
    std::vector<cv::Mat_<short>> out;
    cv::Mat_<short> base(rows, cols);
    std::uniform_int_distribution<int> level(-20000, 20000);
    for (auto& v : base)
        v = static_cast<short>(level(rng));
    const short extremes[] = {-32768, 32767, 0, -16385, 16384, -1, 32766, -32767};
    for (int f = 0; f < frames; ++f) {
        cv::Mat_<short> frame(rows, cols);
        for (int r = 0; r < rows; ++r) {
            for (int c = 0; c < cols; ++c) {
                int v = 0;
                switch (scene) {
                case Scene::Noisy:
                    v = base(r, c) + static_cast<int>(rng() % 41) - 20;
                    break;
                case Scene::Moving:
                    v = ((c + f) / 3 + r / 2) % 2 ? 12000 : -9000;
                    v += static_cast<int>(rng() % 301) - 150;
                    break;
                case Scene::Jumps:
                    v = static_cast<int>(rng() % 65536) - 32768;
                    break;
                case Scene::Extremes:
                    v = extremes[rng() % 8];
                    break;
                }
                frame(r, c) = static_cast<short>(std::min(32767, std::max(-32768, v)));
            }
        }
        out.push_back(frame);
    }
    return out;
}

struct Config {
    int gain, threshold, factor;
    bool hwUnits;
};

std::string describe(const Config& c, int rows, int cols, Scene scene)
{
    return "gain " + std::to_string(c.gain) + ", threshold " + std::to_string(c.threshold) +
           ", factor " + std::to_string(c.factor) + (c.hwUnits ? " (hw units)" : "") + ", " +
           std::to_string(cols) + "x" + std::to_string(rows) + ", scene " +
           std::to_string(static_cast<int>(scene));
}

TEST(TemporalNoiseReduction, MatchesScalarModelOverSizesParametersAndScenes)
{
    const Config configs[] = {
        {10, 15, 60, false},  {0, 15, 60, false},     {0, 100, 100, false}, {0, 0, 100, false},
        {1, 0, 0, false},     {10, 100, 100, false},  {10, 99, 100, false}, {5, 50, 30, false},
        {16, 15, 1228, true}, {0, 100, 2048, true},   {-3, 15, 60, true},   {1000000, 15, 100000, true},
        {-7, -20, -50, false}, {10, 101, 200, false}, {7, 1, 100, false},
    };
    const cv::Size sizes[] = {{1, 1}, {9, 1}, {1, 9}, {13, 7}, {160, 120}};
    const Scene scenes[] = {Scene::Noisy, Scene::Moving, Scene::Jumps, Scene::Extremes};
    std::uint64_t seed = 1;
    for (const Config& config : configs) {
        for (const cv::Size& size : sizes) {
            for (Scene scene : scenes) {
                const int frames = size.area() > 1000 ? 6 : 14;
                const auto input = makeSequence(scene, size.height, size.width, frames, seed++);
                TemporalNoiseReduction filter(config.gain, config.threshold, config.factor, config.hwUnits);
                TnrModel model(config.gain, config.threshold, config.factor, config.hwUnits);
                cv::Mat_<short> out;
                for (int f = 0; f < frames; ++f) {
                    filter.process(input[f], out);
                    ASSERT_TRUE(krotest::imagesEqual(model.process(input[f]), out))
                        << describe(config, size.height, size.width, scene) << ", frame " << f;
                }
            }
        }
    }
}

TEST(TemporalNoiseReduction, LongStillSequenceFollowsModelThroughFeedbackAdaptation)
{
    // Many frames so that the feedback climbs to the top of its band and a
    // burst of motion then drives it down again.
    auto input = makeSequence(Scene::Noisy, 24, 31, 300, 99);
    const auto moving = makeSequence(Scene::Moving, 24, 31, 20, 100);
    input.insert(input.begin() + 250, moving.begin(), moving.end());
    for (const Config& config : {Config{10, 15, 60, false}, Config{4, 3, 95, false}}) {
        TemporalNoiseReduction filter(config.gain, config.threshold, config.factor, config.hwUnits);
        TnrModel model(config.gain, config.threshold, config.factor, config.hwUnits);
        cv::Mat_<short> out;
        for (std::size_t f = 0; f < input.size(); ++f) {
            filter.process(input[f], out);
            ASSERT_TRUE(krotest::imagesEqual(model.process(input[f]), out)) << "frame " << f;
        }
    }
}

TEST(TemporalNoiseReduction, SameBytesWithOneAndTwoThreads)
{
    const auto input = makeSequence(Scene::Moving, 121, 163, 8, 5);
    std::vector<cv::Mat_<short>> results[2];
    for (int threads : {1, 2}) {
        krotest::ThreadCount count(threads);
        TemporalNoiseReduction filter(10, 15, 60, false);
        for (const auto& frame : input) {
            cv::Mat_<short> out;
            filter.process(frame, out);
            results[threads - 1].push_back(out);
        }
    }
    for (std::size_t f = 0; f < input.size(); ++f)
        EXPECT_IMAGES_EQUAL(results[0][f], results[1][f]) << "frame " << f;
}

TEST(TemporalNoiseReduction, FirstFrameAndFrameAfterSizeChangeAreUnchanged)
{
    TemporalNoiseReduction filter(10, 15, 60, false);
    const cv::Mat_<short> first = krotest::randomImage(17, 23, CV_16S, -32768, 32768, 3);
    cv::Mat_<short> out;
    filter.process(first, out);
    EXPECT_IMAGES_EQUAL(first, out);
    const cv::Mat_<short> second = krotest::randomImage(17, 23, CV_16S, -32768, 32768, 4);
    filter.process(second, out);
    EXPECT_FALSE(krotest::imagesEqual(second, out)) << "the second frame should be filtered";
    const cv::Mat_<short> resized = krotest::randomImage(9, 5, CV_16S, -32768, 32768, 5);
    filter.process(resized, out);
    EXPECT_IMAGES_EQUAL(resized, out);
}

TEST(TemporalNoiseReduction, ConstantSequenceIsUnchanged)
{
    for (short level : {short(-32768), short(-5), short(32767)}) {
        TemporalNoiseReduction filter(10, 15, 100, false);
        const cv::Mat_<short> frame(6, 8, level);
        cv::Mat_<short> out;
        for (int f = 0; f < 5; ++f) {
            filter.process(frame, out);
            EXPECT_IMAGES_EQUAL(frame, out) << "level " << level << ", frame " << f;
        }
    }
}

TEST(TemporalNoiseReduction, HalfRangeJumpResetsThePixel)
{
    // Accumulator 0 against a sample of 32767: |diff| = 262140 > 131071.
    TemporalNoiseReduction filter(10, 15, 100, false);
    cv::Mat_<short> out;
    filter.process(cv::Mat_<short>(1, 1, short(-32768)), out);
    filter.process(cv::Mat_<short>(1, 1, short(32767)), out);
    EXPECT_EQ(out(0, 0), 32767);
    // The accumulator restarted at the new sample: a repeat is unchanged.
    filter.process(cv::Mat_<short>(1, 1, short(32767)), out);
    EXPECT_EQ(out(0, 0), 32767);
}

TEST(TemporalNoiseReduction, GainZeroProductWrapsInTwosComplement)
{
    // Gain 0, feedback 100 %, adaptation off: the second frame is filtered
    // with alpha 2047 (2048 clamped) and full weight 32768, so the product
    // 32752 * (131072 - 211072) = -2620160000 wraps to 1674807296;
    // >> 15 gives 51111, accumulator 211072 + 51111 = 262183,
    // output ((262183 + 2) >> 2) - 32768 = 32778, stored as -32758.
    TemporalNoiseReduction filter(0, 100, 100, false);
    cv::Mat_<short> out;
    filter.process(cv::Mat_<short>(1, 1, short(0)), out);
    EXPECT_EQ(out(0, 0), 0);
    filter.process(cv::Mat_<short>(1, 1, short(20000)), out);
    EXPECT_EQ(out(0, 0), -32758);
}

TEST(TemporalNoiseReduction, SmallChangeIsAveragedWithFullFeedback)
{
    // Gain 10 (16 in hardware units): |diff| = |131072 - 131112| = 40 gives
    // index 10 and full weight. Feedback 100 % with adaptation off: the second
    // frame is filtered with alpha 2047, so delta = (32752 * -40) >> 15 = -40
    // (floor of -39.98), accumulator 131072 and output 0: the old value kept.
    TemporalNoiseReduction filter(10, 100, 100, false);
    cv::Mat_<short> out;
    filter.process(cv::Mat_<short>(1, 1, short(0)), out);
    filter.process(cv::Mat_<short>(1, 1, short(10)), out);
    EXPECT_EQ(out(0, 0), 0);
}

TEST(TemporalNoiseReduction, UnitConversions)
{
    const int expectedGain[] = {0, 1, 3, 4, 6, 8, 9, 11, 12, 14, 16};
    for (int g = 0; g <= 10; ++g)
        EXPECT_EQ(TemporalNoiseReduction(g, 15, 60, false).getCGainHw(), expectedGain[g]);
    EXPECT_EQ(TemporalNoiseReduction(10, 15, 100, false).getAlphaHw(), 2048);
    EXPECT_EQ(TemporalNoiseReduction(10, 15, 60, false).getAlphaHw(), 1228);
    EXPECT_EQ(TemporalNoiseReduction(7, 15, 60, true).getCGainHw(), 7);
    EXPECT_EQ(TemporalNoiseReduction(7, 15, 60, true).getAlphaHw(), 60);
    EXPECT_EQ(TemporalNoiseReduction(7, 100, 60, true).getGlobalOff(), 1);
    EXPECT_EQ(TemporalNoiseReduction(7, 99, 60, true).getGlobalOff(), 0);
}

TEST(TemporalNoiseReduction, RefusedSetterLeavesFilterUnchanged)
{
    const auto input = makeSequence(Scene::Moving, 11, 13, 6, 8);
    TemporalNoiseReduction reference(4, 20, 70, false);
    TemporalNoiseReduction probed(4, 20, 70, false);
    EXPECT_FALSE(probed.setControlGain(11));
    EXPECT_FALSE(probed.setControlGain(-1));
    EXPECT_FALSE(probed.setFeedbackFactor(101));
    EXPECT_FALSE(probed.setFeedbackFactor(-1));
    EXPECT_FALSE(probed.setGlobalThreshold(101));
    EXPECT_FALSE(probed.setGlobalThreshold(-1));
    cv::Mat_<short> a, b;
    for (const auto& frame : input) {
        reference.process(frame, a);
        probed.process(frame, b);
        EXPECT_IMAGES_EQUAL(a, b);
    }
    // Accepted values at the bounds take effect on the next frame.
    EXPECT_TRUE(probed.setControlGain(0));
    EXPECT_TRUE(probed.setFeedbackFactor(100));
    EXPECT_TRUE(probed.setGlobalThreshold(0));
    EXPECT_TRUE(probed.setControlGain(10));
    EXPECT_EQ(probed.getCGainHw(), 16);
}

TEST(TemporalNoiseReduction, InPlaceFilteringMatchesSeparateOutput)
{
    const auto input = makeSequence(Scene::Noisy, 20, 30, 4, 12);
    TemporalNoiseReduction a(10, 15, 60, false), b(10, 15, 60, false);
    for (const auto& frame : input) {
        cv::Mat_<short> separate, inPlace = frame.clone();
        a.process(frame, separate);
        b.process(inPlace, inPlace);
        EXPECT_IMAGES_EQUAL(separate, inPlace);
    }
}

TEST(TemporalNoiseReduction, EmptyFrameIsRefused)
{
    TemporalNoiseReduction filter(10, 15, 60, false);
    cv::Mat_<short> out;
    EXPECT_THROW(filter.process(cv::Mat_<short>(), out), velmor::kro::Exception);
}

TEST(TemporalNoiseReductionAlphaTable, GivenRowsAreExact)
{
    const auto& t = TemporalNoiseReduction::mAlphaTab;
    for (int i = 0; i <= 14; ++i)
        EXPECT_EQ(t[i], 32768) << "index " << i;
    const int steep[35] = {31457, 30474, 29818, 28835, 28180, 27197, 26214, 25559, 24576,
                           23592, 22937, 21954, 21299, 20316, 19660, 18677, 18022, 17367,
                           16384, 15728, 15073, 14417, 13762, 13107, 12451, 11796, 11468,
                           10813, 10485, 10158, 9830,  9502,  9175,  9175,  8847};
    for (int i = 15; i <= 49; ++i)
        EXPECT_EQ(t[i], steep[i - 15]) << "index " << i;
    const std::pair<int, int> samples[] = {
        {50, 7862}, {64, 6143},  {100, 3931}, {128, 3071}, {200, 1965}, {256, 1535}, {300, 1310},
        {400, 983}, {512, 767},  {600, 655},  {700, 561},  {800, 491},  {896, 438},  {897, 434},
        {904, 406}, {920, 346},  {952, 232},  {984, 124},  {1000, 73}};
    for (const auto& [index, value] : samples)
        EXPECT_EQ(t[index], value) << "index " << index;
    for (int i = 1006; i <= 1023; ++i)
        EXPECT_EQ(t[i], 54 - 3 * (i - 1006)) << "index " << i;
}

TEST(TemporalNoiseReductionAlphaTable, FollowsItsLawBetweenTheGivenRows)
{
    const auto& t = TemporalNoiseReduction::mAlphaTab;
    for (int i = 1; i < 1024; ++i)
        EXPECT_LE(t[i], t[i - 1]) << "index " << i;
    // Hyperbolic part: a little below 393216 / index (at most 3 below).
    for (int i = 50; i <= 896; ++i) {
        EXPECT_LE(t[i], 393216 / i) << "index " << i;
        EXPECT_GE(t[i], 393216 / i - 3) << "index " << i;
    }
    // Fade: between 3 and 4.1 less per step on average over any 8 steps.
    for (int i = 897; i + 8 <= 1006; ++i) {
        const int fall = t[i] - t[i + 8];
        EXPECT_GE(fall, 3 * 8) << "index " << i;
        EXPECT_LE(fall, 33) << "index " << i;
    }
    EXPECT_GT(t[1023], 0);
}

} // namespace
