#include "TemporalNoiseReduction.h"

#include <algorithm>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "Exception.h"
#include "IntegerModel.h"
#include "TestImages.h"

namespace {

using velmor::kro::TemporalNoiseReduction;
using krotest::floorShift;
using krotest::wrap32;

// The filter as its definition reads, one pixel after the other in 64-bit
// integers with explicit 32-bit wrapping.
class TnrModel {
public:
    TnrModel(std::int64_t gain, std::int64_t threshold, std::int64_t factor, bool hwUnits)
        : threshold_(threshold), cgain_(hwUnits ? gain : wrap32(gain * 16) / 10),
          alpha0_(hwUnits ? factor : wrap32(factor * 2048) / 100)
    {
    }

    cv::Mat_<short> process(const cv::Mat_<short>& src)
    {
        if (size_ != src.size()) {  // the first frame, or a new size, seeds the accumulator
            size_ = src.size();
            accu_.clear();
            for (short s : src)
                accu_.push_back((s + 32768) * 4);
            alpha_ = alpha0_;
        }
        cv::Mat_<short> dst(src.rows, src.cols);
        std::int64_t sum = 0;
        for (int r = 0; r < src.rows; ++r)
            for (int c = 0; c < src.cols; ++c) {
                const std::int64_t s = src(r, c), u4 = 4 * (s + 32768);
                std::int64_t& a = accu_[static_cast<std::size_t>(r) * src.cols + c];
                const std::int64_t diff = a - u4, ad = krotest::absolute(diff);
                const std::int64_t idx = floorShift(wrap32(ad * cgain_), 6);
                const std::int64_t w = (idx >= 0 && idx < 1024) ? TemporalNoiseReduction::mAlphaTab[idx] : 0;
                sum += idx > 50 ? idx : 0;
                const std::int64_t next = u4 + floorShift(wrap32(floorShift(wrap32(alpha_ * w), 11) * diff), 15);
                dst(r, c) = static_cast<short>(ad > 131071 ? s : krotest::wrap16(floorShift(next + 2, 2) - 32768));
                a = ad > 131071 ? u4 : next;
            }
        motion_ = wrap32(floorShift(floorShift(sum, 2) + 3 * motion_, 2));
        const std::int64_t limit = floorShift(wrap32(static_cast<std::int64_t>(src.total()) * threshold_), 12);
        const bool quiet = floorShift(motion_, 4) < limit, still = motion_ < limit;
        if (threshold_ == 100)
            alpha_ = alpha0_;
        else if (quiet)
            alpha_ += alpha_ < alpha0_ ? 4 : (still ? 1 : -20);
        else
            alpha_ -= 102;
        alpha_ = std::max(alpha_, std::max<std::int64_t>(wrap32(alpha0_ - 205), 0));
        alpha_ = std::min(alpha_, std::min<std::int64_t>(wrap32(alpha0_ + 205), 2047));
        return dst;
    }

private:
    std::int64_t threshold_, cgain_, alpha0_, alpha_ = 0, motion_ = 0;
    cv::Size size_;
    std::vector<std::int64_t> accu_;
};

enum class Scene { Noisy, Moving, Jumps, Extremes };

// A static scene with small noise, a scene sliding by one column per frame,
// uniformly random full-range frames, or frames built from the extreme
// values (saturation, half-range jumps).
std::vector<cv::Mat_<short>> makeSequence(Scene scene, int rows, int cols, int frames, std::uint64_t seed)
{
    std::mt19937_64 rng(seed);
    std::uniform_int_distribution<int> level(-20000, 20000);
    cv::Mat_<short> base(rows, cols);
    for (auto& v : base)
        v = static_cast<short>(level(rng));
    const short extremes[] = {-32768, 32767, 0, -16385, 16384, -1, 32766, -32767};
    std::vector<cv::Mat_<short>> out;
    for (int f = 0; f < frames; ++f) {
        cv::Mat_<short> frame(rows, cols);
        for (int r = 0; r < rows; ++r)
            for (int c = 0; c < cols; ++c) {
                const int v = scene == Scene::Noisy    ? base(r, c) + static_cast<int>(rng() % 41) - 20
                              : scene == Scene::Moving ? (((c + f) / 3 + r / 2) % 2 ? 12000 : -9000) +
                                                             static_cast<int>(rng() % 301) - 150
                              : scene == Scene::Jumps  ? static_cast<int>(rng() % 65536) - 32768
                                                       : extremes[rng() % 8];
                frame(r, c) = static_cast<short>(std::min(32767, std::max(-32768, v)));
            }
        out.push_back(frame);
    }
    return out;
}

struct Config {
    int gain, threshold, factor;
    bool hwUnits;
};

// Filter and model side by side over a sequence; names the first frame that differs.
::testing::AssertionResult matchesModel(TemporalNoiseReduction& filter, TnrModel& model,
                                        const std::vector<cv::Mat_<short>>& input)
{
    cv::Mat_<short> out;
    for (std::size_t f = 0; f < input.size(); ++f) {
        filter.process(input[f], out);
        ::testing::AssertionResult same = krotest::imagesEqual(model.process(input[f]), out);
        if (!same)
            return same << " in frame " << f;
    }
    return ::testing::AssertionSuccess();
}

// Parameters in range, at their bounds and (through the unchecked
// constructor) far outside them, where the conversions wrap. One filter per
// parameter set sees every size in turn: the first frame, and the first one
// after a change of size, seed the accumulator and come out unchanged.
TEST(TemporalNoiseReduction, MatchesScalarModelOverSizesParametersAndScenes)
{
    const Config configs[] = {
        {10, 15, 60, false},  {0, 15, 60, false},     {0, 100, 100, false}, {0, 0, 100, false},
        {1, 0, 0, false},     {10, 100, 100, false},  {10, 99, 100, false}, {5, 50, 30, false},
        {16, 15, 1228, true}, {0, 100, 2048, true},   {-3, 15, 60, true},   {1000000, 15, 100000, true},
        {-7, -20, -50, false}, {10, 101, 200, false}, {7, 1, 100, false},
    };
    std::uint64_t seed = 1;
    for (const Config& k : configs) {
        TemporalNoiseReduction filter(k.gain, k.threshold, k.factor, k.hwUnits);
        TnrModel model(k.gain, k.threshold, k.factor, k.hwUnits);
        for (const cv::Size size : {cv::Size(1, 1), cv::Size(9, 1), cv::Size(1, 9), cv::Size(13, 7), cv::Size(160, 120)})
            for (Scene scene : {Scene::Noisy, Scene::Moving, Scene::Jumps, Scene::Extremes})
                ASSERT_TRUE(matchesModel(filter, model, makeSequence(scene, size.height, size.width, size.area() > 1000 ? 6 : 14, seed++)))
                    << "gain " << k.gain << ", threshold " << k.threshold << ", factor " << k.factor
                    << (k.hwUnits ? " (hw units), " : ", ") << size << ", scene " << static_cast<int>(scene);
    }

    // Many still frames, so that the feedback climbs to the top of its band,
    // then a burst of motion drives it down again.
    auto input = makeSequence(Scene::Noisy, 24, 31, 300, 99);
    const auto moving = makeSequence(Scene::Moving, 24, 31, 20, 100);
    input.insert(input.begin() + 250, moving.begin(), moving.end());
    for (const Config& k : {Config{10, 15, 60, false}, Config{4, 3, 95, false}}) {
        TemporalNoiseReduction filter(k.gain, k.threshold, k.factor, k.hwUnits);
        TnrModel model(k.gain, k.threshold, k.factor, k.hwUnits);
        EXPECT_TRUE(matchesModel(filter, model, input)) << "gain " << k.gain;
    }
}

TEST(TemporalNoiseReduction, SameBytesWhateverTheThreadCountAndInPlace)
{
    const auto input = makeSequence(Scene::Moving, 121, 163, 8, 5);
    const int counts[3] = {1, 2, 7};
    TemporalNoiseReduction filters[4] = {{10, 15, 60, false}, {10, 15, 60, false}, {10, 15, 60, false},
                                         {10, 15, 60, false}};
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(filters[i].setThreads(counts[i]));
    EXPECT_FALSE(filters[3].setThreads(-1));
    for (const auto& frame : input) {
        cv::Mat_<short> out[3], inPlace = frame.clone();
        for (int i = 0; i < 3; ++i) {
            filters[i].process(frame, out[i]);
            EXPECT_EQ(filters[i].getLastThreadCount(), counts[i]);
        }
        filters[3].process(inPlace, inPlace);
        EXPECT_IMAGES_EQUAL(out[0], out[1]);
        EXPECT_IMAGES_EQUAL(out[0], out[2]);
        EXPECT_IMAGES_EQUAL(out[0], inPlace);
    }
}

TEST(TemporalNoiseReduction, HandWorkedSinglePixelSequences)
{
    struct Case {
        int gain, threshold;
        std::vector<short> samples;
        short last;
    };
    const Case cases[] = {
        // Accumulator 0 against a sample of 32767: |diff| = 262140 > 131071
        // resets the pixel to the sample, and a repeat stays there.
        {10, 15, {-32768, 32767}, 32767},
        {10, 15, {-32768, 32767, 32767}, 32767},
        // Gain 0, adaptation off: alpha 2047 (2048 clamped), full weight
        // 32768, so 32752 * (131072 - 211072) = -2620160000 wraps to
        // 1674807296; >> 15 gives 51111, accumulator 211072 + 51111 = 262183,
        // output ((262183 + 2) >> 2) - 32768 = 32778, stored as -32758.
        {0, 100, {0, 20000}, -32758},
        // Gain 10 (16 in hardware units): |diff| = 40 gives index 10 and full
        // weight; delta = (32752 * -40) >> 15 = -40 (floor of -39.98), so the
        // accumulator stays 131072 and the old value 0 is kept.
        {10, 100, {0, 10}, 0},
    };
    for (const Case& k : cases) {
        TemporalNoiseReduction filter(k.gain, k.threshold, 100, false);
        cv::Mat_<short> out;
        for (short s : k.samples)
            filter.process(cv::Mat_<short>(1, 1, s), out);
        EXPECT_EQ(k.last, out(0, 0)) << "gain " << k.gain << ", " << k.samples.size() << " samples";
    }
}

TEST(TemporalNoiseReduction, ChangesAtIndexFiftyDoNotCountAsMotion)
{
    // Gain 1 in hardware units: a jump of 800 gives |diff| 3200, index
    // exactly 50. Over 64 pixels with threshold 64 (limit 1) the scene stays
    // still and the feedback rises; counting index 50 as motion would lower
    // it by 102 and change the next frame.
    std::vector<cv::Mat_<short>> frames;
    for (short v : {0, 800, -116, 700})
        frames.emplace_back(8, 8, v);
    TemporalNoiseReduction filter(1, 64, 1228, true);
    TnrModel model(1, 64, 1228, true);
    EXPECT_TRUE(matchesModel(filter, model, frames));
}

TEST(TemporalNoiseReduction, UnitConversionsAndRefusedParameters)
{
    const int expectedGain[] = {0, 1, 3, 4, 6, 8, 9, 11, 12, 14, 16};
    for (int g = 0; g <= 10; ++g)
        EXPECT_EQ(TemporalNoiseReduction(g, 15, 60, false).getCGainHw(), expectedGain[g]);
    EXPECT_EQ(TemporalNoiseReduction(10, 15, 60, false).getAlphaHw(), 1228);
    EXPECT_EQ(TemporalNoiseReduction(7, 100, 60, true).getGlobalOff(), 1);
    EXPECT_EQ(TemporalNoiseReduction(7, 99, 60, true).getGlobalOff(), 0);

    TemporalNoiseReduction reference(4, 20, 70, false), probed(4, 20, 70, false);
    for (int bad : {-1, 11})
        EXPECT_FALSE(probed.setControlGain(bad));
    for (int bad : {-1, 101}) {
        EXPECT_FALSE(probed.setFeedbackFactor(bad));
        EXPECT_FALSE(probed.setGlobalThreshold(bad));
    }
    cv::Mat_<short> a, b;
    for (const auto& frame : makeSequence(Scene::Moving, 11, 13, 6, 8)) {
        reference.process(frame, a);
        probed.process(frame, b);
        EXPECT_IMAGES_EQUAL(a, b);
    }
    // Accepted values at the bounds.
    EXPECT_TRUE(probed.setControlGain(0));
    EXPECT_TRUE(probed.setFeedbackFactor(100));
    EXPECT_TRUE(probed.setGlobalThreshold(0));
    EXPECT_TRUE(probed.setControlGain(10));
    EXPECT_EQ(probed.getCGainHw(), 16);
    EXPECT_THROW(probed.process(cv::Mat_<short>(), a), velmor::kro::Exception);
}

TEST(TemporalNoiseReductionAlphaTable, GivenRowsAreExactAndTheLawHoldsBetweenThem)
{
    const auto& t = TemporalNoiseReduction::mAlphaTab;
    const int steep[35] = {31457, 30474, 29818, 28835, 28180, 27197, 26214, 25559, 24576,
                           23592, 22937, 21954, 21299, 20316, 19660, 18677, 18022, 17367,
                           16384, 15728, 15073, 14417, 13762, 13107, 12451, 11796, 11468,
                           10813, 10485, 10158, 9830,  9502,  9175,  9175,  8847};
    for (int i = 0; i <= 49; ++i)
        EXPECT_EQ(t[i], i <= 14 ? 32768 : steep[i - 15]) << "index " << i;
    const std::pair<int, int> samples[] = {
        {50, 7862}, {64, 6143},  {100, 3931}, {128, 3071}, {200, 1965}, {256, 1535}, {300, 1310},
        {400, 983}, {512, 767},  {600, 655},  {700, 561},  {800, 491},  {896, 438},  {897, 434},
        {904, 406}, {920, 346},  {952, 232},  {984, 124},  {1000, 73}};
    for (const auto& [index, value] : samples)
        EXPECT_EQ(t[index], value) << "index " << index;
    for (int i = 1006; i <= 1023; ++i)
        EXPECT_EQ(t[i], 54 - 3 * (i - 1006)) << "index " << i;
    // Between the given rows: never rising, and the hyperbola a little (at
    // most 3) below 393216 / index.
    for (int i = 1; i < 1024; ++i) {
        EXPECT_LE(t[i], t[i - 1]) << "index " << i;
        EXPECT_TRUE(i < 50 || i > 896 || (t[i] <= 393216 / i && t[i] >= 393216 / i - 3)) << "index " << i;
    }
}

} // namespace
