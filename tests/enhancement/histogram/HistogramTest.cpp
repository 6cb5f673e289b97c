#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "Exception.h"
#include "Histogram.h"
#include "PlainHistogram.h"
#include "TestImages.h"

namespace {

using krotest::i64;
using krotest::PlainHistogram;

// Ranges of a run: the low side leaves the range at frame 1, the high side
// at frame 2 (both then hold for 16 frames), frame 5 is saturated
// throughout (the extremes keep their start values, the hardware counts no
// sample), frame 7 holds samples beyond the 16-bit range.
std::vector<int> runFrame(int cols, int rows, int k)
{
    if (k == 5)
        return std::vector<int>(static_cast<std::size_t>(cols) * rows, k % 2 ? 32767 : -32768);
    const int lo = k == 1 ? -3000 : k == 2 ? -500 : -1000 + 20 * k;
    const int hi = k == 1 ? 900 : k == 2 ? 3000 : 1000 - 30 * k;
    std::vector<int> f = krotest::plainFrame(cols, rows, lo, hi, 100u + k);
    if (k == 7)
        f.back() = f.size() > 1 ? 70000 : -40000;
    return f;
}

enum Counts { kRising, kPipeline, kRepeated };
int frameCount(Counts c, int k) { return c == kRising ? k : c == kPipeline ? std::min(k, 1) : 3; }

struct Case {
    int cols, rows, width, mode, gamma, speed, range, offset, tridis, rangedis, poffdis, hw;
    bool bypass;
    Counts counts;
    int limit, gain;
};

void configure(Histogram& h, PlainHistogram& m, const Case& c)
{
    h.SetWidth(c.width), m.width = c.width;
    h.SetMode(c.mode), m.mode = c.mode;
    h.SetGamma(c.gamma), m.gamma = c.gamma;
    h.SetSpeed(c.speed), m.speed = c.speed;
    h.SetRange(c.range), m.range = c.range;
    h.SetOffset(c.offset), m.offset = c.offset;
    h.SetTridis(c.tridis), m.tridis = c.tridis;
    h.SetRangeDis(c.rangedis), m.rangedis = c.rangedis;
    h.SetPoffdis(c.poffdis), m.poffdis = c.poffdis;
    h.SetHW(c.hw), m.hw = c.hw;
    h.setBypass(c.bypass), m.bypass = c.bypass;
    h.SetLimit(c.limit), m.limit = c.limit;
    h.SetGain(c.gain), m.gain = c.gain;
    m.start();
}

std::vector<int> expectedBinData(const PlainHistogram& m)
{
    std::vector<int> out;
    for (int i = 0; i < m.n(); ++i) {
        out.push_back(static_cast<int>(m.bins[i] & 0xFFFF));
        out.push_back(static_cast<int>(krotest::floorShift(m.bins[i], 16)));
    }
    for (i64 v : {m.curMin, m.curMax, m.low, m.high, m.scale, m.pedestal})
        out.push_back(static_cast<int>(v));
    out.push_back(m.mode > 0 ? 22136 : 0);
    out.push_back(m.mode > 0 ? 4660 : 0);
    return out;
}

TEST(Histogram, RunsMatchThePlainModelOverSizesModesAndParameterBounds)
{
    const int kMax = 1 << 24;
    const Case cases[] = {
        // cols rows width mode gamma speed range offset tridis rangedis poffdis hw bypass counts limit gain
        {160, 120, 8, 3, 0, 1, 8, 0, 0, 0, 0, 0, false, kRising, 8, 4},
        {160, 120, 8, 3, 0, 1, 8, 0, 0, 0, 0, 1, false, kPipeline, 8, 4},
        {1, 1, 8, 4, 0, 1, 8, 0, 0, 0, 0, 0, false, kRising, 8, 4},
        {1, 7, 2, 2, -5, 0, 0, 0, 1, 0, 0, 0, false, kPipeline, 8, 4},
        {7, 1, 15, 4, 7, 16, 16, 0, 0, 0, 0, 0, false, kRising, 8, 4},
        {13, 11, 11, 7, 100, 5, 3, kMax, 0, 1, 0, 0, false, kRepeated, 8, 4},
        {13, 11, 12, 0, 0, 1, 8, 0, 0, 0, 0, 0, false, kRising, 8, 4},
        {160, 120, 9, 2, -100, 2, 0, -kMax, 0, 0, 1, 1, false, kRising, 8, Histogram::kMaxGain},
        {1, 7, 8, 2, 0, 1, 8, 0, 0, 0, 0, 0, false, kRising, 8, 0},  // empty band weight: linear curve
        {160, 120, 8, 3, 0, 1, 8, 0, 0, 0, 0, 0, false, kRising, 0, 4},
        {31, 17, 8, 3, 0, 1, 8, 0, 0, 0, 0, 1, false, kPipeline, Histogram::kMaxLimit, 4},
        {160, 120, 8, 3, 3, 1, 8, 200, 0, 0, 0, 0, true, kRising, 8, 4},
        {31, 17, 10, 2, 0, 4, 5, -300, 0, 0, 0, 1, false, kPipeline, 8, 4},
        {160, 120, 8, -1, 0, 1, 8, 0, 0, 1, 1, 0, false, kRising, 8, 4},
        {13, 11, 4, 3, 0, 3, 8, 0, 0, 0, 0, 1, false, kRising, 8, 4},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.cols << "x" << c.rows << " width " << c.width << " mode " << c.mode
                                        << " hw " << c.hw << " counts " << c.counts);
        Histogram h(c.cols, c.rows);
        h.SetThreads(1);
        PlainHistogram m(c.cols, c.rows);
        configure(h, m, c);
        std::vector<int> bins(h.BinDataCount()), out(static_cast<std::size_t>(c.cols) * c.rows);
        for (int k = 0; k < 22; ++k) {
            SCOPED_TRACE(k);
            const std::vector<int> in = runFrame(c.cols, c.rows, k);
            const int fc = frameCount(c.counts, k);
            h.MeasureFrame(fc, in.data(), bins.data());
            m.measure(fc, in);
            ASSERT_EQ(bins, expectedBinData(m));
            h.ProcessFrame(fc, in.data(), out.data());
            for (std::size_t i = 0; i < in.size(); ++i) {
                ASSERT_EQ(out[i], m.process(in[i])) << "pixel " << i;
                if (!c.bypass && c.mode != 0) {
                    ASSERT_LE(out[i], 32766);
                }
            }
            if (c.counts == kRepeated) {
                // A fixed window, sampled from its first bound upwards even
                // when the second is lower.
                h.Update(fc, 2000, -700);
                m.update(fc, 2000, -700);
            } else {
                h.Update(fc);
                m.update(fc);
            }
            ASSERT_EQ(std::vector<int>(h.GetLut(), h.GetLut() + m.n() + 1), std::vector<int>(m.lut.begin(), m.lut.end()));
            ASSERT_EQ(std::vector<int>(h.GetCurve(), h.GetCurve() + m.n()), m.curve);
            ASSERT_EQ(std::vector<double>(h.GetLocalGains(), h.GetLocalGains() + h.LocalGainCount()), m.localGain);
        }
    }
}

