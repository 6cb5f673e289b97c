// The enhancer pipeline against its models chained by hand in the test, on
// the frames of a real recording: every stage exact, for every element type,
// across bypass changes, copies, parameter files, odd frame shapes and
// thread counts.
#include <algorithm>
#include <cstdint>
#include <fstream>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "Exception.h"
#include "Histogram.h"
#include "OmbrixImageEnhancer.h"
#include "Peaking.h"
#include "RawFrames.h"
#include "SnrCmod.h"
#include "SprCmod.h"
#include "TestImages.h"
#include "TnrCmod.h"

namespace {

using velmor::kro::CamInternalSettings;
using velmor::kro::OmbrixImageEnhancer;

constexpr int kWidth = 160;
constexpr int kHeight = 128;
constexpr int kPixels = kWidth * kHeight;

// Ten frames of a real 16-bit LWIR driving sequence (values 73..5331), as
// signed samples.
const std::vector<cv::Mat_<short>>& recording()
{
    static const std::vector<cv::Mat_<short>> frames = [] {
        std::vector<cv::Mat_<short>> out;
        const std::string path = std::string(KROLIB_TEST_DATA_DIR) + "/thermal/drive_crop_160x128x10_u16.raw";
        for (const auto& frame : krotest::readRaw<unsigned short>(path, cv::Size(kWidth, kHeight))) {
            cv::Mat_<short> s;
            frame.convertTo(s, CV_16S);
            out.push_back(s);
        }
        return out;
    }();
    return frames;
}

// The two-argument pipeline's values, written out here rather than taken
// from CamInternalSettings' defaults, so that both are checked.
CamInternalSettings cameraDefaults()
{
    CamInternalSettings s;
    CamInternalSettings::Enhancer& e = s.enhancer;
    e.tnrEnable = 2, e.tnrControlGain = 10, e.tnrGlobalThreshold = 15, e.tnrFeedbackFactor = 60;
    e.sprEnable = 2, e.sprThreshold = 22, e.sprFrameLimit = 16, e.sprLineLimit = 12, e.sprDelay = 1;
    e.snrEnable = 2, e.snrGain = 6;
    e.histMode = 3, e.histGain = 4, e.histGainLow = 19, e.histGainHigh = 19181;
    CamInternalSettings::EnhancerExtra& x = s.enhancerExtra;
    x.histWidth = 8, x.histLimit = 8, x.histLimit2 = -842150451;
    x.peakEnable = 1, x.peakCoring = 15, x.peakGain = 14, x.peakLimit = 130, x.peakWidth = 1;
    x.peakReductThres = 20, x.peakReductGain = 30, x.peakSpare = 0;
    return s;
}

// The pipeline's models, chained by hand: TNR, SPR, SNR, histogram measure
// (hardware block) and map, peaking with the local gains, histogram update.
class HandChain {
public:
    HandChain(int width, int height, const CamInternalSettings& s)
        : w(width), h(height), record(s.enhancer), hist(width, height), peak(width, height),
          in(width * height), tnrOut(in.size()), sprOut(in.size()), snrOut(in.size()), histOut(in.size()),
          out(in.size())
    {
        restartTnr();
        restartSpr(1);  // built with delay 1 whatever the record says
        restartSnr();
        const CamInternalSettings::EnhancerExtra& x = s.enhancerExtra;
        hist.SetMode(s.enhancer.histMode);
        hist.SetWidth(x.histWidth);
        hist.SetLimit(x.histLimit);
        hist.SetLimit2(x.histLimit2);
        hist.SetGain(s.enhancer.histGain);
        hist.SetGainLow(s.enhancer.histGainLow);
        hist.SetGainHigh(s.enhancer.histGainHigh);
        peak.SetEnable(x.peakEnable);
        peak.SetGain(x.peakGain);
        peak.SetCoring(x.peakCoring);
        peak.SetLimit(x.peakLimit);
        peak.SetWidth(x.peakWidth);
        peak.SetReductThres(x.peakReductThres);
        peak.SetReductGain(x.peakReductGain);
    }
    HandChain(const HandChain&) = delete;
    HandChain& operator=(const HandChain&) = delete;

