#include "StaticPatternRemover.h"

#include <algorithm>
#include <cstdint>
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
using krotest::wrap16;

std::int64_t div9LessAccurateModel(std::int64_t x) { return floorShift(x - floorShift(x - 25, 3), 3); }
std::int64_t correctionModel(std::int64_t v, int shift) { return floorShift(v, shift) + (v < 0 ? 1 : 0); }

std::int64_t boundModel(std::int64_t v, std::int64_t limit, int shift)
{
    const std::int64_t unit = std::int64_t(1) << shift;
    if (floorShift(v, shift) >= limit)
        return limit * unit;
    if (floorShift(v, shift) <= -limit - 1)
        return (-limit - 1) * unit + unit - 1;
    return v;
}

// The remover as a single left-to-right, top-to-bottom scan that updates the
// line pattern in place, pixel after pixel.
class SprModel {
public:
    SprModel(int threshold, int lineLimit, int frameLimit) { set(threshold, lineLimit, frameLimit); }

    void set(int threshold, int lineLimit, int frameLimit)
    {
        threshold_ = threshold;
        threshold07_ = static_cast<int>(static_cast<float>(threshold) * 0.7f);
        lineLimit_ = lineLimit;
        frameLimit_ = frameLimit;
    }

    cv::Mat_<short> process(const cv::Mat_<short>& src)
    {
        if (src.rows != rows_ || src.cols != cols_) {
            rows_ = src.rows;
            cols_ = src.cols;
            line_.assign(cols_, 0);
            frame_.assign(static_cast<std::size_t>(rows_) * cols_, 0);
        }
        const auto u = [&](int r, int c) {
            r = std::min(std::max(r, 0), rows_ - 1);
            c = std::min(std::max(c, 0), cols_ - 1);
            return static_cast<std::int64_t>(src(r, c)) + 32768;
        };
        const auto lc = [&](int k) { return correctionModel(line_[std::min(std::max(k, 0), cols_ - 1)], 10); };
        cv::Mat_<short> dst(rows_, cols_);
        for (int r = 0; r < rows_; ++r) {
            for (int c = 0; c < cols_; ++c) {
                const std::int64_t s = src(r, c);
                std::int64_t& f = frame_[static_cast<std::size_t>(r) * cols_ + c];
                const std::int64_t fc = correctionModel(f, 5);
                dst(r, c) = s == 32767 ? short(32767)
                                       : static_cast<short>(wrap16(s - div9LessAccurateModel(fc) -
                                                                   div9LessAccurateModel(lc(c))));
                std::int64_t block[9], run[9];
                for (int i = 0; i < 9; ++i) {
                    block[i] = u(r + i / 3 - 1, c + i % 3 - 1);
                    run[i] = u(r, c + i - 4);
                }
                std::int64_t r3, s3, r9, s9;
                spread(block, s3, r3);
                spread(run, s9, r9);
                std::int64_t lcs[9];
                for (int i = 0; i < 9; ++i)
                    lcs[i] = lc(c + i - 4);
                const std::int64_t centre = u(r, c);
                if (r3 < threshold_ || r9 < threshold_) {
                    const std::int64_t e3 = s3 - div9LessAccurateModel(3 * (lcs[5] - 2 * lcs[4] + lcs[3]));
                    std::int64_t around = 0;
                    for (int i = 0; i < 9; ++i)
                        if (i != 4)
                            around += lcs[i];
                    const std::int64_t e9 = s9 - div9LessAccurateModel(around - 8 * lcs[4]);
                    std::int64_t e;
                    if (absolute(r9 - r3) < floorShift(threshold_, 2))
                        e = floorShift(e3 + e9, 1);
                    else
                        e = r3 > r9 ? e9 : e3;
                    f += 8 * centre - fc - e;
                }
                f = boundModel(f, frameLimit_, 8);
                if (f > 0)
                    f -= 1;
                else if (f < 0)
                    f += 1;

                std::int64_t& l = line_[c];
                if (r3 < threshold07_ || r9 < threshold_) {
                    const bool blockFlatter = r3 < r9 - floorShift(r9, 4) - floorShift(r9, 2);
                    l += 8 * centre - lcs[4] - (blockFlatter ? s3 : s9);
                }
                l = boundModel(l, lineLimit_, 13);
                if (l > 3)
                    l -= 4;
                else if (l < 0)
                    l += 4;
            }
        }
        return dst;
    }

