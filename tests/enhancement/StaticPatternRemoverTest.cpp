#include "StaticPatternRemover.h"

#include <algorithm>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "Exception.h"
#include "IntegerModel.h"
#include "TestImages.h"

namespace {

using velmor::kro::StaticPatternRemover;
using krotest::absolute;
using krotest::floorShift;

std::int64_t div9LessAccurateModel(std::int64_t x) { return floorShift(x - floorShift(x - 25, 3), 3); }
std::int64_t correctionModel(std::int64_t v, int shift) { return floorShift(v, shift) + (v < 0 ? 1 : 0); }

// v bounded to the limit in units of 2^shift, then leaked toward zero.
std::int64_t boundAndLeak(std::int64_t v, std::int64_t limit, int shift, std::int64_t leak, std::int64_t keep)
{
    const std::int64_t unit = std::int64_t(1) << shift;
    if (floorShift(v, shift) >= limit)
        v = limit * unit;
    else if (floorShift(v, shift) <= -limit - 1)
        v = (-limit - 1) * unit + unit - 1;
    return v > keep ? v - leak : (v < 0 ? v + leak : v);
}

// Sum of the eight samples around the centre v[4], and the spread
// max(|min - mean8|, |max - mean8|) of all nine.
void spread(const std::int64_t (&v)[9], std::int64_t& sum8, std::int64_t& range)
{
    const std::int64_t low = *std::min_element(v, v + 9), high = *std::max_element(v, v + 9);
    sum8 = 0;
    for (int i = 0; i < 9; ++i)
        sum8 += i == 4 ? 0 : v[i];
    const std::int64_t mean = floorShift(sum8, 3);
    range = std::max(absolute(low - mean), absolute(high - mean));
}

// The remover as a single left-to-right, top-to-bottom scan that updates the
// line pattern in place, pixel after pixel.
class SprModel {
public:
    SprModel(int threshold, int lineLimit, int frameLimit) : lineLimit_(lineLimit), frameLimit_(frameLimit)
    {
        setThreshold(threshold);
    }

    void setThreshold(int threshold)
    {
        threshold_ = threshold;
        threshold07_ = static_cast<int>(static_cast<float>(threshold) * 0.7f);
    }

    cv::Mat_<short> process(const cv::Mat_<short>& src)
    {
        if (line_.cols != src.cols || frame_.size() != src.size()) {
            line_ = cv::Mat_<int>::zeros(1, src.cols);
            frame_ = cv::Mat_<int>::zeros(src.rows, src.cols);
        }
        const auto u = [&](int r, int c) {
            return std::int64_t(src(std::min(std::max(r, 0), src.rows - 1), std::min(std::max(c, 0), src.cols - 1))) + 32768;
        };
        cv::Mat_<short> dst(src.rows, src.cols);
        for (int r = 0; r < src.rows; ++r)
            for (int c = 0; c < src.cols; ++c) {
                const std::int64_t s = src(r, c), f = frame_(r, c), fc = correctionModel(f, 5);
                std::int64_t block[9], run[9], lcs[9], r3, s3, r9, s9, around = 0;
                for (int i = 0; i < 9; ++i) {
                    block[i] = u(r + i / 3 - 1, c + i % 3 - 1);
                    run[i] = u(r, c + i - 4);
                    lcs[i] = correctionModel(line_(0, std::min(std::max(c + i - 4, 0), src.cols - 1)), 10);
                    around += i == 4 ? 0 : lcs[i];
                }
                dst(r, c) = s == 32767 ? short(32767)
                                       : static_cast<short>(krotest::wrap16(s - div9LessAccurateModel(fc) -
                                                                            div9LessAccurateModel(lcs[4])));
                spread(block, s3, r3);
                spread(run, s9, r9);
                std::int64_t newF = f;
                if (r3 < threshold_ || r9 < threshold_) {
                    const std::int64_t e3 = s3 - div9LessAccurateModel(3 * (lcs[5] - 2 * lcs[4] + lcs[3]));
                    const std::int64_t e9 = s9 - div9LessAccurateModel(around - 8 * lcs[4]);
                    const std::int64_t e = absolute(r9 - r3) < floorShift(threshold_, 2) ? floorShift(e3 + e9, 1)
                                                                                          : (r3 > r9 ? e9 : e3);
                    newF += 8 * run[4] - fc - e;
                }
                frame_(r, c) = static_cast<int>(boundAndLeak(newF, frameLimit_, 8, 1, 0));
                std::int64_t l = line_(0, c);
                if (r3 < threshold07_ || r9 < threshold_) {
                    const bool blockFlatter = r3 < r9 - floorShift(r9, 4) - floorShift(r9, 2);
                    l += 8 * run[4] - lcs[4] - (blockFlatter ? s3 : s9);
                }
                line_(0, c) = static_cast<int>(boundAndLeak(l, lineLimit_, 13, 4, 3));
            }
        return dst;
    }