    void restartTnr()
    {
        tnr.reset(new TnrCmod(w, h, record.tnrControlGain, record.tnrGlobalThreshold, record.tnrFeedbackFactor,
                              record.tnrEnable == 0 ? 1 : 0, 0));
    }
    void restartSpr(int delay)
    {
        spr.reset(new SprCmod(w, h, record.sprThreshold, record.sprLineLimit, record.sprFrameLimit, delay,
                              record.sprEnable == 0 ? 1 : 0));
    }
    void restartSnr() { snr.reset(new SnrCmod(w, h, record.snrGain, record.snrEnable == 0 ? 1 : 0)); }

    // Runs the first w x h samples of `frame` (in memory order).
    template <typename T>
    void run(const cv::Mat_<T>& frame)
    {
        for (int i = 0; i < w * h; ++i)
            in[i] = static_cast<int>(reinterpret_cast<const T*>(frame.data)[i]);
        tnr->ProcessFrame(in.data(), tnrOut.data());
        spr->ProcessFrame(tnrOut.data(), sprOut.data());
        snr->ProcessFrame(sprOut.data(), snrOut.data());
        std::vector<int> bins(hist.BinDataCount());
        hist.SetHW(1);
        hist.MeasureFrame(count, snrOut.data(), bins.data());
        hist.ProcessFrame(count, snrOut.data(), histOut.data());
        peak.ProcessFrame(histOut.data(), out.data(), hist.GetMode() != 0 ? hist.GetLocalGains() : nullptr);
        hist.Update(count);
        count = 1;
    }