TEST(Histogram, RangeHoldsSixteenFramesAfterLeavingIt)
{
    Histogram h(3, 1);
    const int first[] = {-100, 0, 100}, out[] = {-200, 0, 100}, in[] = {-50, 0, 100};
    h.MeasureFrame(0, first, nullptr);  // count 0 equals the start count: taken as is
    EXPECT_EQ(h.GetLow(), -100);
    h.MeasureFrame(1, out, nullptr);  // left the range: fast exponent max(1 - 4, 0) takes the minimum
    EXPECT_EQ(h.GetLow(), -200);
    for (int k = 2; k < 18; ++k)
        h.MeasureFrame(k, in, nullptr);
    EXPECT_EQ(h.GetLow(), -200);
    h.MeasureFrame(18, in, nullptr);
    EXPECT_EQ(h.GetLow(), -125);  // (2 * -200 + 200 - 50 + 1) >> 1
    EXPECT_EQ(h.GetHigh(), 100);
    EXPECT_EQ(h.GetScale(), 32768);      // 2^23 / max(256, 226)
    EXPECT_EQ(h.GetPedestal(), 1984);    // (32768 - 225 * 128) / 2: centred
}

TEST(Histogram, FreshModuleMapsLinearlyAndClampsBelowTheMaximum)
{
    Histogram h;
    // Identity curve, scale 2^15 from -32768: t = (v + 32768) * 128.
    EXPECT_EQ(h.ProcessPixel(-32758), 1280);
    EXPECT_EQ(h.LocalGain(1280), 128.0);  // slope lut[14] - lut[6] = 1024, * 2^15 / 8 / 2^15
    EXPECT_EQ(h.ProcessPixel(0), 32766);  // 32767.5 before the clamp
    EXPECT_EQ(h.LocalGain(32766), 80.0);  // slope 32768 - 32128
    h.SetMode(0);
    EXPECT_EQ(h.ProcessPixel(-5), -5);
    EXPECT_EQ(h.LocalGain(-5), 1.0);
    EXPECT_EQ(h.GetGainLow(), 19);  // 0.1 % of 19200 pixels, rounded
    EXPECT_EQ(h.GetGainHigh(), 19181);  // 99.9 %
    EXPECT_EQ(Histogram(50, 10).GetGainLow(), 1);  // 0.5 rounds up
}

std::string writeFile(const krotest::TempDir& dir, const std::string& text)
{
    const std::string path = dir.file("histo.txt");
    std::ofstream(path) << text;
    return path;
}

