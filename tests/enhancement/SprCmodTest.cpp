#include "SprCmod.h"

#include <algorithm>

#include <unistd.h>

#include <gtest/gtest.h>

#include "Exception.h"
#include "IntFrames.h"
#include "IntegerModel.h"
#include "StaticPatternRemover.h"

namespace {

using krotest::absolute;
using krotest::floorShift;
using krotest::IntFrame;
using krotest::low16;
using krotest::ModelScene;

std::int64_t clampTo(std::int64_t v, std::int64_t low, std::int64_t high) { return std::min(std::max(v, low), high); }
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

// Sum of the eight samples around the centre v[4] and the spread of all nine.
void spread(const std::int64_t (&v)[9], std::int64_t& sum8, std::int64_t& range)
{
    const std::int64_t low = *std::min_element(v, v + 9), high = *std::max_element(v, v + 9);
    sum8 = 0;
    for (int i = 0; i < 9; ++i)
        sum8 += i == 4 ? 0 : v[i];
    const std::int64_t mean = floorShift(sum8, 3);
    range = std::max(absolute(low - mean), absolute(high - mean));
}

// The pattern block as a raster scan in 64-bit integers. The delayed
// write-back is modelled by visibility: while column x is processed, the new
// line values of this row are visible for the columns left of x - D (D = 1,
// or 2 for delay 0 and 2); every other column shows its value of the
// previous row; all are stored at the end of the row. In the first row of
// the first frame every line correction reads 0.
class SprModel {
public:
    SprModel(int cols, int rows, int delay, int mode)
        : cols_(cols), rows_(rows), reach_(delay == 1 ? 1 : 2), mode_(mode),
          line_(cols, 0), frame_(static_cast<std::size_t>(cols) * rows, 0)
    {
    }

    IntFrame process(const IntFrame& in, int thresholdValue, int lineLimitValue, int frameLimitValue)
    {
        if (mode_ == 1)
            return in;
        const std::int64_t threshold = clampTo(thresholdValue, 0, 100);
        const std::int64_t threshold07 = static_cast<std::int64_t>(static_cast<double>(threshold) * 0.7);
        const std::int64_t lineLimit = clampTo(lineLimitValue, 0, 31), frameLimit = clampTo(frameLimitValue, 0, 31);
        const auto u = [&](int x, int y) {
            return (low16(in[static_cast<std::size_t>(clampTo(y, 0, rows_ - 1)) * cols_ + clampTo(x, 0, cols_ - 1)]) +
                    32768) % 65536;
        };
        IntFrame out(in.size());
        for (int y = 0; y < rows_; ++y) {
            const std::vector<std::int64_t> previous = line_;
            std::vector<std::int64_t> current = line_;
            for (int x = 0; x < cols_; ++x) {
                const auto lc = [&](int column) -> std::int64_t {
                    if (firstFrame_ && y == 0)
                        return 0;
                    const int k = static_cast<int>(clampTo(column, 0, cols_ - 1));
                    return correctionModel(k < x - reach_ ? current[k] : previous[k], 10);
                };
                const std::size_t i = static_cast<std::size_t>(y) * cols_ + x;
                const std::int64_t v = in[i], f = frame_[i], fc = correctionModel(f, 5);
                const std::int64_t corrections = div9LessAccurateModel(fc) + div9LessAccurateModel(lc(x));
                if (mode_ == 0)
                    out[i] = static_cast<int>(u(x, y) - 32768 - corrections);
                else
                    out[i] = static_cast<int>(v < 0 ? v : low16(low16(v) - corrections));

                std::int64_t block[9], run[9], around = 0, s3, r3, s9, r9;
                for (int k = 0; k < 9; ++k) {
                    block[k] = u(x + k % 3 - 1, y + k / 3 - 1);
                    run[k] = u(x + k - 4, y);
                    around += k == 4 ? 0 : lc(x + k - 4);
                }
                spread(block, s3, r3);
                spread(run, s9, r9);
                std::int64_t newF = f;
                if (r3 < threshold || r9 < threshold) {
                    const std::int64_t e3 = s3 - div9LessAccurateModel(3 * (lc(x + 1) - 2 * lc(x) + lc(x - 1)));
                    const std::int64_t e9 = s9 - div9LessAccurateModel(around - 8 * lc(x));
                    const std::int64_t e = absolute(r9 - r3) < floorShift(threshold, 2) ? floorShift(e3 + e9, 1)
                                                                                        : (r3 > r9 ? e9 : e3);
                    newF += 8 * block[4] - fc - e;
                }
                frame_[i] = boundAndLeak(newF, frameLimit, 8, 1, 0);
                std::int64_t l = previous[x];
                if (r3 < threshold07 || r9 < threshold) {
                    const bool blockFlatter = r3 < r9 - floorShift(r9, 4) - floorShift(r9, 2);
                    l += 8 * block[4] - lc(x) - (blockFlatter ? s3 : s9);
                }
                current[x] = boundAndLeak(l, lineLimit, 13, 4, 3);
            }
            line_ = current;
            firstFrame_ = false;
        }
        return out;
    }