    bool patternsEqual(const StaticPatternRemover& filter) const
    {
        const cv::Mat_<std::int32_t>& line = filter.linePattern();
        const cv::Mat_<std::int32_t>& frame = filter.framePattern();
        if (line.cols != cols_ || frame.rows != rows_ || frame.cols != cols_)
            return false;
        for (int c = 0; c < cols_; ++c)
            if (line(0, c) != line_[c])
                return false;
        for (int r = 0; r < rows_; ++r)
            for (int c = 0; c < cols_; ++c)
                if (frame(r, c) != frame_[static_cast<std::size_t>(r) * cols_ + c])
                    return false;
        return true;
    }

private:
    static void spread(const std::int64_t (&v)[9], std::int64_t& sum8, std::int64_t& range)
    {
        std::int64_t low = v[0], high = v[0];
        sum8 = 0;
        for (int i = 0; i < 9; ++i) {
            low = std::min(low, v[i]);
            high = std::max(high, v[i]);
            if (i != 4)
                sum8 += v[i];
        }
        const std::int64_t mean = floorShift(sum8, 3);
        range = std::max(absolute(low - mean), absolute(high - mean));
    }

    int threshold_ = 0, threshold07_ = 0, lineLimit_ = 0, frameLimit_ = 0;
    int rows_ = -1, cols_ = -1;
    std::vector<std::int64_t> line_, frame_;
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
    std::vector<cv::Mat_<short>> out;
    for (int f = 0; f < frames; ++f) {
        cv::Mat_<short> frame(rows, cols);
        for (int r = 0; r < rows; ++r) {
            for (int c = 0; c < cols; ++c) {
                int v = level + columnOffset[c] + pixelOffset(r, c) + offset(2);
                if (scene == Scene::Random)
                    v = static_cast<int>(rng() % 65536) - 32768;
                else if (scene == Scene::Saturated)
                    v = extremes[rng() % 6];
                else if (scene == Scene::Markers && rng() % 20 == 0)
                    v = 32767;
                frame(r, c) = static_cast<short>(v);
            }
        }
        out.push_back(frame);
    }
    return out;
}

struct Case {
    int threshold, lineLimit, frameLimit;
};

TEST(StaticPatternRemover, MatchesLeftToRightScanOverSizesParametersAndScenes)
{
    krotest::ThreadCount threads(2);
    const Case cases[] = {{22, 12, 16}, {0, 12, 16},  {1, 0, 0},   {100, 31, 31}, {100, 0, 0},
                          {100, 1, 1},  {60, 31, 0},  {40, 0, 31}, {99, 5, 3}};
    const cv::Size sizes[] = {{1, 1}, {9, 1}, {1, 9}, {5, 3}, {13, 11}, {160, 120}};
    const Scene scenes[] = {Scene::Pattern, Scene::Random, Scene::Saturated, Scene::Markers};
    std::uint64_t seed = 100;
    for (const Case& k : cases) {
        for (const cv::Size& size : sizes) {
            for (Scene scene : scenes) {
                const int frames = size.area() > 1000 ? 5 : 40;
                const int columns = seed % 2 ? 30 : 6;
                const auto input = makeSequence(scene, size.height, size.width, frames, columns, 12, seed++);
                StaticPatternRemover filter(k.threshold, k.lineLimit, k.frameLimit);
                SprModel model(k.threshold, k.lineLimit, k.frameLimit);
                cv::Mat_<short> out;
                for (int f = 0; f < frames; ++f) {
                    filter.process(input[f], out);
                    ASSERT_TRUE(krotest::imagesEqual(model.process(input[f]), out))
                        << "threshold " << k.threshold << ", limits " << k.lineLimit << "/"
                        << k.frameLimit << ", " << size << ", scene " << static_cast<int>(scene)
                        << ", frame " << f;
                }
                EXPECT_TRUE(model.patternsEqual(filter))
                    << "threshold " << k.threshold << ", " << size << ", scene " << static_cast<int>(scene);
            }
        }
    }
}

