#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "ReferenceTestSupport.h"
#include "ShiftedFrames.h"
#include "SrFloatMinimization.h"
#include "SuperResolutionMinimization.h"
#include "TestImages.h"

namespace velmor {
namespace kro {
namespace {

const std::vector<PointF> kShifts = {{0.0f, 0.0f}, {0.5f, 0.0f}, {-0.25f, 0.5f}, {0.25f, -0.5f}};

// Frames of a textured scene at the residual shifts above, masks with a
// block of dropped samples in one frame.
struct Problem {
    Problem(int width_, int height_, int frameCount) : width(width_), height(height_)
    {
        const cv::Mat_<float> scene = cv::repeat(krotest::texturedScene(96, 128, 5), (2 * height + 95) / 96,
                                                 (2 * width + 127) / 128)(cv::Rect(0, 0, 2 * width, 2 * height));
        const std::vector<PointF> shifts(kShifts.begin(), kShifts.begin() + frameCount);
        frames = krotest::makeShiftedFrames(scene, 2, shifts, 0.34, 1.0, 3);
        for (int i = 0; i < frameCount; ++i) {
            cv::Mat_<char> mask(height, width, char(1));
            if (i == 1)
                mask(cv::Rect(width / 4, height / 4, width / 3, height / 3)).setTo(0);
            masks.push_back(mask);
        }
    }

    // One solve on copies of the frames (minimize normalises them in place).
    cv::Mat_<float> solve(SrFloatMinimization& m, int* iterations = nullptr) const
    {
        std::vector<cv::Mat_<float>> work;
        std::vector<float*> framePointers;
        std::vector<char*> maskPointers;
        for (std::size_t i = 0; i < frames.size(); ++i) {
            work.push_back(frames[i].clone());
            framePointers.push_back(work.back().ptr<float>());
            maskPointers.push_back(const_cast<char*>(masks[i].ptr<char>()));
        }
        std::vector<PointF> shifts(kShifts.begin(), kShifts.begin() + frames.size());
        cv::Mat_<float> out(2 * height, 2 * width);
        const int n = m.minimize(static_cast<int>(frames.size()), 0, framePointers.data(), shifts.data(),
                                 maskPointers.data(), out.ptr<float>());
        if (iterations)
            *iterations = n;
        return out;
    }