TEST(Histogram, ParameterFileSetsItsKeysThroughTheClamps)
{
    krotest::TempDir dir;
    Histogram h;
    h.SetParam(writeFile(dir, "gain=9\n[Histogram_Parameter]\nmode=0x2\nwidth=99\nrange=010\noffset=-12\n"
                              "speed=3\ngamma=-4\nrangedis=1\npoffdis=0x1\nlimit=0\ncolour=5\ngainlow=7\n"
                              "gainhigh=700\n[Peaking_Parameter]\ngain=1\n")
                   .c_str());
    // gain: set before the header and in another section only; width clamped.
    EXPECT_EQ((std::vector<int>{h.GetGain(), h.GetMode(), h.GetWidth(), h.GetRange(), h.GetOffset(), h.GetSpeed(),
                                h.GetGamma(), h.GetRangeDis(), h.GetPoffdis(), h.GetLimit(), h.GetGainLow(),
                                h.GetGainHigh()}),
              (std::vector<int>{4, 2, Histogram::kMaxWidth, 8, -12, 3, -4, 1, 1, 0, 7, 700}));

    const std::string missing = dir.file("absent.txt");
    testing::internal::CaptureStdout();
    h.SetParam(missing.c_str());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "histo: Cannot read " + missing + "\n");
    EXPECT_EQ(h.GetMode(), 2);
    EXPECT_EQ(h.GetWidth(), Histogram::kMaxWidth);
}

template <typename T>
void expectMappedLikePixels(Histogram& h, const cv::Mat_<T>& in, const std::vector<int>& asInt)
{
    cv::Mat_<T> out;
    h.processFrame(in, out);
    ASSERT_EQ(out.rows, in.rows);
    for (int i = 0; i < in.rows * in.cols; ++i)
        ASSERT_EQ(static_cast<double>(out(i / in.cols, i % in.cols)), h.ProcessPixel(asInt[i])) << i;
}

TEST(Histogram, FramesOfEveryTypeMapLikeSinglePixels)
{
    Histogram h(5, 3);
    const std::vector<int> in = runFrame(5, 3, 3);
    h.MeasureFrame(0, in.data(), nullptr);
    h.Update(0);
    const cv::Mat_<int> i32 = cv::Mat_<int>(in, true).reshape(1, 3);
    cv::Mat_<short> s;
    cv::Mat_<float> f;
    cv::Mat_<double> d;
    i32.convertTo(s, CV_16S);
    i32.convertTo(f, CV_32F, 1.0, 0.75);
    i32.convertTo(d, CV_64F);
    std::vector<int> truncated = in, clamped = in;
    for (int& v : truncated)
        v = static_cast<int>(v + 0.75f);  // toward zero
    expectMappedLikePixels(h, s, in);
    expectMappedLikePixels(h, i32, in);
    expectMappedLikePixels(h, f, truncated);
    d(0, 0) = 1e12, d(0, 1) = -1e12, d(0, 2) = std::nan("");
    clamped[0] = 32767, clamped[1] = -32768, clamped[2] = 0;
    expectMappedLikePixels(h, d, clamped);
    cv::Mat_<unsigned short> us(3, 5, static_cast<unsigned short>(40000));
    cv::Mat_<unsigned int> ui(3, 5, 4000000000u);
    expectMappedLikePixels(h, us, std::vector<int>(15, 40000));
    cv::Mat_<unsigned int> uiOut;
    h.processFrame(ui, uiOut);
    // Far above the range like the largest int, not wrapped to a negative one.
    EXPECT_EQ(uiOut(2, 4), static_cast<unsigned>(h.ProcessPixel(INT_MAX)));
    EXPECT_NE(h.ProcessPixel(INT_MAX), h.ProcessPixel(static_cast<int>(4000000000u - 4294967296u)));

    h.SetMode(0);  // copies
    expectMappedLikePixels(h, s, in);
    try {
        h.processFrame(cv::Mat_<short>(5, 3), s);
        FAIL() << "a transposed frame must be refused";
    } catch (const velmor::kro::Exception& e) {
        EXPECT_STREQ(e.what(), "input data size does not correspond to histogram class configuration!");
        EXPECT_NE(std::string(e.where()).find("modules/enhancement/histogram/"), std::string::npos) << e.where();
        EXPECT_NE(std::string(e.where()).find("Histogram::processFrame("), std::string::npos) << e.where();
    }
}

