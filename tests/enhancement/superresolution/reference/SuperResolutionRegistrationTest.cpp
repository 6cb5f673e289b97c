#include <gtest/gtest.h>

#include <vector>

#include "Exception.h"
#include "ReferenceTestSupport.h"
#include "RegisteredFrames.h"
#include "ShiftedFrames.h"
#include "SrFloatRegistration1.h"
#include "SuperResolutionRegistration.h"
#include "TestImages.h"

namespace velmor {
namespace kro {
namespace {

constexpr int kWidth = 160;
constexpr int kHeight = 120;

// The spectra the reference registration is handed, made with its own
// transform, and the pointer list it takes.
struct Spectra {
    Spectra(SuperResolutionRegistration& reg, std::vector<cv::Mat_<float>>& frames)
    {
        for (cv::Mat_<float>& frame : frames) {
            storage.emplace_back(2 * reg.getSpectrumSize(), 0.0f);
            reg.getFft().forward(frame.ptr<float>(), reinterpret_cast<float(*)[2]>(storage.back().data()));
            pointers.push_back(reinterpret_cast<float(*)[2]>(storage.back().data()));
        }
    }
    std::vector<std::vector<float>> storage;
    std::vector<float (*)[2]> pointers;
};

int registerReference(SuperResolutionRegistration& reg, krotest::RegisteredFrames& r, Spectra& spectra, int refPos)
{
    r.rc = reg.doRegistration(static_cast<int>(r.framePtrs.size()), refPos, r.framePtrs.data(),
                              spectra.pointers.data(), r.shifts.data(), r.maskPtrs.data(), r.workPtrs.data());
    reg.getCompleteShifts(r.complete);
    return r.rc;
}

// Handed the spectra, the reference registration finds what the float
// registration finds from its own ring: the same shifts, masks and cut
// frames, to the bit (a frame with a dropped corner included).
TEST(SuperResolutionRegistration, GivesTheFloatRegistrationsResultsFromHandedSpectra)
{
    const cv::Mat_<float> scene = krotest::texturedScene(2 * kHeight, 2 * kWidth, 11);
    std::vector<cv::Mat_<float>> frames = krotest::makeShiftedFrames(
        scene, 2, {{0.0f, 0.0f}, {1.3f, -0.4f}, {-2.6f, 0.7f}, {0.4f, 2.2f}, {-0.5f, -1.5f}}, 0.34, 2.0, 8);
    frames[4](cv::Rect(0, 0, 30, 25)).setTo(900.0f);

    SrFloatRegistration1 plain(kWidth, kHeight, 5);
    for (cv::Mat_<float>& frame : frames)
        plain.prepareFrame(frame.ptr<float>());
    krotest::RegisteredFrames expected(frames);
    ASSERT_EQ(0, expected.run(plain, 3));

    SuperResolutionRegistration reference(kWidth, kHeight, 2.0f, 5);
    Spectra spectra(reference, frames);
    krotest::RegisteredFrames actual(frames);
    ASSERT_EQ(0, registerReference(reference, actual, spectra, 3));

    for (std::size_t i = 0; i < frames.size(); ++i) {
        EXPECT_EQ(expected.shifts[i].x, actual.shifts[i].x) << "frame " << i;
        EXPECT_EQ(expected.shifts[i].y, actual.shifts[i].y) << "frame " << i;
        EXPECT_EQ(expected.complete[i].x, actual.complete[i].x) << "frame " << i;
        EXPECT_EQ(expected.complete[i].y, actual.complete[i].y) << "frame " << i;
        EXPECT_EQ(expected.masks[i], actual.masks[i]) << "frame " << i;
        EXPECT_TRUE(krotest::sameFloatBytes(expected.work[i], actual.work[i])) << "frame " << i;
    }
    // Against frame 3, moved by (0.4, 2.2): (-2.6 - 0.4, 0.7 - 2.2).
    EXPECT_NEAR(-3.0f, actual.complete[2].x, 0.15f);
    EXPECT_NEAR(-1.5f, actual.complete[2].y, 0.15f);
    EXPECT_EQ(5, reference.getGaussRadius());
}

// A frame moved by 70 columns (more than half of the 120 rows, the bound of
// both axes) is reported by value; the cut frames are left as they were and
// the complete shifts show the culprit.
TEST(SuperResolutionRegistration, ReportsAShiftBeyondHalfTheHeightAndCutsNothing)
{
    const cv::Mat_<float> scene = krotest::texturedScene(kHeight, kWidth, 12);
    cv::Mat_<float> rolled(kHeight, kWidth);
    scene(cv::Rect(0, 0, kWidth - 70, kHeight)).copyTo(rolled(cv::Rect(70, 0, kWidth - 70, kHeight)));
    scene(cv::Rect(kWidth - 70, 0, 70, kHeight)).copyTo(rolled(cv::Rect(0, 0, 70, kHeight)));
    std::vector<cv::Mat_<float>> frames = {scene.clone(), rolled};

    SuperResolutionRegistration reference(kWidth, kHeight, 2.0f, 5);
    Spectra spectra(reference, frames);
    krotest::RegisteredFrames r(frames);
    EXPECT_EQ(SuperResolutionRegistration::kTooLargeDisplacement, registerReference(reference, r, spectra, 0));
    EXPECT_NEAR(70.0f, r.complete[1].x, 0.5f);
    for (const cv::Mat_<float>& work : r.work)
        EXPECT_EQ(-1.0f, cv::sum(work)[0] / static_cast<double>(work.total()));
}

TEST(SuperResolutionRegistration, RefusesBadArguments)
{
    EXPECT_THROW(SuperResolutionRegistration(161, 120, 2.0f, 5), Exception);
    EXPECT_THROW(SuperResolutionRegistration(160, 120, 0.0f, 5), Exception);
    EXPECT_THROW(SuperResolutionRegistration(160, 120, 2.0f, 0), Exception);

    SuperResolutionRegistration reference(kWidth, kHeight, 2.0f, 5);
    std::vector<cv::Mat_<float>> frames = {krotest::texturedScene(kHeight, kWidth, 1)};
    Spectra spectra(reference, frames);
    krotest::RegisteredFrames r(frames);
    EXPECT_THROW(reference.doRegistration(1, 1, r.framePtrs.data(), spectra.pointers.data(), r.shifts.data(),
                                          r.maskPtrs.data(), r.workPtrs.data()),
                 Exception);
    EXPECT_THROW(reference.doRegistration(1, 0, r.framePtrs.data(), nullptr, r.shifts.data(), r.maskPtrs.data(),
                                          r.workPtrs.data()),
                 Exception);
    EXPECT_THROW(reference.doRegistration(1, 0, r.framePtrs.data(), spectra.pointers.data(), r.shifts.data(),
                                          r.maskPtrs.data(), r.framePtrs.data()),
                 Exception);
}

} // namespace
} // namespace kro
} // namespace velmor