TEST(StaticPatternRemover, PatternsReachTheirBoundsAsTheScanDoes)
{
    // Strong pixel offsets (+-90) on a flat scene, threshold 100: the frame
    // pattern grows by about 8 * 90 per frame and meets every limit; the line
    // pattern meets its small limits.
    for (const Case k : {Case{100, 1, 1}, Case{100, 2, 31}, Case{100, 31, 5}, Case{70, 3, 12}}) {
        const auto input = makeSequence(Scene::Pattern, 12, 23, 80, 40, 90, 7 + k.frameLimit);
        StaticPatternRemover filter(k.threshold, k.lineLimit, k.frameLimit);
        SprModel model(k.threshold, k.lineLimit, k.frameLimit);
        cv::Mat_<short> out;
        for (std::size_t f = 0; f < input.size(); ++f) {
            filter.process(input[f], out);
            ASSERT_TRUE(krotest::imagesEqual(model.process(input[f]), out)) << "frame " << f;
        }
        ASSERT_TRUE(model.patternsEqual(filter));
        double low, high;
        cv::minMaxIdx(filter.framePattern(), &low, &high);
        EXPECT_GE(high, k.frameLimit * 256 - 1) << "the frame pattern should reach its upper bound";
    }
}

TEST(StaticPatternRemover, ThresholdChangesBetweenFramesAndLeakWithoutLearning)
{
    const auto input = makeSequence(Scene::Pattern, 17, 29, 30, 20, 20, 3);
    StaticPatternRemover filter(60, 20, 20);
    SprModel model(60, 20, 20);
    cv::Mat_<short> out;
    for (int f = 0; f < 30; ++f) {
        if (f == 15) {
            // Threshold 0: no learning, the patterns only leak toward zero.
            ASSERT_TRUE(filter.setThreshold(0));
            model.set(0, 20, 20);
        }
        const cv::Mat_<std::int32_t> before = filter.framePattern().clone();
        filter.process(input[f], out);
        ASSERT_TRUE(krotest::imagesEqual(model.process(input[f]), out)) << "frame " << f;
        if (f >= 15) {
            cv::Mat_<std::int32_t> shrink = cv::abs(before) - cv::abs(filter.framePattern());
            double low, high;
            cv::minMaxIdx(shrink, &low, &high);
            EXPECT_GE(low, 0) << "frame " << f;
            EXPECT_LE(high, 1) << "frame " << f;
        }
    }
    ASSERT_TRUE(model.patternsEqual(filter));
}

TEST(StaticPatternRemover, SameBytesWithOneToFourThreads)
{
    // Wide enough for every thread count to split the columns.
    const auto input = makeSequence(Scene::Markers, 24, 517, 12, 25, 15, 42);
    std::vector<cv::Mat_<short>> results[4];
    cv::Mat_<std::int32_t> lines[4], frames[4];
    for (int threads = 1; threads <= 4; ++threads) {
        krotest::ThreadCount count(threads);
        StaticPatternRemover filter(80, 12, 16);
        for (const auto& frame : input) {
            cv::Mat_<short> out;
            filter.process(frame, out);
            results[threads - 1].push_back(out);
        }
        lines[threads - 1] = filter.linePattern().clone();
        frames[threads - 1] = filter.framePattern().clone();
    }
    SprModel model(80, 12, 16);
    for (std::size_t f = 0; f < input.size(); ++f)
        ASSERT_TRUE(krotest::imagesEqual(model.process(input[f]), results[0][f])) << "frame " << f;
    for (int t = 1; t < 4; ++t) {
        for (std::size_t f = 0; f < input.size(); ++f)
            EXPECT_IMAGES_EQUAL(results[0][f], results[t][f]) << (t + 1) << " threads, frame " << f;
        EXPECT_IMAGES_EQUAL(lines[0], lines[t]) << (t + 1) << " threads";
        EXPECT_IMAGES_EQUAL(frames[0], frames[t]) << (t + 1) << " threads";
    }
}

TEST(StaticPatternRemover, SmallerTeamThanAskedForGivesTheSameBytes)
{
    // Inside an active outer parallel region the filter's own region gets
    // one thread while three are asked for: that thread takes every part.
    const auto input = makeSequence(Scene::Pattern, 16, 300, 6, 25, 15, 43);
    krotest::ThreadCount count(3);
    StaticPatternRemover nested(60, 12, 16);
    SprModel model(60, 12, 16);
    for (const auto& frame : input) {
        cv::Mat_<short> out;
#pragma omp parallel num_threads(2)
#pragma omp single
        nested.process(frame, out);
        ASSERT_TRUE(krotest::imagesEqual(model.process(frame), out));
    }
    EXPECT_TRUE(model.patternsEqual(nested));
}