TEST(Histogram, ResultsDoNotDependOnTheThreadCount)
{
    std::vector<std::vector<double>> results;
    const std::vector<int> in = runFrame(160, 120, 4);
    for (int threads : {1, 2, 7}) {
        Histogram h(160, 120);
        h.SetWidth(12);
        h.SetThreads(threads);
        h.MeasureFrame(0, in.data(), nullptr);
        h.Update(0);
        EXPECT_EQ(h.GetLastThreadCount(), threads);
        std::vector<double> r(h.GetLut(), h.GetLut() + 4097);
        r.insert(r.end(), h.GetCurve(), h.GetCurve() + 4096);
        r.insert(r.end(), h.GetLocalGains(), h.GetLocalGains() + h.LocalGainCount());
        cv::Mat_<float> out;
        h.processFrame(cv::Mat_<float>(cv::Mat_<int>(in, true).reshape(1, 120)), out);
        EXPECT_EQ(h.GetLastThreadCount(), threads);
        r.insert(r.end(), out.begin(), out.end());
        results.push_back(r);
    }
    EXPECT_EQ(results[0], results[1]);
    EXPECT_EQ(results[0], results[2]);
}

TEST(Histogram, PipelineMatricesAreCheckedAndServeTheSameSteps)
{
    Histogram h(7, 3), reference(7, 3);
    h.SetHW(1), reference.SetHW(1);
    velmor::kro::Matrix<int> in(3, 7), out(3, 7), bins(4, 1 << 8);
    const std::vector<int> frame = runFrame(7, 3, 2);
    std::copy(frame.begin(), frame.end(), in.data);
    std::vector<int> refBins(reference.BinDataCount()), refOut(21);
    for (int fc : {0, 1}) {
        h.MeasureFrame(fc, in, bins);
        h.ProcessFrame(fc, in, out);
        reference.MeasureFrame(fc, frame.data(), refBins.data());
        reference.ProcessFrame(fc, frame.data(), refOut.data());
        EXPECT_TRUE(std::equal(refBins.begin(), refBins.end(), bins.data));
        EXPECT_TRUE(std::equal(refOut.begin(), refOut.end(), out.data));
    }
    velmor::kro::Matrix<int> wrong(7, 3), small(1, 100);
    EXPECT_THROW(h.MeasureFrame(2, wrong, bins), velmor::kro::Exception);
    EXPECT_THROW(h.MeasureFrame(2, in, small), velmor::kro::Exception);
    EXPECT_THROW(h.ProcessFrame(2, in, wrong), velmor::kro::Exception);
    EXPECT_THROW(Histogram(0, 5), velmor::kro::Exception);
}

TEST(Histogram, AttachmentDataIsTakenWithHalvedScaleAndPedestal)
{
    Histogram h(4, 4);
    h.SetWidth(2);
    const int bins[4] = {70000, 3, -1, 0};
    h.importAttachmentData(bins, -5, 9, -7, 11, 65535, 40001);
    std::vector<int> out(h.BinDataCount());
    h.WriteBinData(out.data());
    EXPECT_EQ(out, (std::vector<int>{70000 - 65536, 1, 3, 0, 65535, -1, 0, 0, -5, 9, -7, 11, 32767, 20000, 22136, 4660}));
}

// Every setter at and beyond its bounds, in both measurements: no value may
// overrun a table, divide by zero or overflow (the sanitizer build runs this).
TEST(Histogram, SettersAtAndBeyondTheirBoundsKeepTheModelSafe)
{
    using Setter = void (Histogram::*)(int);
    const Setter setters[] = {&Histogram::SetMode,  &Histogram::SetWidth,    &Histogram::SetRange,
                              &Histogram::SetOffset, &Histogram::SetSpeed,   &Histogram::SetGamma,
                              &Histogram::SetTridis, &Histogram::SetRangeDis, &Histogram::SetPoffdis,
                              &Histogram::SetLimit,  &Histogram::SetLimit2,  &Histogram::SetGain,
                              &Histogram::SetGainLow, &Histogram::SetGainHigh, &Histogram::SetHW,
                              &Histogram::SetTest};
    const int values[] = {INT_MIN, -65536, -1, 0, 1, 2, 8, 15, 16, 17, 31, 32, 65536, INT_MAX};
    const std::vector<int> in = runFrame(9, 5, 7);
    std::vector<int> out(45);
    for (Setter setter : setters) {
        for (int value : values) {
            for (int hw : {0, 1}) {
                Histogram h(9, 5);
                h.SetHW(hw);
                (h.*setter)(value);
                std::vector<int> bins(h.BinDataCount());
                for (int fc : {0, 1, 1}) {
                    h.MeasureFrame(fc, in.data(), bins.data());
                    h.ProcessFrame(fc, in.data(), out.data());
                    h.Update(fc);
                }
                for (int i = 0; i < h.LocalGainCount(); ++i)
                    ASSERT_TRUE(std::isfinite(h.GetLocalGains()[i])) << value;
                for (int i = 0; i <= h.BinCount(); ++i)
                    ASSERT_TRUE(h.GetLut()[i] >= 0 && h.GetLut()[i] <= 32768) << value;
            }
        }
    }
}

} // namespace