    int w, h;
    CamInternalSettings::Enhancer record;  // the referenced parameters
    std::unique_ptr<TnrCmod> tnr;
    std::unique_ptr<SprCmod> spr;
    std::unique_ptr<SnrCmod> snr;
    Histogram hist;
    Peaking peak;
    std::vector<int> in, tnrOut, sprOut, snrOut, histOut, out;
    int count = 0;
};

::testing::AssertionResult sameInts(const std::vector<int>& expected, const int* actual, const char* stage)
{
    const auto mismatch = std::mismatch(expected.begin(), expected.end(), actual);
    if (mismatch.first == expected.end())
        return ::testing::AssertionSuccess();
    const long index = static_cast<long>(mismatch.first - expected.begin());
    return ::testing::AssertionFailure() << stage << " differs first at sample " << index << ": expected "
                                         << *mismatch.first << ", got " << *mismatch.second;
}

void expectSameStages(const HandChain& chain, OmbrixImageEnhancer& enhancer, int frame)
{
    SCOPED_TRACE("frame " + std::to_string(frame));
    EXPECT_TRUE(sameInts(chain.in, enhancer.getInputArray()->data, "input"));
    EXPECT_TRUE(sameInts(chain.tnrOut, enhancer.getTNRArray()->data, "TNR"));
    EXPECT_TRUE(sameInts(chain.sprOut, enhancer.getSPRArray()->data, "SPR"));
    EXPECT_TRUE(sameInts(chain.snrOut, enhancer.getSNRArray()->data, "SNR"));
    EXPECT_TRUE(sameInts(chain.histOut, enhancer.getHistoArray()->data, "histogram"));
    EXPECT_TRUE(sameInts(chain.out, enhancer.getPeakArray()->data, "peaking"));
}

cv::Mat_<int> toIntMat(const std::vector<int>& values, int rows, int cols)
{
    return cv::Mat_<int>(rows, cols, const_cast<int*>(values.data())).clone();
}

TEST(OmbrixImageEnhancer, EveryStageMatchesTheModelsChainedByHand)
{
    OmbrixImageEnhancer enhancer(kWidth, kHeight);
    HandChain chain(kWidth, kHeight, cameraDefaults());
    EXPECT_EQ(enhancer.getFrameCount(), 0);
    cv::Mat_<short> out;
    for (std::size_t f = 0; f < recording().size(); ++f) {
        cv::Mat_<short> in = recording()[f].clone();
        enhancer.processFrame(in, out);
        chain.run(in);
        expectSameStages(chain, enhancer, static_cast<int>(f));
        cv::Mat_<short> expected;
        toIntMat(chain.out, kHeight, kWidth).convertTo(expected, CV_16S);
        EXPECT_IMAGES_EQUAL(expected, out) << "frame " << f;
        // The count only tells the first frame from the others.
        EXPECT_EQ(enhancer.getFrameCount(), 1);
    }
    // The test is about something: the pipeline changes the frames.
    EXPECT_GT(cv::norm(out, recording().back(), cv::NORM_INF), 1000.0);
}

TEST(OmbrixImageEnhancer, SettingsRecordReplacesEveryDefault)
{
    // The default record builds the two-argument pipeline.
    {
        const CamInternalSettings defaults;
        OmbrixImageEnhancer fromRecord(kWidth, kHeight, &defaults);
        HandChain chain(kWidth, kHeight, cameraDefaults());
        cv::Mat_<short> out;
        for (int f = 0; f < 3; ++f) {
            cv::Mat_<short> in = recording()[f].clone();
            fromRecord.processFrame(in, out);
            chain.run(in);
            expectSameStages(chain, fromRecord, f);
        }
    }
    CamInternalSettings s = cameraDefaults();
    CamInternalSettings::Enhancer& e = s.enhancer;
    e.tnrControlGain = 7, e.tnrGlobalThreshold = 30, e.tnrFeedbackFactor = 80;
    e.sprThreshold = 40, e.sprFrameLimit = 5, e.sprLineLimit = 3, e.sprDelay = 2;
    e.snrEnable = 0, e.snrGain = 11;
    e.histMode = 2, e.histGain = 8, e.histGainLow = 200, e.histGainHigh = 19000;
    CamInternalSettings::EnhancerExtra& x = s.enhancerExtra;
    x.histWidth = 10, x.histLimit = 4;
    x.peakCoring = 5, x.peakGain = 30, x.peakLimit = 60, x.peakReductThres = 10, x.peakReductGain = 100;
    OmbrixImageEnhancer enhancer(kWidth, kHeight, &s);
    HandChain chain(kWidth, kHeight, s);
    ASSERT_EQ(enhancer.getHistoBinArray()->count, 4 << 10);
    cv::Mat_<short> out;
    for (int f = 0; f < 5; ++f) {
        cv::Mat_<short> in = recording()[f].clone();
        enhancer.processFrame(in, out);
        chain.run(in);
        expectSameStages(chain, enhancer, f);
    }
    // The bypassed spatial stage copies its input.
    EXPECT_TRUE(sameInts(chain.sprOut, enhancer.getSNRArray()->data, "bypassed SNR"));

    EXPECT_THROW(OmbrixImageEnhancer(kWidth, kHeight, nullptr), velmor::kro::Exception);
    e.sprDelay = 3;  // the pattern model would end the process when re-created
    EXPECT_THROW(OmbrixImageEnhancer(kWidth, kHeight, &s), velmor::kro::Exception);
    EXPECT_THROW(OmbrixImageEnhancer(0, kHeight), velmor::kro::Exception);
}

// Every element type gives the samples of the short frames; the int frames
// are not copied: the input buffer is the caller's frame and the output is
// the pipeline's peaking buffer.
TEST(OmbrixImageEnhancer, EveryElementTypeGivesTheSameSamples)
{
    std::vector<cv::Mat_<short>> frames;
    for (int f = 0; f < 4; ++f)
        frames.push_back(recording()[f] - 3000);  // negative samples too
    std::vector<cv::Mat_<short>> expected;
    OmbrixImageEnhancer reference(kWidth, kHeight);
    for (const cv::Mat_<short>& frame : frames) {
        cv::Mat_<short> in = frame.clone(), out;
        reference.processFrame(in, out);
        expected.push_back(out.clone());
    }
    // Unsigned 16-bit frames hold the same 16-bit patterns (the models read
    // the low 16 bits); the others hold the same values.
    const auto check = [&](auto sample) {
        using T = decltype(sample);
        OmbrixImageEnhancer enhancer(kWidth, kHeight);
        for (std::size_t f = 0; f < frames.size(); ++f) {
            cv::Mat_<T> in, out;
            if (std::is_same<T, unsigned short>::value)
                in = cv::Mat_<T>(kHeight, kWidth, reinterpret_cast<T*>(frames[f].data)).clone();
            else
                frames[f].convertTo(in, cv::DataType<T>::depth);
            enhancer.processFrame(in, out);
            cv::Mat_<short> back;
            out.convertTo(back, CV_16S);
            EXPECT_IMAGES_EQUAL(expected[f], back) << "frame " << f << ", " << sizeof(T) << "-byte type";
        }
    };
    check(static_cast<unsigned short>(0));
    check(0.0f);
    check(0.0);

    OmbrixImageEnhancer enhancer(kWidth, kHeight);
    cv::Mat_<int> in, out;
    frames[0].convertTo(in, CV_32S);
    enhancer.processFrame(in, out);
    EXPECT_EQ(enhancer.getInputArray()->data, reinterpret_cast<int*>(in.data));
    EXPECT_EQ(reinterpret_cast<int*>(out.data), enhancer.getPeakArray()->data);
    const cv::Mat_<int> first = out.clone();
    cv::Mat_<int> next;
    frames[1].convertTo(next, CV_32S);
    enhancer.processFrame(next, out);
    EXPECT_EQ(reinterpret_cast<int*>(out.data), enhancer.getPeakArray()->data);
    cv::Mat_<short> shown;
    out.convertTo(shown, CV_16S);
    EXPECT_IMAGES_EQUAL(expected[1], shown);  // the next frame overwrote the first's output
    EXPECT_GT(cv::norm(first, out, cv::NORM_INF), 0.0);

    // A short frame after an int frame is read into the pipeline's own buffer.
    cv::Mat_<short> third = frames[2].clone(), thirdOut;
    enhancer.processFrame(third, thirdOut);
    EXPECT_NE(enhancer.getInputArray()->data, reinterpret_cast<int*>(next.data));
    EXPECT_IMAGES_EQUAL(expected[2], thirdOut);

    // Floats are truncated toward zero, unsigned ints taken as their bits.
    OmbrixImageEnhancer truncating(kWidth, kHeight);
    cv::Mat_<float> fractional(kHeight, kWidth, 100.75f), fractionalOut;
    fractional(0, 1) = -100.75f;
    truncating.processFrame(fractional, fractionalOut);
    EXPECT_EQ(truncating.getInputArray()->data[0], 100);
    EXPECT_EQ(truncating.getInputArray()->data[1], -100);
    cv::Mat_<unsigned int> bits(kHeight, kWidth), bitsOut;
    std::fill(reinterpret_cast<unsigned int*>(bits.data), reinterpret_cast<unsigned int*>(bits.data) + kPixels,
              0xFFFFFFF0u);
    truncating.processFrame(bits, bitsOut);
    EXPECT_EQ(truncating.getInputArray()->data[0], -16);
}

// Re-creating a model restarts it from its first frame; the same enable
// value again changes nothing.
TEST(OmbrixImageEnhancer, BypassRecreatesTheModelFromItsFirstFrame)
{
    OmbrixImageEnhancer enhancer(kWidth, kHeight);
    HandChain chain(kWidth, kHeight, cameraDefaults());
    cv::Mat_<short> out;
    const auto step = [&](int f) {
        cv::Mat_<short> in = recording()[f].clone();
        enhancer.processFrame(in, out);
        chain.run(in);
        expectSameStages(chain, enhancer, f);
    };
    step(0), step(1), step(2);

    enhancer.tnrSetBypass(0);
    enhancer.sprSetBypass(0);
    enhancer.snrSetBypass(0);
    chain.record.tnrEnable = chain.record.sprEnable = chain.record.snrEnable = 0;
    chain.restartTnr(), chain.restartSpr(1), chain.restartSnr();
    step(3);
    EXPECT_TRUE(sameInts(chain.in, enhancer.getSNRArray()->data, "three bypassed stages"));

    enhancer.tnrSetBypass(1);
    enhancer.sprSetBypass(1);
    chain.record.tnrEnable = chain.record.sprEnable = 1;
    chain.restartTnr(), chain.restartSpr(1);
    step(4), step(5);
    enhancer.tnrSetBypass(1);  // unchanged: the learnt state stays
    enhancer.sprSetBypass(1);
    step(6);
    enhancer.tnrSetBypass(2);  // another running value: a new model
    chain.record.tnrEnable = 2;
    chain.restartTnr();
    step(7);
    EXPECT_TRUE(sameInts(chain.sprOut, enhancer.getSNRArray()->data, "still bypassed SNR"));
}

TEST(OmbrixImageEnhancer, FrameOfAnotherSizeIsReadWithTheConfiguredSize)
{
    OmbrixImageEnhancer normal(kWidth, kHeight), odd(kWidth, kHeight);
    for (int f = 0; f < 3; ++f) {
        cv::Mat_<short> in = recording()[f].clone(), expected;
        normal.processFrame(in, expected);
        // A wider frame whose memory starts with the same samples.
        cv::Mat_<short> wide(kHeight, kWidth + 40, short(-1)), out;
        std::copy(in.begin(), in.end(), wide.begin());
        odd.processFrame(wide, out);
        ASSERT_EQ(out.size(), wide.size());
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), out.begin())) << "frame " << f;
        EXPECT_TRUE(std::all_of(out.begin() + kPixels, out.end(), [](short v) { return v == 0; }));
    }
    // An int frame of another shape gives a view of the configured shape,
    // never one beyond the pipeline's buffer.
    cv::Mat_<int> wideInt(kHeight * 2, kWidth, 7), intOut;
    odd.processFrame(wideInt, intOut);
    EXPECT_EQ(intOut.size(), cv::Size(kWidth, kHeight));

    cv::Mat_<short> small(kHeight - 1, kWidth, short(0)), out;
    EXPECT_THROW(odd.processFrame(small, out), velmor::kro::Exception);
    cv::Mat_<short> big(kHeight * 2, kWidth * 2, short(0));
    cv::Mat_<short> strided = big(cv::Rect(0, 0, kWidth, kHeight));
    EXPECT_THROW(odd.processFrame(strided, out), velmor::kro::Exception);
}

