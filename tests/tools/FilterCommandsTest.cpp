// The filter commands of kroenhance run on a real recording must give the
// same samples as the library called directly.
#include <sys/wait.h>

#include <cmath>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "ClusterPatternRemover.h"
#include "ImageIO.h"
#include "SpatialNoiseRemover.h"
#include "StaticPatternRemover.h"
#include "TemporalNoiseReduction.h"
#include "TestImages.h"
#include "UnsharpMask.h"

namespace {

namespace fs = std::filesystem;

const cv::Size kSize(160, 128);
const int kFrames = 10;

// Ten frames of a real 16-bit LWIR driving sequence, with column pattern.
std::string dataFile() { return std::string(KROLIB_SOURCE_DIR) + "/data/thermal/drive_crop_160x128x10_u16.raw"; }

// Runs kroenhance with `args`; returns its exit status.
int kroenhance(const std::string& args)
{
    const std::string command = std::string(KROENHANCE_PATH) + " " + args + " 2>/dev/null";
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

template <class T>
std::vector<cv::Mat_<T>> readRaw(const std::string& path, cv::Size size)
{
    std::ifstream in(path, std::ios::binary);
    std::vector<cv::Mat_<T>> frames;
    while (true) {
        cv::Mat_<T> frame(size);
        in.read(reinterpret_cast<char*>(frame.data), static_cast<std::streamsize>(frame.total() * sizeof(T)));
        if (!in)
            break;
        frames.push_back(frame);
    }
    return frames;
}

template <class T>
void writeRaw(const std::string& path, const std::vector<cv::Mat_<T>>& frames)
{
    std::ofstream out(path, std::ios::binary);
    for (const auto& f : frames)
        out.write(reinterpret_cast<const char*>(f.data), static_cast<std::streamsize>(f.total() * sizeof(T)));
}

std::vector<cv::Mat_<unsigned short>> recording() { return readRaw<unsigned short>(dataFile(), kSize); }

// u16 frames in the filters' offset binary, and back.
cv::Mat_<short> toSigned(const cv::Mat_<unsigned short>& frame)
{
    cv::Mat_<short> out(frame.size());
    for (int i = 0; i < static_cast<int>(frame.total()); ++i)
        out(i) = static_cast<short>(frame(i) - 32768);
    return out;
}

cv::Mat_<unsigned short> toUnsigned(const cv::Mat_<short>& frame)
{
    cv::Mat_<unsigned short> out(frame.size());
    for (int i = 0; i < static_cast<int>(frame.total()); ++i)
        out(i) = static_cast<unsigned short>(frame(i) + 32768);
    return out;
}

template <class Filter>
std::vector<cv::Mat_<unsigned short>> filterRecording(Filter& filter)
{
    std::vector<cv::Mat_<unsigned short>> out;
    for (const auto& frame : recording()) {
        cv::Mat_<short> filtered;
        filter.process(toSigned(frame), filtered);
        out.push_back(toUnsigned(filtered));
    }
    return out;
}

void expectSameRecording(const std::vector<cv::Mat_<unsigned short>>& expected, const std::string& path)
{
    const auto actual = readRaw<unsigned short>(path, kSize);
    ASSERT_EQ(actual.size(), expected.size()) << path;
    for (std::size_t i = 0; i < expected.size(); ++i)
        EXPECT_IMAGES_EQUAL(expected[i], actual[i]) << path << " frame " << i;
}

const std::string kRawInput = "--size 160x128 --format u16 ";

TEST(FilterCommands, TnrMatchesLibrary)
{
    krotest::TempDir dir;
    ASSERT_EQ(kroenhance("tnr " + kRawInput + dataFile() + " -o " + dir.file("d.raw")), 0);
    velmor::kro::TemporalNoiseReduction defaults(10, 15, 60, false);
    expectSameRecording(filterRecording(defaults), dir.file("d.raw"));

    ASSERT_EQ(kroenhance("tnr --control-gain 7 --global-threshold 30 --feedback-factor 80 " + kRawInput +
                         dataFile() + " -o " + dir.file("p.raw")), 0);
    velmor::kro::TemporalNoiseReduction custom(7, 30, 80, false);
    expectSameRecording(filterRecording(custom), dir.file("p.raw"));

    ASSERT_EQ(kroenhance("tnr --hw-units --control-gain 9 --feedback-factor 90 " + kRawInput + dataFile() +
                         " -o " + dir.file("h.raw")), 0);
    velmor::kro::TemporalNoiseReduction hardware(9, 15, 90, true);
    expectSameRecording(filterRecording(hardware), dir.file("h.raw"));
}

TEST(FilterCommands, SnrMatchesLibrary)
{
    krotest::TempDir dir;
    ASSERT_EQ(kroenhance("snr --gain 11 " + kRawInput + dataFile() + " -o " + dir.file("s.raw")), 0);
    velmor::kro::SpatialNoiseRemover filter(11);
    expectSameRecording(filterRecording(filter), dir.file("s.raw"));
}

TEST(FilterCommands, SprMatchesLibrary)
{
    krotest::TempDir dir;
    ASSERT_EQ(kroenhance("spr " + kRawInput + dataFile() + " -o " + dir.file("d.raw")), 0);
    velmor::kro::StaticPatternRemover defaults(22, 12, 16);
    expectSameRecording(filterRecording(defaults), dir.file("d.raw"));

    ASSERT_EQ(kroenhance("spr --threshold 60 --line-limit 3 --frame-limit 5 " + kRawInput + dataFile() +
                         " -o " + dir.file("p.raw")), 0);
    velmor::kro::StaticPatternRemover custom(60, 3, 5);
    const auto expected = filterRecording(custom);
    expectSameRecording(expected, dir.file("p.raw"));
    EXPECT_FALSE(krotest::imagesEqual(recording()[3], expected[3])) << "the pattern should be corrected";
}

TEST(FilterCommands, SignedStreamsAndImageFilesGiveTheSameSamples)
{
    krotest::TempDir dir;
    // The same recording as s16 samples by value.
    std::vector<cv::Mat_<short>> signedFrames;
    for (const auto& f : recording()) {
        cv::Mat_<short> s;
        f.convertTo(s, CV_16S);
        signedFrames.push_back(s);
    }
    writeRaw(dir.file("in_s16.raw"), signedFrames);
    ASSERT_EQ(kroenhance("spr --size 160x128 --format s16 " + dir.file("in_s16.raw") + " -o " + dir.file("s.raw")), 0);
    velmor::kro::StaticPatternRemover filter(22, 12, 16);
    const auto expected = readRaw<short>(dir.file("s.raw"), kSize);
    ASSERT_EQ(expected.size(), static_cast<std::size_t>(kFrames));
    for (int i = 0; i < kFrames; ++i) {
        cv::Mat_<short> out;
        filter.process(signedFrames[i], out);
        EXPECT_IMAGES_EQUAL(out, expected[i]) << "frame " << i;
    }

    // 16-bit PNG files in and out give the bytes of the raw u16 route.
    const auto frames = recording();
    std::string inputs;
    for (int i = 0; i < kFrames; ++i) {
        const std::string name = dir.file("in_" + std::to_string(10 + i) + ".png");
        ASSERT_TRUE(cv::imwrite(name, frames[i]));
        inputs += name + " ";
    }
    ASSERT_EQ(kroenhance("tnr " + inputs + "-o " + dir.file("out_%02d.png")), 0);
    ASSERT_EQ(kroenhance("tnr " + kRawInput + dataFile() + " -o " + dir.file("t.raw")), 0);
    const auto viaRaw = readRaw<unsigned short>(dir.file("t.raw"), kSize);
    for (int i = 0; i < kFrames; ++i)
        EXPECT_IMAGES_EQUAL(viaRaw[i], cv::imread(dir.file(cv::format("out_%02d.png", i)), cv::IMREAD_UNCHANGED))
            << "frame " << i;
}

TEST(FilterCommands, UnsharpMatchesLibraryOnFloatStreams)
{
    krotest::TempDir dir;
    std::vector<cv::Mat_<float>> frames;
    for (const auto& f : recording()) {
        cv::Mat_<float> scaled;
        f.convertTo(scaled, CV_32F, 1.0 / 4096.0);
        frames.push_back(scaled);
    }
    writeRaw(dir.file("in.raw"), frames);
    ASSERT_EQ(kroenhance("unsharp --amount 1.5 --sigma 1.2 --threshold 0.01 --size 160x128 --format f32 " +
                         dir.file("in.raw") + " -o " + dir.file("u.raw")), 0);
    const auto actual = readRaw<float>(dir.file("u.raw"), kSize);
    ASSERT_EQ(actual.size(), frames.size());
    for (std::size_t i = 0; i < frames.size(); ++i) {
        cv::Mat src = frames[i], expected;
        ASSERT_EQ(velmor::kro::UnsharpMask::unsharp(src, expected, 1.5, 1.2, 0.01), 0);
        EXPECT_IMAGES_EQUAL(expected, actual[i]) << "frame " << i;
    }
    EXPECT_EQ(kroenhance("unsharp " + kRawInput + dataFile() + " -o " + dir.file("bad.raw")), 1)
        << "16-bit frames are refused";
    EXPECT_FALSE(fs::exists(dir.file("bad.raw")));
}

TEST(FilterCommands, ClusterLearnsOverTheRecordingThenApplies)
{
    krotest::TempDir dir;
    ASSERT_EQ(kroenhance("cluster --window 3 --std-limit 25 --mean-limit 150 --alpha 0.3 --mode gaussian " +
                         kRawInput + dataFile() + " -o " + dir.file("c.raw") + " --save-map " +
                         dir.file("map.pfm")), 0);

    // The same with the library: sliding population standard deviation over
    // the last three frames, one update per frame from the third on.
    velmor::kro::ClusterPatternRemover remover(3, 3, 25.0f, 0.0f, 150.0f);
    ASSERT_TRUE(remover.setAlphaDamping(0.3f));
    std::deque<cv::Mat_<float>> window;
    std::vector<cv::Mat_<float>> asFloat;
    for (const auto& f : recording()) {
        cv::Mat_<float> value;
        f.convertTo(value, CV_32F);
        asFloat.push_back(value);
        window.push_back(value);
        if (window.size() > 3)
            window.pop_front();
        if (window.size() < 3)
            continue;
        cv::Mat_<float> deviation(kSize);
        for (int p = 0; p < static_cast<int>(deviation.total()); ++p) {
            double sum = 0.0, squares = 0.0;
            for (const auto& w : window)
                sum += w(p);
            const double mean = sum / 3.0;
            for (const auto& w : window)
                squares += (w(p) - mean) * (w(p) - mean);
            deviation(p) = static_cast<float>(std::sqrt(squares / 3.0));
        }
        remover.updateDamping(value, deviation, velmor::kro::ClusterPatternRemover::GAUSSIAN);
    }
    std::vector<cv::Mat_<unsigned short>> expected;
    for (const auto& value : asFloat) {
        cv::Mat_<float> damped;
        remover.applyDamping(value, damped);
        cv::Mat_<unsigned short> out;
        damped.convertTo(out, CV_16U);
        expected.push_back(out);
    }
    expectSameRecording(expected, dir.file("c.raw"));
    cv::Mat map;
    remover.getDamping(map, true);
    const auto saved = velmor::kro::ImageIO::load(dir.file("map.pfm"));
    ASSERT_EQ(saved.size(), 1u);
    EXPECT_IMAGES_EQUAL(map, saved[0]);
    EXPECT_LT(cv::countNonZero(map == 1.0f), static_cast<int>(map.total())) << "something was learnt";
}

TEST(FilterCommands, FailedRunsLeaveNoFiles)
{
    krotest::TempDir dir;
    std::ofstream(dir.file("odd.raw"), std::ios::binary) << "12345";
    EXPECT_EQ(kroenhance("tnr " + kRawInput + dir.file("odd.raw") + " -o " + dir.file("a.raw")), 1);
    EXPECT_EQ(kroenhance("snr " + kRawInput + dir.file("missing.raw") + " -o " + dir.file("b.raw")), 1);
    EXPECT_EQ(kroenhance("spr --threshold 101 " + kRawInput + dataFile() + " -o " + dir.file("c.raw")), 2);
    EXPECT_EQ(kroenhance("cluster " + kRawInput + dataFile() + " -o " + dir.file("one.png")), 1)
        << "ten frames do not fit one PNG";
    std::vector<std::string> left;
    for (const auto& entry : fs::directory_iterator(dir.path()))
        left.push_back(entry.path().filename().string());
    EXPECT_EQ(left, std::vector<std::string>{"odd.raw"});
}

} // namespace
