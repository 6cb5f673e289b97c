#include <gtest/gtest.h>

#include <climits>
#include <vector>

#include "Exception.h"
#include "HstCmod.h"
#include "PlainHistogram.h"

namespace {

// Samples as the hardware sees them: u = sample + 32768 for 16-bit samples.
int sampleOf(int u) { return u - 32768; }

struct Case {
    int cols, rows, shiftFast, shiftSlow, hold, minSpan, poffdis, rangedis;
};

TEST(HstCmod, RunsMatchThePlainModelOverSizesAndArguments)
{
    const Case cases[] = {
        {160, 120, 1, 1, 1, 256, 0, 0}, {1, 1, 1, 1, 1, 256, 0, 0},     {1, 7, 0, 4, 3, 1, 0, 0},
        {7, 1, 2, 16, 0, 65536, 1, 0},  {13, 11, 16, 0, 5, 4096, 0, 0}, {31, 17, 3, 5, 65535, 16, 0, 1},
        {600, 2, 1, 2, 2, 256, 1, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.cols << "x" << c.rows << " shifts " << c.shiftFast << "/"
                                        << c.shiftSlow << " hold " << c.hold << " span " << c.minSpan);
        HstCmod hst(c.cols, c.rows, c.shiftFast, c.shiftSlow, c.hold, c.minSpan, c.poffdis, c.rangedis);
        krotest::PlainHstCmod model{c.cols, c.rows, c.shiftFast, c.shiftSlow, c.hold, c.minSpan, c.poffdis, c.rangedis};
        std::vector<int> data(hst.BinDataSize());
        for (int k = 0; k < 24; ++k) {
            SCOPED_TRACE(k);
            // Ranges that widen, shrink and jump; frame 4 saturated
            // throughout; wide ints whose low 16 bits count.
            const int lo = k == 2 ? -20000 : -3000 + 150 * (k % 7);
            const int hi = k == 3 ? 31000 : 2000 - 100 * (k % 5);
            std::vector<int> in = krotest::plainFrame(c.cols, c.rows, lo, hi, 7u * k + 1);
            if (k == 4)
                std::fill(in.begin(), in.end(), k % 2 ? 32767 : -32768);
            if (k == 6)
                in.back() = 65536 * 3 + 1234;
            hst.MeasureFrame(in.data());
            model.measure(in);
            std::fill(data.begin(), data.end(), -7);  // the padding must be written too
            hst.GetBinData(data.data());
            ASSERT_EQ(data, model.binData());
        }
    }
}

TEST(HstCmod, FirstReadIsFlatThenCountsInSixteenths)
{
    HstCmod hst(3, 1, 1, 1, 1, 256, 0, 0);
    // Flat whatever was measured (here all in bin 0: scale and pedestal start at 0).
    const int in[3] = {sampleOf(1000), sampleOf(2000), sampleOf(65535)};
    std::vector<int> data(hst.BinDataSize());
    hst.MeasureFrame(in);
    hst.GetBinData(data.data());
    EXPECT_EQ(data[0], 1);
    EXPECT_EQ(data[1], 0);
    EXPECT_EQ(data[510], 1);
    // First range: the frame's extremes; scale 16711424 / 1001 = 16694 and
    // pedestal (65279 - ((16694 * 1001) >> 8)) >> 1 = 1.
    EXPECT_EQ(std::vector<int>(data.begin() + 512, data.begin() + 518),
              (std::vector<int>{1000, 2000, 1000, 2000, 16694, 1}));

    hst.MeasureFrame(in);
    hst.GetBinData(data.data());
    // u = 1000 maps to t = 1: bin 0 whole; u = 2000 to
    // ((16694 * 1000) >> 8) + 1 = 65211: bin 254, frac (65211 >> 4) & 15 = 11.
    EXPECT_EQ(data[0], 16);
    EXPECT_EQ(data[2 * 254], 5);
    EXPECT_EQ(data[2 * 255], 11);
    int total = 0;
    for (int i = 0; i < 256; ++i)
        total += data[2 * i] + 65536 * data[2 * i + 1];
    EXPECT_EQ(total, 32);  // the saturated sample is not counted
}

TEST(HstCmod, ReachingTheTrackedHighReloadsItsHold)
{
    HstCmod hst(2, 1, 1, 1, 2, 1, 1, 0);
    std::vector<int> data(hst.BinDataSize());
    const int first[2] = {sampleOf(1000), sampleOf(2000)};
    const int equal[2] = {sampleOf(1000), sampleOf(2000)};
    const int lower[2] = {sampleOf(1000), sampleOf(1800)};
    const int expectedHigh[] = {2000, 2000, 2000, 2000, 1900};
    const int* frames[] = {first, equal, lower, lower, lower};
    for (int k = 0; k < 5; ++k) {
        hst.MeasureFrame(frames[k]);
        hst.GetBinData(data.data());
        // A maximum equal to the high counts as outside: the hold of 2
        // frames starts again at frame 1 and only frame 4 adapts.
        EXPECT_EQ(data[515], expectedHigh[k]) << k;
        EXPECT_EQ(data[514], 1000) << k;  // the low side is strict: never held
    }
}

TEST(HstCmod, BlockIsWholeRowsOfAtLeast518Ints)
{
    for (const auto& colsAndSize : {std::pair<int, int>{1, 518}, {7, 518}, {5, 520}, {160, 640}, {640, 640}})
        EXPECT_EQ(HstCmod(colsAndSize.first, 1, 1, 1, 1, 1, 0, 0).BinDataSize(), colsAndSize.second);
    EXPECT_THROW(HstCmod(0, 4, 1, 1, 1, 1, 0, 0), velmor::kro::Exception);
    EXPECT_THROW(HstCmod(4, -1, 1, 1, 1, 1, 0, 0), velmor::kro::Exception);
}

TEST(HstCmod, ArgumentsBeyondTheirRangesAreClampedSafely)
{
    // Shifts of 40, negative holds and a minimum span of 0 would overflow,
    // never count down or divide by zero; a saturated frame makes the span
    // negative. The clamped model behaves as the model with clamped values.
    for (int extreme : {INT_MIN, -1, 0, 40, INT_MAX}) {
        HstCmod hst(4, 1, extreme, extreme, extreme, extreme, 0, 0);
        const int shift = std::min(std::max(extreme, 0), 16);
        krotest::PlainHstCmod model{4, 1, shift, shift, std::min(std::max(extreme, 0), 65535),
                                    std::min(std::max(extreme, 1), 65536), 0, 0};
        std::vector<int> data(hst.BinDataSize());
        const int frames[3][4] = {{-5, 5, 100, -100}, {32767, -32768, 32767, 32767}, {-300, 7, 90, 20000}};
        for (const auto& frame : frames) {
            hst.MeasureFrame(frame);
            model.measure(std::vector<int>(frame, frame + 4));
            hst.GetBinData(data.data());
            ASSERT_EQ(data, model.binData()) << extreme;
        }
    }
}

} // namespace
