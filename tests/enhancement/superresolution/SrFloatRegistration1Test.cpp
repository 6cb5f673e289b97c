#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include <omp.h>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "Exception.h"
#include "ShiftedFrames.h"
#include "SrFloatRegistration1.h"
#include "TestImages.h"

namespace velmor {
namespace kro {

// Reaches the private peak unwrapping.
class SrFloatRegistration1Peer {
public:
    static PointI unwrapPeak(int index, int width, int height)
    {
        return SrFloatRegistration1::unwrapPeak(index, width, height);
    }
};

namespace {

// What one registration hands back.
struct Registered {
    std::vector<PointF> shifts;    // sub-pixel remainders
    std::vector<PointF> complete;  // complete shifts
    std::vector<std::vector<char>> masks;
    std::vector<cv::Mat_<float>> work;
};

// Runs doRegistration on `frames` (all prepared beforehand).
Registered registerAll(SrFloatRegistration1& reg, std::vector<cv::Mat_<float>>& frames, int refPos)
{
    const int count = static_cast<int>(frames.size());
    const size_t size = static_cast<size_t>(frames[0].total());
    Registered out;
    out.shifts.assign(count, PointF(-99.0f, -99.0f));
    out.masks.assign(count, std::vector<char>(size, 7));
    std::vector<float*> framePtrs, workPtrs;
    std::vector<char*> maskPtrs;
    for (int i = 0; i < count; ++i) {
        out.work.emplace_back(frames[i].size(), -1.0f);
        framePtrs.push_back(frames[i].ptr<float>());
        workPtrs.push_back(out.work.back().ptr<float>());
        maskPtrs.push_back(out.masks[i].data());
    }
    EXPECT_EQ(0, reg.doRegistration(count, refPos, framePtrs.data(), out.shifts.data(), maskPtrs.data(),
                                    workPtrs.data()));
    reg.getCompleteShifts(out.complete);
    return out;
}

Registered prepareAndRegister(SrFloatRegistration1& reg, std::vector<cv::Mat_<float>>& frames, int refPos)
{
    for (cv::Mat_<float>& f : frames)
        reg.prepareFrame(f.ptr<float>());
    return registerAll(reg, frames, refPos);
}

double maskFraction(const std::vector<char>& mask)
{
    size_t ones = 0;
    for (char m : mask)
        ones += m == 1;
    return double(ones) / double(mask.size());
}

// The frame moved circularly by (dx, dy) whole pixels: out(x, y) = in(x - dx, y - dy).
cv::Mat_<float> roll(const cv::Mat_<float>& in, int dx, int dy)
{
    cv::Mat_<float> out(in.size());
    for (int y = 0; y < in.rows; ++y)
        for (int x = 0; x < in.cols; ++x)
            out((y + dy + in.rows) % in.rows, (x + dx + in.cols) % in.cols) = in(y, x);
    return out;
}

cv::Mat_<float> crosswalk()
{
    const std::string path = std::string(KROLIB_SOURCE_DIR) + "/data/thermal/crosswalk_640x512_u16.png";
    cv::Mat raw = cv::imread(path, cv::IMREAD_UNCHANGED);
    cv::Mat_<float> image;
    raw.convertTo(image, CV_32F);
    return image;
}

constexpr int kFactor = 2;

// Frames of a textured scene (160x120 by default) at the given shifts, with
// a light sensor blur.
std::vector<cv::Mat_<float>> sceneFrames(const std::vector<PointF>& shifts, int width = 160, int height = 120,
                                         double noise = 0.0, std::uint64_t seed = 11)
{
    const cv::Mat_<float> scene = krotest::texturedScene(height * kFactor, width * kFactor, seed);
    return krotest::makeShiftedFrames(scene, kFactor, shifts, 0.4, noise, seed);
}

TEST(SrFloatRegistration1, RecoversKnownShiftsToATwentiethOfAPixel)
{
    const std::vector<PointF> truth = {{0.0f, 0.0f},   {0.3f, -0.2f},  {-1.45f, 2.7f},  {3.0f, -2.0f},
                                       {-4.6f, -3.35f}, {5.25f, 0.5f}, {-0.5f, -6.8f}, {2.49f, 4.51f}};
    for (const cv::Size size : {cv::Size(160, 120), cv::Size(320, 240)}) {
        std::vector<cv::Mat_<float>> frames = sceneFrames(truth, size.width, size.height);
        SrFloatRegistration1 reg(size.width, size.height, static_cast<int>(truth.size()));
        const Registered r = prepareAndRegister(reg, frames, 0);
        ASSERT_EQ(truth.size(), r.complete.size());
        for (size_t i = 0; i < truth.size(); ++i) {
            EXPECT_NEAR(truth[i].x, r.complete[i].x, 0.05) << size << " frame " << i;
            EXPECT_NEAR(truth[i].y, r.complete[i].y, 0.05) << size << " frame " << i;
            // The remainder is what the cut leaves of the complete shift.
            EXPECT_FLOAT_EQ(r.complete[i].x - std::floor(r.complete[i].x + 0.5f), r.shifts[i].x);
            EXPECT_FLOAT_EQ(r.complete[i].y - std::floor(r.complete[i].y + 0.5f), r.shifts[i].y);
            std::printf("%d %zu  %.4f %.4f  mask %.3f\n", size.width, i, r.complete[i].x - truth[i].x,
                        r.complete[i].y - truth[i].y, maskFraction(r.masks[i]));
        }
    }
}

} // namespace
} // namespace kro
} // namespace velmor