TEST(StaticPatternRemover, FirstFrameIsUnchanged)
{
    const auto input = makeSequence(Scene::Pattern, 20, 30, 1, 20, 20, 9);
    cv::Mat_<short> out;
    StaticPatternRemover(100, 31, 31).process(input[0], out);
    EXPECT_IMAGES_EQUAL(input[0], out);
}

TEST(StaticPatternRemover, LimitsZeroKeepEveryCorrectionAtZero)
{
    // Frame pattern bounded to [-1, 0] and leaked to 0; line pattern bounded
    // to [-1, 0], where -1 leaks to 3; both correct by 0.
    const auto input = makeSequence(Scene::Pattern, 15, 21, 10, 30, 30, 5);
    StaticPatternRemover filter(100, 0, 0);
    cv::Mat_<short> out;
    for (const auto& frame : input) {
        filter.process(frame, out);
        EXPECT_IMAGES_EQUAL(frame, out);
        EXPECT_EQ(cv::countNonZero(filter.framePattern()), 0);
        for (std::int32_t v : filter.linePattern())
            EXPECT_TRUE(v == 0 || v == 3) << v;
    }
}

TEST(StaticPatternRemover, SaturatedSamplePassesUnchangedButIsLearnt)
{
    // A flat scene just below saturation, so that the marker (32767) lies
    // within the threshold of its neighbours and is learnt.
    std::mt19937_64 rng(6);
    std::vector<cv::Mat_<short>> input;
    for (int f = 0; f < 20; ++f) {
        cv::Mat_<short> frame(9, 12);
        for (int r = 0; r < 9; ++r)
            for (int c = 0; c < 12; ++c)
                frame(r, c) = static_cast<short>(32730 + (c % 3) * 6 + static_cast<int>(rng() % 5));
        frame(4, 6) = 32767;
        input.push_back(frame);
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

TEST(StaticPatternRemover, InvalidParametersAreRefusedOrLeftAtZero)
{
    const auto input = makeSequence(Scene::Pattern, 10, 14, 8, 20, 20, 8);
    StaticPatternRemover invalid(101, 32, -1);
    StaticPatternRemover zero(0, 0, 0);
    cv::Mat_<short> a, b;
    for (const auto& frame : input) {
        invalid.process(frame, a);
        zero.process(frame, b);
        EXPECT_IMAGES_EQUAL(b, a);
    }
    EXPECT_IMAGES_EQUAL(zero.linePattern(), invalid.linePattern());

    StaticPatternRemover filter(22, 12, 16);
    EXPECT_FALSE(filter.setThreshold(101));
    EXPECT_FALSE(filter.setThreshold(-1));
    EXPECT_FALSE(filter.setLineLimit(32));
    EXPECT_FALSE(filter.setLineLimit(-1));
    EXPECT_FALSE(filter.setFrameLimit(32));
    EXPECT_FALSE(filter.setFrameLimit(-1));
    SprModel model(22, 12, 16);
    for (const auto& frame : input) {
        filter.process(frame, a);
        EXPECT_IMAGES_EQUAL(model.process(frame), a);
    }
}

TEST(StaticPatternRemover, SizeChangeRestartsThePatterns)
{
    const auto big = makeSequence(Scene::Pattern, 10, 14, 5, 20, 20, 1);
    const auto small = makeSequence(Scene::Pattern, 6, 7, 1, 20, 20, 2);
    StaticPatternRemover filter(100, 31, 31);
    cv::Mat_<short> out;
    for (const auto& frame : big)
        filter.process(frame, out);
    filter.process(small[0], out);
    EXPECT_IMAGES_EQUAL(small[0], out);
}

TEST(StaticPatternRemover, RefusesEmptyAndAliasedFrames)
{
    StaticPatternRemover filter(22, 12, 16);
    cv::Mat_<short> out;
    EXPECT_THROW(filter.process(cv::Mat_<short>(), out), velmor::kro::Exception);
    cv::Mat_<short> frame(8, 8, short(3));
    EXPECT_THROW(filter.process(frame, frame), velmor::kro::Exception);
}

} // namespace