    ::testing::AssertionResult patternsEqual(const StaticPatternRemover& filter) const
    {
        ::testing::AssertionResult line = krotest::imagesEqual(line_, filter.linePattern());
        return line ? krotest::imagesEqual(frame_, filter.framePattern()) : line;
    }

private:
    int threshold_ = 0, threshold07_ = 0, lineLimit_, frameLimit_;
    cv::Mat_<int> line_, frame_;
};

enum class Scene { Pattern, Random, Saturated, Markers };

// Frames of a flat scene with a fixed column offset (amplitude `columns`),
// a fixed pixel offset (amplitude `pixels`) and fresh noise (+-2) in each
// frame; or random full-range frames; or frames of extreme values; or the
// flat scene with a share of saturated (32767) samples.
std::vector<cv::Mat_<short>> makeSequence(Scene scene, int rows, int cols, int frames, int columns,
                                          int pixels, std::uint64_t seed)
{
    std::mt19937_64 rng(seed);
    const auto offset = [&](int amplitude) {
        return amplitude == 0 ? 0 : static_cast<int>(rng() % (2 * amplitude + 1)) - amplitude;
    };
    std::vector<int> columnOffset(cols);
    for (int& v : columnOffset)
        v = offset(columns);
    cv::Mat_<int> pixelOffset(rows, cols);
    for (int& v : pixelOffset)
        v = offset(pixels);
    const int level = static_cast<int>(rng() % 40000) - 20000;
    const short extremes[] = {32767, 32766, -32768, -32767, 0, 32767};
    std::vector<cv::Mat_<short>> out(frames, cv::Mat_<short>(rows, cols));
    for (cv::Mat_<short>& frame : out) {
        frame = frame.clone();
        for (int r = 0; r < rows; ++r)
            for (int c = 0; c < cols; ++c) {
                const int v = level + columnOffset[c] + pixelOffset(r, c) + offset(2);
                frame(r, c) = static_cast<short>(
                    scene == Scene::Random      ? static_cast<int>(rng() % 65536) - 32768
                    : scene == Scene::Saturated ? extremes[rng() % 6]
                    : scene == Scene::Markers && rng() % 20 == 0 ? 32767 : v);
            }
    }
    return out;
}

// Filter and model side by side; names the first frame that differs.
::testing::AssertionResult matchesScan(StaticPatternRemover& filter, SprModel& model,
                                       const std::vector<cv::Mat_<short>>& input)
{
    cv::Mat_<short> out;
    for (std::size_t f = 0; f < input.size(); ++f) {
        filter.process(input[f], out);
        ::testing::AssertionResult same = krotest::imagesEqual(model.process(input[f]), out);
        if (!same)
            return same << " in frame " << f;
    }
    return model.patternsEqual(filter);
}

// Parameters at and between their bounds, 1xN and Nx1 borders, saturated
// samples. One filter per parameter set sees every size in turn: the
// patterns restart from zero at each change of size, so that frame passes
// unchanged. Then strong pixel offsets on a flat scene drive the frame
// pattern (about 8 * 90 per frame) into every limit.
TEST(StaticPatternRemover, MatchesLeftToRightScanOverSizesParametersAndScenes)
{
    struct Case {
        int threshold, lineLimit, frameLimit;
    };
    const Case cases[] = {{22, 12, 16}, {0, 12, 16},  {1, 0, 0},   {100, 31, 31}, {100, 0, 0},
                          {100, 1, 1},  {60, 31, 0},  {40, 0, 31}, {99, 5, 3}};
    std::uint64_t seed = 100;
    for (const Case& k : cases) {
        StaticPatternRemover filter(k.threshold, k.lineLimit, k.frameLimit);
        filter.setThreads(2);
        SprModel model(k.threshold, k.lineLimit, k.frameLimit);
        for (const cv::Size size : {cv::Size(1, 1), cv::Size(9, 1), cv::Size(1, 9), cv::Size(5, 3),
                                    cv::Size(13, 11), cv::Size(160, 120)})
            for (Scene scene : {Scene::Pattern, Scene::Random, Scene::Saturated, Scene::Markers}) {
                const int frames = size.area() > 1000 ? 5 : 40;
                const auto input = makeSequence(scene, size.height, size.width, frames, seed % 2 ? 30 : 6, 12, seed);
                ++seed;
                ASSERT_TRUE(matchesScan(filter, model, input))
                    << "threshold " << k.threshold << ", limits " << k.lineLimit << "/" << k.frameLimit
                    << ", " << size << ", scene " << static_cast<int>(scene);
            }
    }
    for (const Case k : {Case{100, 1, 1}, Case{100, 2, 31}, Case{100, 31, 5}, Case{70, 3, 12}}) {
        StaticPatternRemover filter(k.threshold, k.lineLimit, k.frameLimit);
        SprModel model(k.threshold, k.lineLimit, k.frameLimit);
        ASSERT_TRUE(matchesScan(filter, model, makeSequence(Scene::Pattern, 12, 23, 80, 40, 90, 7 + k.frameLimit)));
        double high;
        cv::minMaxIdx(filter.framePattern(), nullptr, &high);
        EXPECT_GE(high, k.frameLimit * 256 - 1) << "the frame pattern should reach its upper bound";
    }
}

TEST(StaticPatternRemover, ThresholdChangeTakesEffectAndWithoutLearningThePatternsOnlyLeak)
{
    const auto input = makeSequence(Scene::Pattern, 17, 29, 30, 20, 20, 3);
    StaticPatternRemover filter(60, 20, 20);
    SprModel model(60, 20, 20);
    ASSERT_TRUE(matchesScan(filter, model, std::vector<cv::Mat_<short>>(input.begin(), input.begin() + 15)));
    ASSERT_TRUE(filter.setThreshold(0));
    model.setThreshold(0);
    for (int f = 15; f < 30; ++f) {
        const cv::Mat_<int> before = filter.framePattern().clone();
        cv::Mat_<short> out;
        filter.process(input[f], out);
        ASSERT_TRUE(krotest::imagesEqual(model.process(input[f]), out)) << "frame " << f;
        double low, high;
        cv::minMaxIdx(cv::abs(before) - cv::abs(filter.framePattern()), &low, &high);
        EXPECT_GE(low, 0) << "frame " << f;
        EXPECT_LE(high, 1) << "frame " << f;
    }
    EXPECT_TRUE(model.patternsEqual(filter));
}

TEST(StaticPatternRemover, SameBytesWhateverTheThreadCountAndInASmallerTeam)
{
    // Wide enough for every thread count to split the columns.
    const auto input = makeSequence(Scene::Markers, 24, 517, 12, 25, 15, 42);
    for (int threads : {1, 2, 3, 4, 7}) {
        StaticPatternRemover filter(80, 12, 16);
        ASSERT_TRUE(filter.setThreads(threads));
        SprModel model(80, 12, 16);
        ASSERT_TRUE(matchesScan(filter, model, input)) << threads << " threads";
        EXPECT_EQ(filter.getLastThreadCount(), threads);
    }
    // Inside an active outer parallel region the filter's own region gets
    // one thread while three are asked for: that thread takes every part.
    StaticPatternRemover nested(60, 12, 16);
    ASSERT_TRUE(nested.setThreads(3));
    EXPECT_FALSE(nested.setThreads(-2));
    SprModel model(60, 12, 16);
    for (const auto& frame : makeSequence(Scene::Pattern, 16, 300, 6, 25, 15, 43)) {
        cv::Mat_<short> out;
#pragma omp parallel num_threads(2)
#pragma omp single
        nested.process(frame, out);
        ASSERT_TRUE(krotest::imagesEqual(model.process(frame), out));
        EXPECT_EQ(nested.getLastThreadCount(), 1);
    }
    EXPECT_TRUE(model.patternsEqual(nested));
}

TEST(StaticPatternRemover, SaturatedSamplePassesUnchangedButIsLearnt)
{
    // A flat scene just below saturation, so that the marker (32767) lies
    // within the threshold of its neighbours and is learnt.
    std::mt19937_64 rng(6);
    std::vector<cv::Mat_<short>> input(20, cv::Mat_<short>(9, 12));
    for (cv::Mat_<short>& frame : input) {
        frame = frame.clone();
        for (int r = 0; r < 9; ++r)
            for (int c = 0; c < 12; ++c)
                frame(r, c) = static_cast<short>(32730 + (c % 3) * 6 + static_cast<int>(rng() % 5));
        frame(4, 6) = 32767;
    }
    StaticPatternRemover filter(100, 31, 31);
    SprModel model(100, 31, 31);
    cv::Mat_<short> out;
    for (const auto& frame : input) {
        filter.process(frame, out);
        ASSERT_TRUE(krotest::imagesEqual(model.process(frame), out));
        EXPECT_EQ(out(4, 6), 32767);
    }
    EXPECT_GT(filter.framePattern()(4, 6), 0) << "the marker pixel should still learn";
    EXPECT_TRUE(model.patternsEqual(filter));
}

TEST(StaticPatternRemover, InvalidParametersAndFramesAreRefused)
{
    const auto input = makeSequence(Scene::Pattern, 10, 14, 8, 20, 20, 8);
    StaticPatternRemover invalid(101, 32, -1);
    SprModel zeroModel(0, 0, 0);
    ASSERT_TRUE(matchesScan(invalid, zeroModel, input)) << "out-of-range values are left at 0";

    StaticPatternRemover filter(22, 12, 16);
    for (int bad : {-1, 101})
        EXPECT_FALSE(filter.setThreshold(bad));
    for (int bad : {-1, 32}) {
        EXPECT_FALSE(filter.setLineLimit(bad));
        EXPECT_FALSE(filter.setFrameLimit(bad));
    }
    SprModel model(22, 12, 16);
    ASSERT_TRUE(matchesScan(filter, model, input));

    cv::Mat_<short> out;
    EXPECT_THROW(filter.process(cv::Mat_<short>(), out), velmor::kro::Exception);
    cv::Mat_<short> frame(8, 8, short(3));
    EXPECT_THROW(filter.process(frame, frame), velmor::kro::Exception);
}

} // namespace