TEST(OmbrixImageEnhancer, ThreadCountDoesNotChangeTheBytes)
{
    std::vector<std::vector<cv::Mat_<float>>> results;
    for (int threads : {1, 2, 7}) {
        OmbrixImageEnhancer enhancer(kWidth, kHeight);
        ASSERT_TRUE(enhancer.setThreads(threads));
        results.emplace_back();
        for (int f = 0; f < 4; ++f) {
            cv::Mat_<float> in, out;
            recording()[f].convertTo(in, CV_32F);
            enhancer.processFrame(in, out);
            results.back().push_back(out.clone());
        }
#ifdef _OPENMP
        EXPECT_EQ(enhancer.getLastThreadCount(), threads);
#endif
    }
    for (std::size_t t = 1; t < results.size(); ++t)
        for (std::size_t f = 0; f < results[0].size(); ++f)
            EXPECT_EQ(cv::norm(results[0][f], results[t][f], cv::NORM_INF), 0.0) << "run " << t << " frame " << f;
    OmbrixImageEnhancer enhancer(kWidth, kHeight);
    EXPECT_FALSE(enhancer.setThreads(-1));
}

// A copy runs on its own parameters and buffers: the original may change or
// go away. Its histogram and peaking state are those of the original; its
// noise and pattern models start from their first frame.
TEST(OmbrixImageEnhancer, CopiesOwnTheirModelsParametersAndBuffers)
{
    auto original = std::make_unique<OmbrixImageEnhancer>(kWidth, kHeight);
    HandChain chain(kWidth, kHeight, cameraDefaults());
    cv::Mat_<short> out;
    for (int f = 0; f < 3; ++f) {
        cv::Mat_<short> in = recording()[f].clone();
        original->processFrame(in, out);
        chain.run(in);
    }
    OmbrixImageEnhancer copy(*original);
    OmbrixImageEnhancer assigned(32, 16);
    assigned = *original;
    HandChain copyChain(kWidth, kHeight, cameraDefaults());
    copyChain.hist = chain.hist;
    copyChain.count = 1;
    EXPECT_TRUE(sameInts(chain.out, copy.getPeakArray()->data, "copied peaking buffer"));
    EXPECT_NE(copy.getPeakArray()->data, original->getPeakArray()->data);

    original->tnrSetCGain(2);
    chain.record.tnrControlGain = 2;
    copy.tnrSetCGain(5);
    copyChain.record.tnrControlGain = 5;
    for (int f = 3; f < 6; ++f) {
        cv::Mat_<short> in = recording()[f].clone(), copyOut, assignedOut;
        original->processFrame(in, out);
        copy.processFrame(in, copyOut);
        assigned.processFrame(in, assignedOut);
        chain.run(in);
        copyChain.run(in);
        expectSameStages(chain, *original, f);
        expectSameStages(copyChain, copy, f);
        if (f == 3) {
            EXPECT_TRUE(sameInts(copyChain.in, assigned.getTNRArray()->data, "restarted TNR of the assigned copy"));
        }
    }
    original.reset();
    copy.snrSetGain(20);
    copyChain.record.snrGain = 20;
    for (int f = 6; f < 8; ++f) {
        cv::Mat_<short> in = recording()[f].clone(), copyOut;
        copy.processFrame(in, copyOut);
        copyChain.run(in);
        expectSameStages(copyChain, copy, f);
    }
}

