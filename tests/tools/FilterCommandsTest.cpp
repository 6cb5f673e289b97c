// The filter commands of kroenhance run on a real recording must give the
// same samples as the library called directly.
#include <sys/wait.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "RawFrames.h"
#include "ClusterPatternRemover.h"
#include "ImageIO.h"
#include "SpatialNoiseRemover.h"
#include "StaticPatternRemover.h"
#include "TemporalNoiseReduction.h"
#include "TestImages.h"
#include "UnsharpMask.h"

namespace {

using namespace velmor::kro;
using Recording = std::vector<cv::Mat_<unsigned short>>;

const cv::Size kSize(160, 128);

// Ten frames of a real 16-bit LWIR driving sequence, with column pattern.
const std::string kData = std::string(KROLIB_SOURCE_DIR) + "/data/thermal/drive_crop_160x128x10_u16.raw";
const std::string kRawInput = " --size 160x128 --format u16 ";

// Runs kroenhance with `args`; returns its exit status.
int kroenhance(const std::string& args)
{
    const int status = std::system((std::string(KROENHANCE_PATH) + " " + args + " 2>/dev/null").c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The recording through a 16-bit filter, which works on the offset binary
// of the samples (value - 32768).
template <class Filter>
Recording filterRecording(Filter&& filter)
{
    Recording out;
    for (const auto& frame : krotest::readRaw<unsigned short>(kData, kSize)) {
        cv::Mat_<short> in, filtered;
        frame.convertTo(in, CV_16S, 1.0, -32768.0);
        filter.process(in, filtered);
        out.emplace_back();
        filtered.convertTo(out.back(), CV_16U, 1.0, 32768.0);
    }
    return out;
}

void expectSameRecording(const Recording& expected, const std::string& path)
{
    const auto actual = krotest::readRaw<unsigned short>(path, kSize);
    ASSERT_EQ(actual.size(), expected.size()) << path;
    for (std::size_t i = 0; i < expected.size(); ++i)
        EXPECT_IMAGES_EQUAL(expected[i], actual[i]) << path << " frame " << i;
}

// Every option reaches its filter parameter; each case changes the recording,
// so that the comparison is not between two copies of the input.
TEST(FilterCommands, TnrSnrAndSprMatchTheLibrary)
{
    krotest::TempDir dir;
    const std::pair<std::string, std::function<Recording()>> cases[] = {
        {"tnr", [] { return filterRecording(TemporalNoiseReduction(10, 15, 60, false)); }},
        {"tnr --control-gain 7 --global-threshold 30 --feedback-factor 80",
         [] { return filterRecording(TemporalNoiseReduction(7, 30, 80, false)); }},
        {"tnr --hw-units --control-gain 9 --feedback-factor 90",
         [] { return filterRecording(TemporalNoiseReduction(9, 15, 90, true)); }},
        {"snr --gain 11", [] { return filterRecording(SpatialNoiseRemover(11)); }},
        {"spr", [] { return filterRecording(StaticPatternRemover(22, 12, 16)); }},
        {"spr --threshold 60 --line-limit 3 --frame-limit 5",
         [] { return filterRecording(StaticPatternRemover(60, 3, 5)); }},
    };
    const Recording input = krotest::readRaw<unsigned short>(kData, kSize);
    for (const auto& [args, filtered] : cases) {
        SCOPED_TRACE(args);
        ASSERT_EQ(kroenhance(args + kRawInput + kData + " -o " + dir.file("out.raw")), 0);
        const Recording expected = filtered();
        expectSameRecording(expected, dir.file("out.raw"));
        int changed = 0;
        for (std::size_t i = 0; i < expected.size(); ++i)
            changed += !krotest::imagesEqual(input[i], expected[i]);
        EXPECT_GT(changed, 0) << "the filter should change the recording";
    }
}

// s16 streams reach a filter by value, f32 streams reach the unsharp mask,
// and 16-bit PNG files in and out carry the samples of the u16 route.
TEST(FilterCommands, SignedFloatAndImageInputsGiveTheLibrarysSamples)
{
    krotest::TempDir dir;
    const Recording frames = krotest::readRaw<unsigned short>(kData, kSize);
    std::vector<cv::Mat_<short>> signedFrames(frames.size());
    std::vector<cv::Mat_<float>> floatFrames(frames.size());
    std::string pngs;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        frames[i].convertTo(signedFrames[i], CV_16S);
        frames[i].convertTo(floatFrames[i], CV_32F, 1.0 / 4096.0);
        pngs += dir.file("in_" + std::to_string(10 + i) + ".png") + " ";
        ASSERT_TRUE(cv::imwrite(dir.file("in_" + std::to_string(10 + i) + ".png"), frames[i]));
    }
    krotest::writeRaw(dir.file("in_s16.raw"), signedFrames);
    krotest::writeRaw(dir.file("in_f32.raw"), floatFrames);
    ASSERT_EQ(kroenhance("spr --size 160x128 --format s16 " + dir.file("in_s16.raw") + " -o " + dir.file("s.raw")), 0);
    ASSERT_EQ(kroenhance("unsharp --amount 1.5 --sigma 1.2 --threshold 0.01 --size 160x128 --format f32 " +
                         dir.file("in_f32.raw") + " -o " + dir.file("u.raw")), 0);
    ASSERT_EQ(kroenhance("tnr " + pngs + "-o " + dir.file("out_%02d.png")), 0);

    const auto spr = krotest::readRaw<short>(dir.file("s.raw"), kSize);
    const auto unsharp = krotest::readRaw<float>(dir.file("u.raw"), kSize);
    ASSERT_EQ(spr.size(), frames.size());
    ASSERT_EQ(unsharp.size(), frames.size());
    StaticPatternRemover filter(22, 12, 16);
    const Recording tnr = filterRecording(TemporalNoiseReduction(10, 15, 60, false));
    for (std::size_t i = 0; i < frames.size(); ++i) {
        cv::Mat_<short> filtered;
        filter.process(signedFrames[i], filtered);
        EXPECT_IMAGES_EQUAL(filtered, spr[i]) << "s16 frame " << i;
        cv::Mat src = floatFrames[i], sharpened;
        ASSERT_EQ(UnsharpMask::unsharp(src, sharpened, 1.5, 1.2, 0.01), 0);
        EXPECT_IMAGES_EQUAL(sharpened, unsharp[i]) << "f32 frame " << i;
        EXPECT_IMAGES_EQUAL(tnr[i], cv::imread(dir.file(cv::format("out_%02d.png", int(i))), cv::IMREAD_UNCHANGED))
            << "png frame " << i;
    }
}

TEST(FilterCommands, ClusterLearnsOverTheRecordingThenApplies)
{
    krotest::TempDir dir;
    ASSERT_EQ(kroenhance("cluster --window 3 --std-limit 25 --mean-limit 150 --alpha 0.3 --mode gaussian" + kRawInput +
                         kData + " -o " + dir.file("c.raw") + " --save-map " + dir.file("map.pfm")), 0);

    // The same with the library: sliding population standard deviation over
    // the last three frames, one update per frame from the third on.
    ClusterPatternRemover remover(3, 3, 25.0f, 0.0f, 150.0f);
    ASSERT_TRUE(remover.setAlphaDamping(0.3f));
    std::vector<cv::Mat_<float>> values;
    for (const auto& f : krotest::readRaw<unsigned short>(kData, kSize)) {
        values.emplace_back();
        f.convertTo(values.back(), CV_32F);
    }
    for (std::size_t k = 2; k < values.size(); ++k) {
        cv::Mat_<float> deviation(kSize);
        for (int p = 0; p < static_cast<int>(deviation.total()); ++p) {
            const double a = values[k - 2](p), b = values[k - 1](p), c = values[k](p), mean = (a + b + c) / 3.0;
            deviation(p) = static_cast<float>(
                std::sqrt(((a - mean) * (a - mean) + (b - mean) * (b - mean) + (c - mean) * (c - mean)) / 3.0));
        }
        remover.updateDamping(values[k], deviation, ClusterPatternRemover::GAUSSIAN);
    }
    Recording expected;
    for (const auto& value : values) {
        cv::Mat_<float> damped;
        remover.applyDamping(value, damped);
        expected.emplace_back();
        damped.convertTo(expected.back(), CV_16U);
    }
    expectSameRecording(expected, dir.file("c.raw"));
    cv::Mat map;
    remover.getDamping(map, true);
    const auto saved = ImageIO::load(dir.file("map.pfm"));
    ASSERT_EQ(saved.size(), 1u);
    EXPECT_IMAGES_EQUAL(map, saved[0]);
    EXPECT_LT(cv::countNonZero(map == 1.0f), static_cast<int>(map.total())) << "something was learnt";
}

} // namespace