    int width, height;
    std::vector<cv::Mat_<float>> frames;
    std::vector<cv::Mat_<char>> masks;
};

void listen(SuperResolutionMinimization& m, const std::shared_ptr<krotest::MessageRecorder>& recorder)
{
    for (DebugChannel* channel : m.getInternalDebugChannelObjects()) {
        channel->setDebugDevice(recorder);
        channel->setOutputLevel(kDebugLevelTrace);
    }
}

// The reference minimiser is the float one: the same bytes and iterations,
// whether its detailed trace runs (which splits the fused updates and stops
// the team at every step) or not, on one thread or two (the grid is large
// enough for the solve to split).
TEST(SuperResolutionMinimization, GivesTheFloatSolversBytesTracedOrNotOnAnyThreadCount)
{
    const Problem problem(256, 192, 4);
    SrFloatMinimization plain(256, 192, 4, 2.0f);
    int plainIterations = 0;
    const cv::Mat_<float> expected = problem.solve(plain, &plainIterations);
    ASSERT_GT(plainIterations, 1);

    for (int threads : {1, 2}) {
        for (bool traced : {false, true}) {
            SuperResolutionMinimization reference(256, 192, 4, 2.0f);
            ASSERT_TRUE(reference.setThreads(threads));
            auto recorder = std::make_shared<krotest::MessageRecorder>();
            if (traced)
                listen(reference, recorder);
            int iterations = 0;
            const cv::Mat_<float> actual = problem.solve(reference, &iterations);
            EXPECT_EQ(plainIterations, iterations) << threads << " threads, traced " << traced;
            EXPECT_TRUE(krotest::sameFloatBytes(expected, actual)) << threads << " threads, traced " << traced;
            EXPECT_EQ(traced, recorder->contains("iteration Lc  (before gradient)"));
        }
    }
}

std::vector<std::string> smallStep(int k)
{
    const std::string index = std::to_string(k);
    return {"start small iteration: " + index, "iteration S (before gradient)", "iteration Ldl (before gradient)",
            "iteration Ld  (before gradient)", "iteration Ldr (before gradient)", "iteration Lr  (before gradient)",
            "iteration Lc  (before gradient)", "start gradient", "gradient for frame: 0", "gradient for frame: 1",
            "iteration Q (after gradient)", "alpha :", "iteration U (before U=U+alpha*S)",
            "iteration U (after U=U+alpha*S)", "iteration R (before R=R-alpha*Q)", "iteration R (after R=R-alpha*Q)",
            "nr    :", "NormB :", "RelRes:", "beta  :", "iteration S (before S=R-beta*S)",
            "iteration S (after S=R-beta*S)", "iteration Pnr:", "end small iteration: " + index};
}

// Two small steps fill maxIter 2, so the second large iteration is allowed
// none and ends at once.
TEST(SuperResolutionMinimization, TracesEveryStepInTheRecordedOrder)
{
    const Problem problem(48, 40, 2);
    SuperResolutionMinimization m(48, 40, 2, 2.0f);
    m.setMaxIter(2);
    m.setRelRes(1e-6f);
    auto recorder = std::make_shared<krotest::MessageRecorder>();
    listen(m, recorder);
    problem.solve(m);

    std::vector<std::string> expected = {
        "start minimize", "ref mean:", "ref sigma:", "input", "input", "normalized input", "normalized input",
        "Psfs", "initialized B", "NormB:", "initialized U", "start large iteration: 0",
        "conjugateGradients input U", "start gradient", "gradient for frame: 0", "gradient for frame: 1",
        "conjugateGradients R (after gradient)", "conjugateGradients B (before R=B-R)",
        "conjugateGradients R (after R=B-R)", "conjugateGradients S (after R=B-R)", "Pnr   :", "NormB :",
        "RelRes:"};
    for (int k = 0; k < 2; ++k)
        for (const std::string& line : smallStep(k))
            expected.push_back(line);
    for (const char* line : {"end large iteration: 0", "start large iteration: 1", "end large iteration: 1",
                             "cummulated iterations 2", "final U", "denormalized U", "output", "end minimize"})
        expected.push_back(line);

    const std::vector<std::string>& got = recorder->messages;
    ASSERT_EQ(expected.size(), got.size());
    for (std::size_t i = 0; i < expected.size(); ++i)
        EXPECT_EQ(0u, got[i].rfind(expected[i], 0)) << "message " << i << ": \"" << got[i] << "\", expected \""
                                                    << expected[i] << "\"";
    for (const std::string& channel : recorder->channels)
        EXPECT_EQ("SuperResolution", channel);
}

double valueOf(const std::string& message)
{
    return std::strtod(message.substr(message.find(':') + 1).c_str(), nullptr);
}

// RelRes is |R| / |B|, the figure the solve compares with the relative
// residue: below it the solve stops (the CG step aborts, or a large
// iteration ends before its first step), at or above it it goes on; nr
// falls from Pnr.
TEST(SuperResolutionMinimization, ResidualFiguresAreTheOnesTheSolveStopsOn)
{
    const Problem problem(48, 40, 2);
    SuperResolutionMinimization m(48, 40, 2, 2.0f);
    m.setRelRes(0.05f);
    auto recorder = std::make_shared<krotest::MessageRecorder>();
    listen(m, recorder);
    int iterations = 0;
    problem.solve(m, &iterations);
    ASSERT_GT(iterations, 0);
    ASSERT_LT(iterations, m.getMaxIter());

    const std::vector<std::string>& got = recorder->messages;
    auto startsWith = [](const std::string& s, const char* prefix) { return s.rfind(prefix, 0) == 0; };
    double pnr = -1.0;
    int below = 0, above = 0;
    for (std::size_t i = 0; i + 1 < got.size(); ++i) {
        if (startsWith(got[i], "Pnr   :") || startsWith(got[i], "iteration Pnr:"))
            pnr = valueOf(got[i]);
        if (startsWith(got[i], "nr    :")) {
            EXPECT_LT(valueOf(got[i]), pnr) << "the residual grew at message " << i;
        }
        if (!startsWith(got[i], "RelRes:"))
            continue;
        const std::string& next = got[i + 1];
        if (valueOf(got[i]) < 0.05) {
            ++below;
            EXPECT_TRUE(startsWith(next, "abort small iteration:") || startsWith(next, "end large iteration:"))
                << "the solve went on after " << got[i] << ": " << next;
        } else {
            ++above;
            EXPECT_TRUE(startsWith(next, "beta  :") || startsWith(next, "start small iteration:"))
                << "the solve stopped after " << got[i] << ": " << next;
        }
    }
    EXPECT_GE(below, 1);
    EXPECT_GE(above, 1);
}

TEST(SuperResolutionMinimization, DebugMatSendsTheStatisticsOnlyToAListener)
{
    SuperResolutionMinimization m(16, 12, 1, 2.0f);
    auto recorder = std::make_shared<krotest::MessageRecorder>();
    m.setDebugDevice(recorder);
    cv::Mat_<float> values = (cv::Mat_<float>(2, 2) << 1.0f, 2.0f, 3.0f, -4.0f);
    m.debugMat("values", values);
    EXPECT_TRUE(recorder->messages.empty());

    m.setOutputLevel(kDebugLevelTrace);
    m.debugMat("values", values);
    m.debugMat("nothing", cv::Mat_<float>());
    ASSERT_EQ(2u, recorder->messages.size());
    EXPECT_EQ("values - max: 3 - sum: 2 - mean: 0.5", recorder->messages[0]);
    EXPECT_EQ("nothing - empty", recorder->messages[1]);
}

} // namespace
} // namespace kro
} // namespace velmor