TEST(OmbrixImageEnhancer, ParameterFilesAreReadAsTheModelsReadThem)
{
    krotest::TempDir dir;
    const std::string path = dir.file("enhancer.ini");
    std::ofstream(path) << "[Histogram_Parameter]\nmode=4\ngamma=5\nwidth=0x9\n"
                           "[Peaking_Parameter]\ngain=40\ncoring=010\nreduct_thres=5\n";
    OmbrixImageEnhancer enhancer(kWidth, kHeight, path.c_str(), path.c_str());
    HandChain chain(kWidth, kHeight, cameraDefaults());
    chain.hist.SetParam(path.c_str());
    chain.peak.SetParam(path.c_str());
    ASSERT_EQ(enhancer.histGetWidth(), 9);
    ASSERT_GE(enhancer.getHistoBinArray()->count, chain.hist.BinDataCount());
    cv::Mat_<short> out;
    for (int f = 0; f < 3; ++f) {
        cv::Mat_<short> in = recording()[f].clone();
        enhancer.processFrame(in, out);
        chain.run(in);
        expectSameStages(chain, enhancer, f);
    }

    // Unreadable files: the models' messages, the defaults kept.
    const std::string missing = dir.file("none.ini");
    ::testing::internal::CaptureStdout();
    OmbrixImageEnhancer defaults(kWidth, kHeight, missing.c_str(), missing.c_str());
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "histo: Cannot read " + missing + "\npeak: Cannot read " + missing + "\n");
    OmbrixImageEnhancer plain(kWidth, kHeight);
    cv::Mat_<short> a, b;
    for (int f = 0; f < 2; ++f) {
        cv::Mat_<short> in = recording()[f].clone();
        defaults.processFrame(in, a);
        plain.processFrame(in, b);
        EXPECT_IMAGES_EQUAL(b, a);
    }
}

} // namespace
