// kroenhance sr against the C interface fed the same frames, its fallback
// for failed reconstructions, its output types and its frame count.
#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "RawFrames.h"
#include "BurstGenerator.h"
#include "SuperResolutionCAdapter.h"
#include "TestImages.h"

namespace {

namespace fs = std::filesystem;

const cv::Size kLow(96, 80);
const cv::Size kHigh(192, 160);

std::string readText(const std::string& path)
{
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

struct Result {
    int status = -1;
    std::string err;
};

// Runs kroenhance with `args` (already quoted as needed), capturing its
// standard error.
Result kroenhance(const krotest::TempDir& dir, const std::string& args)
{
    const int status = std::system((std::string(KROENHANCE_PATH) + " " + args + " 2>" + dir.file("stderr.txt")).c_str());
    const Result r{WIFEXITED(status) ? WEXITSTATUS(status) : -1, readText(dir.file("stderr.txt"))};
    fs::remove(dir.file("stderr.txt"));
    return r;
}

// Every integer value of `field` in the report, in order.
std::vector<long long> reportIntegers(const std::string& json, const std::string& field)
{
    std::vector<long long> values;
    const std::regex pattern("\"" + field + "\": (-?[0-9]+)[,}]");
    for (auto it = std::sregex_iterator(json.begin(), json.end(), pattern); it != std::sregex_iterator(); ++it)
        values.push_back(std::stoll((*it)[1]));
    return values;
}

int occurrences(const std::string& text, const std::string& what)
{
    int n = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

// A 14-bit burst of a thermal-looking scene with known sub-pixel shifts.
std::vector<cv::Mat_<float>> syntheticRecording(int frames)
{
    krotools::BurstSettings settings;
    settings.frames = frames;
    settings.seed = 7;
    const krotools::Burst burst =
        krotools::generateBurst(krotools::proceduralScene(kHigh.height, kHigh.width, 7), settings);
    return burst.frames;
}

const std::string kDriveCrop = std::string(KROLIB_SOURCE_DIR) + "/data/thermal/drive_crop_160x128x10_u16.raw";

TEST(SrCommand, OutputIsTheCInterfacesAndFailedFramesAreBicubicEnlargements)
{
    krotest::TempDir dir;
    std::vector<cv::Mat_<float>> frames = syntheticRecording(9);
    // A flat frame: nothing to track in any window that holds it (the last
    // three), while the first two windows reconstruct.
    frames[6].setTo(1000.0f);
    krotest::writeRaw(dir.file("in.raw"), frames);

    const Result run = kroenhance(dir, "sr --motion global --size 96x80 --format f32 " + dir.file("in.raw") + " -o " +
                                           dir.file("out.raw") + " --report " + dir.file("r.json"));
    ASSERT_EQ(run.status, 0) << run.err;
    const auto out = krotest::readRaw<float>(dir.file("out.raw"), kHigh);
    ASSERT_EQ(out.size(), 5u) << "one output frame per input frame from the fifth on";
    EXPECT_EQ(fs::file_size(dir.file("out.raw")), 5u * kHigh.area() * sizeof(float));

    // Each output frame is, byte for byte, the C interface's result for its
    // window, or for a window where that failed with -9 the window's
    // reference frame (reference index 3: the fourth newest) enlarged by
    // bicubic interpolation.
    const int handle = SuperResolution_init(kLow.width, kLow.height);
    ASSERT_GE(handle, 0);
    std::vector<long long> codes;
    cv::Mat_<float> expected(kHigh);
    for (int i = 0; i < 9; ++i) {
        const int code = SuperResolution_addImage(handle, frames[i].ptr<float>(0));
        if (i < 4) {
            EXPECT_EQ(code, 0);
            continue;
        }
        codes.push_back(code);
        if (code == -9)
            cv::resize(frames[i - 3], expected, kHigh, 0.0, 0.0, cv::INTER_CUBIC);
        else
            ASSERT_EQ(SuperResolution_getSuperresolutionImage(handle, expected.ptr<float>(0)), 0);
        EXPECT_EQ(std::memcmp(expected.ptr<float>(0), out[i - 4].ptr<float>(0), kHigh.area() * sizeof(float)), 0)
            << "output frame " << i - 4 << " (code " << code << ")";
    }
    SuperResolution_release(handle);
    EXPECT_EQ(codes, (std::vector<long long>{0, 0, -9, -9, -9}));

    const std::string report = readText(dir.file("r.json"));
    EXPECT_EQ(reportIntegers(report, "code"), codes);
    EXPECT_EQ(reportIntegers(report, "reference_input_index"), (std::vector<long long>{1, 2, 3, 4, 5}));
    EXPECT_EQ(occurrences(report, "\"kind\": \"no-tracking\""), 3);

    // One warning for the kind of failure, then the count.
    EXPECT_EQ(occurrences(run.err, "nothing to track"), 1) << run.err;
    EXPECT_NE(run.err.find("output frame 2 (input frame 6): the registration found nothing to track; it is the "
                           "bicubic enlargement of input frame 3 instead"),
              std::string::npos)
        << run.err;
    EXPECT_NE(run.err.find("3 of 5 output frames are bicubic enlargements"), std::string::npos) << run.err;
}

TEST(SrCommand, NothingIsWrittenWhenNoFrameCanBeReconstructed)
{
    krotest::TempDir dir;
    std::vector<cv::Mat_<float>> frames = syntheticRecording(6);
    frames[3].setTo(500.0f);  // in both windows
    krotest::writeRaw(dir.file("in.raw"), frames);
    const Result run = kroenhance(dir, "sr --motion global --size 96x80 --format f32 " + dir.file("in.raw") + " -o " +
                                           dir.file("out_%02d.png") + " --report " + dir.file("r.json"));
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.err.find("no frame could be reconstructed"), std::string::npos) << run.err;
    // The report says why; no image and no temporary file is left.
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(dir.path()))
        names.insert(entry.path().filename().string());
    EXPECT_EQ(names, (std::set<std::string>{"in.raw", "r.json"}));
    const std::string report = readText(dir.file("r.json"));
    EXPECT_EQ(reportIntegers(report, "fallbacks"), std::vector<long long>{2});
    EXPECT_EQ(reportIntegers(report, "reconstructed"), std::vector<long long>{0});
}

// The window and reference options set the frame count and each window's
// reference; the values keep the input's scale, and 16-bit output rounds and
// saturates them. A window as long as the recording gives one TIFF page that
// keeps the float result.
TEST(SrCommand, WindowAndReferenceAreFollowedValuesKeepTheirScaleAndSixteenBitOutputSaturates)
{
    krotest::TempDir dir;
    // The real recording stretched beyond the 16-bit range on both sides,
    // so that the 16-bit outputs must saturate.
    const auto drive = krotest::readRaw<unsigned short>(kDriveCrop, cv::Size(160, 128));
    ASSERT_EQ(drive.size(), 10u);
    const double mean = cv::mean(drive[0])[0];
    double low = 0.0, high = 0.0;
    cv::minMaxLoc(drive[0], &low, &high);
    const double gain = 80000.0 / (high - low);
    std::vector<cv::Mat_<float>> frames(drive.size());
    for (std::size_t i = 0; i < drive.size(); ++i)
        drive[i].convertTo(frames[i], CV_32F, gain, 32768.0 - mean * gain);
    krotest::writeRaw(dir.file("in.raw"), frames);
    // (The corner engine: the phase engine's FFT plans, timed per process,
    // may differ in the last bits between the two runs.)
    const std::string sr = "sr --motion global --window 3 --reference-index 0 --size 160x128 --format f32 " + dir.file("in.raw");

    const Result run = kroenhance(dir, sr + " -o " + dir.file("f.raw") + " --report " + dir.file("r.json"));
    ASSERT_EQ(run.status, 0) << run.err;
    ASSERT_EQ(kroenhance(dir, sr + " --output-format u16 -o " + dir.file("u.raw")).status, 0);
    const std::string report = readText(dir.file("r.json"));
    // Reference index 0 is the newest frame of each window.
    EXPECT_EQ(reportIntegers(report, "reference_input_index"), (std::vector<long long>{2, 3, 4, 5, 6, 7, 8, 9}));
    EXPECT_EQ(reportIntegers(report, "output_index"), (std::vector<long long>{0, 1, 2, 3, 4, 5, 6, 7}));
    const cv::Size high2(320, 256);
    const auto exact = krotest::readRaw<float>(dir.file("f.raw"), high2);
    const auto rounded = krotest::readRaw<unsigned short>(dir.file("u.raw"), high2);
    EXPECT_EQ(fs::file_size(dir.file("f.raw")), 8u * high2.area() * sizeof(float));
    ASSERT_EQ(exact.size(), 8u);
    ASSERT_EQ(rounded.size(), 8u);
    bool below = false, above = false;
    for (std::size_t k = 0; k < exact.size(); ++k) {
        // The input's scale: the reconstruction's mean is its reference frame's.
        EXPECT_NEAR(cv::mean(exact[k])[0], cv::mean(frames[k + 2])[0], 0.01 * 32768.0) << "frame " << k;
        for (int i = 0; i < static_cast<int>(exact[k].total()); ++i) {
            const double v = exact[k](i);
            below |= v < -0.5;
            above |= v >= 65535.5;
            const double expected = std::min(65535.0, std::max(0.0, std::nearbyint(v)));
            ASSERT_EQ(rounded[k](i), expected) << "frame " << k << " sample " << i << " from " << v;
        }
    }
    EXPECT_TRUE(below && above) << "the test input should reach beyond both ends of the 16-bit range";

    ASSERT_EQ(kroenhance(dir, "sr --motion global --window 10 --reference-index 9 --engine phase --size 160x128 --format u16 " + kDriveCrop +
                                  " -o " + dir.file("w10.tif")).status, 0);
    std::vector<cv::Mat> pages;
    ASSERT_TRUE(cv::imreadmulti(dir.file("w10.tif"), pages, cv::IMREAD_UNCHANGED));
    ASSERT_EQ(pages.size(), 1u);
    EXPECT_EQ(pages[0].type(), CV_32FC1);
    EXPECT_EQ(pages[0].size(), high2);
}

} // namespace