    const std::vector<std::int64_t>& frame() const { return frame_; }
    const std::vector<std::int64_t>& line() const { return line_; }

private:
    int cols_, rows_, reach_, mode_;
    bool firstFrame_ = true;
    std::vector<std::int64_t> line_, frame_;
};

struct Params {
    int threshold, lineLimit, frameLimit;
};

::testing::AssertionResult matchesModel(int cols, int rows, int delay, int mode, Params first, Params later,
                                        int changeAt, const std::vector<IntFrame>& input)
{
    int threshold = first.threshold, lineLimit = first.lineLimit, frameLimit = first.frameLimit;
    SprCmod model(cols, rows, threshold, lineLimit, frameLimit, delay, mode);
    SprModel plain(cols, rows, delay, mode);
    IntFrame out(input[0].size());
    for (std::size_t f = 0; f < input.size(); ++f) {
        if (static_cast<int>(f) == changeAt) {
            threshold = later.threshold;
            lineLimit = later.lineLimit;
            frameLimit = later.frameLimit;
        }
        model.ProcessFrame(input[f].data(), out.data());
        ::testing::AssertionResult same =
            krotest::intFramesEqual(plain.process(input[f], threshold, lineLimit, frameLimit), out, cols);
        if (!same)
            return same << " in frame " << f;
    }
    if (std::vector<std::int64_t>(model.framePattern().begin(), model.framePattern().end()) != plain.frame())
        return ::testing::AssertionFailure() << "frame patterns differ";
    if (std::vector<std::int64_t>(model.linePattern().begin(), model.linePattern().end()) != plain.line())
        return ::testing::AssertionFailure() << "line patterns differ";
    return ::testing::AssertionSuccess();
}

// Every size, delay and mode, parameters at and beyond their bounds
// (clamped where read), changed by the caller half way through each run.
TEST(SprCmod, MatchesRasterScanModelOverSizesDelaysModesAndParameters)
{
    const Params cases[][2] = {{{22, 12, 16}, {60, 12, 16}}, {{0, 12, 16}, {100, 31, 31}},
                               {{100, 0, 0}, {100, 1, 31}},  {{60, 31, 0}, {0, 0, 31}},
                               {{150, 40, -3}, {-1, -2147483647 - 1, 2147483647}}};
    std::uint64_t seed = 1;
    for (const auto& k : cases)
        for (const auto& size : krotest::kModelSizes)
            for (int delay : {0, 1, 2})
                for (int mode : {0, 1, 2})
                    for (ModelScene scene : {ModelScene::Steady, ModelScene::Random, ModelScene::Extremes}) {
                        const int frames = size.first * size.second > 1000 ? 4 : 24;
                        ASSERT_TRUE(matchesModel(size.first, size.second, delay, mode, k[0], k[1], frames / 2,
                                                 krotest::modelSequence(scene, size.first, size.second, frames,
                                                                        mode == 2, seed++)))
                            << size.first << "x" << size.second << ", delay " << delay << ", mode " << mode
                            << ", scene " << static_cast<int>(scene) << ", threshold " << k[0].threshold
                            << ", limits " << k[0].lineLimit << "/" << k[0].frameLimit;
                    }
}

// With line limit 0 every line correction is 0, so the delay and the first
// row do not matter and the model must learn and correct exactly as the
// filter (on frames without the filter's 32767 marker and without wrap).
TEST(SprCmod, EqualsTheSoftwareFilterWhereTheLineCorrectionIsZero)
{
    for (int delay : {0, 1, 2})
        for (const Params p : {Params{22, 0, 16}, Params{100, 0, 31}, Params{60, 0, 3}}) {
            const auto input = krotest::modelSequence(ModelScene::Steady, 31, 19, 40, false, 50 + delay);
            int threshold = p.threshold, lineLimit = p.lineLimit, frameLimit = p.frameLimit;
            SprCmod model(31, 19, threshold, lineLimit, frameLimit, delay, 0);
            velmor::kro::StaticPatternRemover filter(p.threshold, p.lineLimit, p.frameLimit);
            IntFrame out(input[0].size());
            for (std::size_t f = 0; f < input.size(); ++f) {
                cv::Mat_<short> src(19, 31), dst;
                std::copy(input[f].begin(), input[f].end(), src.begin());
                filter.process(src, dst);
                model.ProcessFrame(input[f].data(), out.data());
                ASSERT_TRUE(krotest::intFramesEqual(IntFrame(dst.begin(), dst.end()), out, 31))
                    << "frame " << f << ", delay " << delay << ", threshold " << p.threshold;
            }
            const cv::Mat_<int>& learnt = filter.framePattern();
            EXPECT_TRUE(std::equal(learnt.begin(), learnt.end(), model.framePattern().begin()));
            EXPECT_NE(*std::max_element(model.framePattern().begin(), model.framePattern().end()), 0)
                << "the frame pattern should have learnt";
        }
}

TEST(SprCmod, CopyCarriesTheLearntStateAndOwnsIt)
{
    int threshold = 100, lineLimit = 31, frameLimit = 31;
    const auto input = krotest::modelSequence(ModelScene::Steady, 23, 9, 12, false, 21);
    SprCmod original(23, 9, threshold, lineLimit, frameLimit, 2, 0);
    IntFrame out(input[0].size()), copyOut(out.size());
    for (int f = 0; f < 6; ++f)
        original.ProcessFrame(input[f].data(), out.data());
    SprCmod copy = original;
    for (int f = 6; f < 12; ++f) {
        original.ProcessFrame(input[f].data(), out.data());
        copy.ProcessFrame(input[f].data(), copyOut.data());
        ASSERT_EQ(out, copyOut) << "frame " << f;
    }
    // Learning on the original leaves the copy's patterns alone.
    const std::vector<std::int32_t> copied = copy.framePattern();
    original.ProcessFrame(input[0].data(), out.data());
    EXPECT_EQ(copy.framePattern(), copied);
    EXPECT_NE(original.framePattern(), copied);
}

TEST(SprCmodDeathTest, IllegalDelayAbortsWithItsMessage)
{
    int threshold = 22, lineLimit = 12, frameLimit = 16;
    // The message goes to standard output; the death test reads standard error.
    for (int delay : {3, -1})
        EXPECT_DEATH(
            {
                dup2(STDERR_FILENO, STDOUT_FILENO);
                SprCmod model(8, 8, threshold, lineLimit, frameLimit, delay, 0);
            },
            "ERROR: illegal delay value\n");
}

TEST(SprCmod, BadFramesAreRefused)
{
    int threshold = 22, lineLimit = 12, frameLimit = 16;
    EXPECT_THROW(SprCmod(0, 0, threshold, lineLimit, frameLimit, 1, 0), velmor::kro::Exception);
    SprCmod model(4, 4, threshold, lineLimit, frameLimit, 1, 0);
    IntFrame frame(32, 3);
    EXPECT_THROW(model.ProcessFrame(frame.data(), frame.data() + 15), velmor::kro::Exception);
    EXPECT_THROW(model.ProcessPel(0, 0), velmor::kro::Exception) << "no frame yet";
}

} // namespace
