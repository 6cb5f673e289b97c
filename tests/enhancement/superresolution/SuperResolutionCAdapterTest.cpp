// The C interface, exercised through its C header as a C caller would.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "LogFacility.h"
#include "ShiftedFrames.h"
#include "SuperResolutionCAdapter.h"
#include "detail/CInterfaceAccess.h"
#include "TestImages.h"

namespace {

constexpr int kWidth = 64;
constexpr int kHeight = 48;

std::string lastError()
{
    char buffer[256];
    SuperResolution_getErrorMessage(buffer, sizeof(buffer));
    buffer[sizeof(buffer) - 1] = '\0';
    return buffer;
}

// Frames of one textured scene, each moved by a known sub-pixel shift.
std::vector<cv::Mat_<float>> shiftedFrames(int count, std::uint64_t seed)
{
    std::vector<velmor::kro::PointF> shifts;
    for (int i = 0; i < count; ++i)
        shifts.emplace_back(0.25f * (i % 3) + 0.125f * (i % 2), 0.25f * ((i + 1) % 3));
    return krotest::makeShiftedFrames(krotest::texturedScene(kHeight * 2, kWidth * 2, seed), 2, shifts, 0.0, 0.0, 0);
}

// Every test starts and ends with an empty context table and no log.
class CInterface : public ::testing::Test {
protected:
    void TearDown() override
    {
        for (int handle : handles_)
            SuperResolution_release(handle);
        unsetenv("KROLIB_LOG_FILE");
        velmor::kro::LogFacility::getInstance().configureFromEnvironment();
    }
    int init(int width = kWidth, int height = kHeight)
    {
        const int handle = SuperResolution_init(width, height);
        handles_.push_back(handle);
        return handle;
    }
    std::vector<int> handles_;
};

TEST_F(CInterface, HandlesAreSlotIndicesReusedLowestFirst)
{
    EXPECT_EQ(0, init());
    EXPECT_EQ(1, init());
    EXPECT_EQ(0, SuperResolution_release(0));
    EXPECT_EQ(0, init());
    EXPECT_EQ(2, init());
    EXPECT_EQ(0, SuperResolution_release(1));
    EXPECT_EQ(0, SuperResolution_release(0));
    EXPECT_EQ(0, init());
    EXPECT_EQ(1, init());
}

TEST_F(CInterface, InvalidHandlesAreRefusedWithAMessageCopiedLikeStrncpy)
{
    init();
    init();
    ASSERT_EQ(0, SuperResolution_release(1));
    std::vector<float> frame(kWidth * kHeight, 1.0f), mosaic(4 * kWidth * kHeight);
    int w = 0, h = 0;
    for (int handle : {-1, 1, 2, 7}) {
        SuperResolution_getErrorMessage(nullptr, 0);
        EXPECT_EQ(-999, SuperResolution_addImage(handle, frame.data())) << handle;
        EXPECT_EQ("Context invalid.", lastError());
        EXPECT_EQ(-999, SuperResolution_release(handle)) << handle;
        EXPECT_EQ(-999, SuperResolution_queryOutputImageSize(handle, &w, &h)) << handle;
        EXPECT_EQ(-999, SuperResolution_getSuperresolutionImage(handle, mosaic.data())) << handle;
        EXPECT_EQ(-999, SuperResolution_setReferenceFrame(handle, 2)) << handle;
    }

    // Nothing written beyond size and no terminating zero when the text is
    // longer; padded with zeros when it is shorter.
    char small[6] = {'x', 'x', 'x', 'x', 'x', 'x'};
    EXPECT_EQ(0, SuperResolution_getErrorMessage(small, 4));
    EXPECT_EQ(0, std::memcmp("Contx", small, 5));
    char large[24];
    std::memset(large, 'x', sizeof(large));
    SuperResolution_getErrorMessage(large, sizeof(large));
    EXPECT_EQ(0, std::memcmp("Context invalid.\0\0\0\0\0\0\0", large, sizeof(large)));
}

// Images count towards the five of a window even when they are reported as
// flat; from the fifth on each runs a reconstruction, which
// getSuperresolutionImage copies without recomputing. Bad buffers are
// reported, never written through.
TEST_F(CInterface, TheFifthImageReconstructsAndFlatImagesCount)
{
    const int handle = init();
    const std::vector<cv::Mat_<float>> frames = shiftedFrames(6, 11);
    std::vector<float> mosaic(4 * kWidth * kHeight, -7.0f);
    int w = 0, h = 0;
    EXPECT_EQ(-5, SuperResolution_queryOutputImageSize(handle, &w, &h));  // no image yet
    EXPECT_EQ(2 * kWidth, w);
    EXPECT_EQ(2 * kHeight, h);
    EXPECT_EQ(-999, SuperResolution_addImage(handle, nullptr));
    EXPECT_EQ("ir image data pointer is NULL", lastError());
    EXPECT_EQ(-5, SuperResolution_getSuperresolutionImage(handle, nullptr));  // -5 wins over NULL

    const std::vector<float> flat(kWidth * kHeight, 1000.0f);
    EXPECT_EQ(-4, SuperResolution_addImage(handle, flat.data()));
    EXPECT_EQ("  image has not enough structure", lastError());
    for (int i = 1; i < 4; ++i) {
        EXPECT_EQ(0, SuperResolution_addImage(handle, frames[i].ptr<float>(0))) << i;
        EXPECT_EQ(-5, SuperResolution_getSuperresolutionImage(handle, mosaic.data()));
        EXPECT_EQ("Not enough input images (<5)", lastError());
    }
    // The fifth runs the reconstruction, which finds nothing to track in the
    // flat image.
    EXPECT_EQ(-9, SuperResolution_addImage(handle, frames[4].ptr<float>(0)));
    EXPECT_EQ(0, SuperResolution_queryOutputImageSize(handle, &w, &h));
    EXPECT_EQ(0, SuperResolution_getSuperresolutionImage(handle, mosaic.data()));
    EXPECT_EQ(-999, SuperResolution_getSuperresolutionImage(handle, nullptr));
    EXPECT_EQ("Ir mosaic data pointer is NULL.", lastError());

    // With the flat image gone the result is an image of the scene at twice
    // the size: its mean is the frames' mean, and it is not the untouched buffer.
    EXPECT_EQ(0, SuperResolution_addImage(handle, frames[5].ptr<float>(0)));
    EXPECT_EQ(0, SuperResolution_getSuperresolutionImage(handle, mosaic.data()));
    EXPECT_NEAR(cv::mean(frames[5])[0], cv::mean(cv::Mat_<float>(2 * kHeight, 2 * kWidth, mosaic.data()))[0], 5.0);
    std::vector<float> again(mosaic.size());
    SuperResolution_getSuperresolutionImage(handle, again.data());
    EXPECT_EQ(mosaic, again);
    SuperResolution_addImage(handle, frames[1].ptr<float>(0));
    SuperResolution_getSuperresolutionImage(handle, again.data());
    EXPECT_NE(mosaic, again);

    // queryOutputImageSize forces a reconstruction from fewer frames, which
    // getSuperresolutionImage copies while it reports -5.
    const int early = init();
    for (int i = 1; i < 4; ++i)
        SuperResolution_addImage(early, frames[i].ptr<float>(0));
    EXPECT_EQ(-5, SuperResolution_queryOutputImageSize(early, &w, &h));
    std::vector<float> forced(mosaic.size(), -7.0f);
    EXPECT_EQ(-5, SuperResolution_getSuperresolutionImage(early, forced.data()));
    EXPECT_NEAR(cv::mean(frames[3])[0], cv::mean(cv::Mat_<float>(2 * kHeight, 2 * kWidth, forced.data()))[0], 5.0);

    EXPECT_EQ(0, SuperResolution_setReferenceFrame(handle, 0));
    EXPECT_EQ(0, velmor::kro::detail::cInterfaceEngine(handle)->getReferenceIndex());
    // Deliberately not caught by the C interface: the engine's message escapes.
    EXPECT_THROW(SuperResolution_setReferenceFrame(handle, 5), const char*);
}

TEST_F(CInterface, CameraDescriptionsPickTheirSigma)
{
    init();
    const struct { const char* description; float sigma; } cases[] = {
        {"camera k57 FOV 25", 0.35f}, {"camera k57 FOV 23", 0.35f}, {"camera k57 FOV 15", 0.65f},
        {"camera k41 k61 FOV 30", 0.81f}, {"camera k54", 0.683f},  {"camera FOV 30", 0.683f},
        {"k52 FOV -1", 0.683f},           {"k52 FOV 30", 0.01f},    {"k61 FOV wide", 0.683f},
        {"k54 FOV 12", 0.625f},           {"k43FOV7", 0.01f},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(0, SuperResolution_setCameraAndLensType(0, c.description));
        EXPECT_FLOAT_EQ(c.sigma, velmor::kro::detail::cInterfaceEngine(0)->getPsfSigma()) << c.description;
    }
    // A handle that was never given out changes nothing and still returns 0.
    EXPECT_EQ(0, SuperResolution_setCameraAndLensType(9, "camera k41 FOV 30"));
}

std::string readFile(const std::string& path)
{
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

TEST_F(CInterface, LogFileHoldsTheEchoOfEveryCallPrefixedBySourcePositionsWhenAsked)
{
    krotest::TempDir dir;
    setenv("KROLIB_LOG_FILE", dir.file("c.log").c_str(), 1);
    const int handle = init(kWidth, kHeight);
    for (const cv::Mat_<float>& frame : shiftedFrames(5, 14))
        SuperResolution_addImage(handle, frame.ptr<float>(0));
    int w = 0, h = 0;
    SuperResolution_queryOutputImageSize(handle, &w, &h);
    std::vector<float> mosaic(4 * kWidth * kHeight);
    SuperResolution_getSuperresolutionImage(handle, mosaic.data());
    SuperResolution_setReferenceFrame(handle, 2);
    SuperResolution_setCameraAndLensType(handle, "camera k57 FOV 25");
    SuperResolution_release(-1);
    SuperResolution_release(handle);
    handles_.clear();

    const std::string log = readFile(dir.file("c.log"));
    std::ostringstream pointers, mosaicLine;
    pointers << "SuperResolution_queryOutputImageSize(" << handle << " , " << static_cast<const void*>(&w)
             << " , " << static_cast<const void*>(&h) << "\n";
    mosaicLine << "SuperResolution_getSuperresolutionImage(" << handle << " , float* "
               << static_cast<const void*>(mosaic.data()) << ")\n";
    for (const std::string& line :
         {std::string("SuperResolution_init( 64 , 48 )\n"), std::string("  got context number:0\n"),
          std::string("SuperResolution_addImage(0, ...)\n"), std::string("  calling addFrame(...)\n"),
          std::string("  calling processFrame(...)\n"), std::string("  finished processFrame(...)\n"),
          pointers.str(), mosaicLine.str(), std::string("SuperResolution_setReferencFrame(0 , 2)\n"),
          std::string("SuperResolution_setCameraAndLensType(camera k57 FOV 25)\n"),
          std::string("  decoded camera: mk57 FOV: 25\n"), std::string("  using sigma: 0.35\n"),
          std::string("SuperResolution_release( 4294967295 )\n"), std::string("SuperResolution_release( 0 )\n"),
          std::string("  opening debug image stream to: C:/temp/SrFloat.pfm\n")})
        EXPECT_NE(std::string::npos, log.find(line)) << "missing: " << line << "in:\n" << log;
    std::size_t echoes = 0;
    for (std::size_t at = 0; (at = log.find("SuperResolution_addImage(", at)) != std::string::npos; ++at)
        ++echoes;
    EXPECT_EQ(5u, echoes);

    setenv("KROLIB_LOG_FILE", dir.file("positions.log").c_str(), 1);
    velmor::kro::LogFacility::getInstance().setSourcePosition(true);
    init(kWidth, kHeight);
    velmor::kro::LogFacility::getInstance().setSourcePosition(false);
    const std::string positions = readFile(dir.file("positions.log"));
    const std::string prefix = "modules/enhancement/superresolution/SuperResolutionCAdapter, ";
    ASSERT_EQ(0u, positions.find(prefix)) << positions;
    const std::size_t colon = positions.find(" : SuperResolution_init( 64 , 48 )");
    ASSERT_NE(std::string::npos, colon) << positions;
    EXPECT_GT(std::stoi(positions.substr(prefix.size(), colon - prefix.size())), 0);
}

TEST_F(CInterface, ManyCyclesOnSeveralContextsStayClean)
{
    // Run under the sanitizers this also proves that contexts release
    // everything they own.
    const std::vector<cv::Mat_<float>> frames = shiftedFrames(6, 15);
    std::vector<float> mosaic(4 * kWidth * kHeight);
    for (int cycle = 0; cycle < 4; ++cycle) {
        EXPECT_EQ(0, SuperResolution_init(kWidth, kHeight));
        EXPECT_EQ(1, SuperResolution_init(kWidth / 2, kHeight / 2));
        for (const cv::Mat_<float>& frame : frames) {
            cv::Mat_<float> half;
            cv::resize(frame, half, cv::Size(kWidth / 2, kHeight / 2), 0, 0, cv::INTER_AREA);
            SuperResolution_addImage(0, frame.ptr<float>(0));
            SuperResolution_addImage(1, half.ptr<float>(0));
        }
        EXPECT_EQ(0, SuperResolution_getSuperresolutionImage(0, mosaic.data()));
        EXPECT_EQ(0, SuperResolution_release(1));
        EXPECT_EQ(0, SuperResolution_release(0));
    }
}

} // namespace
