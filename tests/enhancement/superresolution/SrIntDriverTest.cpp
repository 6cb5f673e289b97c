// The fixed-point driver's own logic (window, reference, plausibility codes,
// skipping the solve), with scripted registration and minimisation doubles
// so that every shift and mask is exactly what the case needs.
#include <gtest/gtest.h>

#include <vector>

#include "detail/SrIntImpl.h"

namespace velmor {
namespace kro {
namespace {

// What the doubles report and what they saw; one per test.
struct Script {
    std::vector<PointF> totals;             // total shift per window slot
    std::vector<PointF> subPixels;          // sub-pixel shift per window slot
    std::vector<double> maskedFractions;    // share of zeros per mask, in row-major order
    int registrationResult = 0;
    int prepareResult = 0;
    int minimizeResult = 3;
    int seenFrameCount = -1;
    int seenRefIndex = -1;
    int seenPsfFrames = -1;
    std::vector<PointF> seenPsfShifts;
    int clears = 0;
};

Script* script = nullptr;

class ScriptedRegistration {
public:
    ScriptedRegistration(int, int, unsigned int) {}
    int prepareFrame(const cv::Mat_<short>&) { return script->prepareResult; }
    void clearFrames() { ++script->clears; }
    int doRegistrationVideo(const std::vector<cv::Mat_<short>>& frames,
                            std::vector<cv::Point_<Fixpoint>>& subPixel, std::vector<cv::Point_<Fixpoint>>& total,
                            std::vector<cv::Point_<short>>& rounded, std::vector<cv::Mat_<signed char>>& masks,
                            std::vector<cv::Mat_<short>>& moved)
    {
        for (std::size_t i = 0; i < frames.size(); ++i) {
            const PointF t = i < script->totals.size() ? script->totals[i] : PointF();
            const PointF s = i < script->subPixels.size() ? script->subPixels[i] : PointF();
            total[i] = cv::Point_<Fixpoint>(Fixpoint(t.x), Fixpoint(t.y));
            subPixel[i] = cv::Point_<Fixpoint>(Fixpoint(s.x), Fixpoint(s.y));
            rounded[i] = cv::Point_<short>(0, 0);
            masks[i] = 1;
            const double zeros = i < script->maskedFractions.size() ? script->maskedFractions[i] : 0.0;
            const int count = static_cast<int>(zeros * static_cast<double>(masks[i].total()) + 0.5);
            for (int p = 0; p < count; ++p)
                masks[i](p / masks[i].cols, p % masks[i].cols) = 0;
            frames[i].copyTo(moved[i]);
        }
        return script->registrationResult;
    }
    float getRegError() const { return regError; }
    void setRegError(float e) { regError = e; }
    void setThreads(int) {}

private:
    float regError = 0.0001f;
};

class ScriptedMinimization {
public:
    ScriptedMinimization(int, int, int, int) {}
    void generatePsfs(int n, const PointF* shifts)
    {
        script->seenPsfFrames = n;
        script->seenPsfShifts.assign(shifts, shifts + n);
    }
    int minimize(int n, int ref, const std::vector<cv::Mat_<float>>& frames,
                 const std::vector<cv::Mat_<signed char>>& masks, cv::Mat_<float>& output)
    {
        script->seenFrameCount = n;
        script->seenRefIndex = ref;
        EXPECT_EQ(static_cast<int>(frames.size()), n);
        EXPECT_EQ(static_cast<int>(masks.size()), n);
        output = 1234.4f;
        return script->minimizeResult;
    }
    short getCumIters() const { return 0; }
    short getMaxIter() const { return 8; }
    void setMaxIter(short) {}
    float getPsfSigma() const { return 0.683f; }
    void setPsfSigma(float) {}
    float getRelRes() const { return 0.007f; }
    void setRelRes(float) {}
    float getWeightTV() const { return 400.0f; }
    void setWeightTV(float) {}
    bool setThreads(int) { return true; }
};

using Driver = SrInt<ScriptedRegistration, ScriptedMinimization>;

constexpr int kWidth = 16;
constexpr int kHeight = 40;  // a tenth of the height: 4 pixels

class SrIntDriver : public ::testing::Test {
protected:
    void SetUp() override { script = &s; }
    void TearDown() override { script = nullptr; }

    void addFrames(Driver& driver, int n)
    {
        for (int i = 0; i < n; ++i)
            ASSERT_EQ(driver.addFrame(cv::Mat_<short>(kHeight, kWidth, static_cast<short>(100 + i))), 0);
    }

    Script s;
};

TEST_F(SrIntDriver, ReferenceIsCountedBackFromTheNewestFrame)
{
    Driver driver(kWidth, kHeight, 5, 2.0f);
    addFrames(driver, 3);
    cv::Mat_<short> out;
    driver.setReferenceIndex(1);
    EXPECT_EQ(driver.computeSr(out), 0);
    EXPECT_EQ(s.seenFrameCount, 3);
    EXPECT_EQ(s.seenRefIndex, 1);  // 3 - 1 - 1
    driver.setReferenceIndex(4);  // further back than frames are held
    driver.computeSr(out);
    EXPECT_EQ(s.seenRefIndex, 0);
    driver.setReferenceIndex(0);
    driver.computeSr(out);
    EXPECT_EQ(s.seenRefIndex, 2);
}

TEST_F(SrIntDriver, OnlyAPositiveVerticalShiftCountsAsLargeDisplacement)
{
    Driver driver(kWidth, kHeight, 3, 2.0f);
    addFrames(driver, 3);
    cv::Mat_<short> out;
    const float far = kHeight / 10 + 5.0f;
    s.totals = {PointF(0.0f, -far), PointF(), PointF()};
    EXPECT_EQ(driver.computeSr(out), 0);
    s.totals = {PointF(-far, 0.0f), PointF(), PointF()};
    EXPECT_EQ(driver.computeSr(out), -6);
    s.totals = {PointF(0.0f, far), PointF(), PointF()};
    EXPECT_EQ(driver.computeSr(out), -6);
    // Exactly the limit is still plausible.
    s.totals = {PointF(kHeight / 10, kHeight / 10), PointF(), PointF()};
    EXPECT_EQ(driver.computeSr(out), 0);
}

TEST_F(SrIntDriver, HalfAMaskMissingWarnsButStillWritesTheResult)
{
    Driver driver(kWidth, kHeight, 3, 2.0f);
    addFrames(driver, 3);
    cv::Mat_<short> out;
    s.maskedFractions = {0.0, 0.5 - 1.0 / (kWidth * kHeight), 0.0};
    EXPECT_EQ(driver.computeSr(out), 0);
    s.maskedFractions = {0.0, 0.5, 0.0};
    EXPECT_EQ(driver.computeSr(out), -3);
    ASSERT_EQ(out.size(), cv::Size(2 * kWidth, 2 * kHeight));
    EXPECT_EQ(out(0, 0), 1234);  // rounded from the minimiser's 1234.4
    // Displacement wins over coverage.
    s.totals = {PointF(kHeight, 0.0f), PointF(), PointF()};
    EXPECT_EQ(driver.computeSr(out), -6);
}

TEST_F(SrIntDriver, FailuresLeaveTheResultUntouched)
{
    Driver driver(kWidth, kHeight, 2, 2.0f);
    addFrames(driver, 2);
    cv::Mat_<short> out(2 * kHeight, 2 * kWidth, static_cast<short>(7));
    s.registrationResult = -1;
    EXPECT_EQ(driver.computeSr(out), -998);
    EXPECT_EQ(s.seenFrameCount, -1);  // no solve after a failed registration
    s.registrationResult = 0;
    s.minimizeResult = -42;
    EXPECT_EQ(driver.computeSr(out), -42);
    EXPECT_EQ(cv::countNonZero(out != 7), 0);
}

TEST_F(SrIntDriver, SkippingTheSolveGivesZerosAndTheChecksCode)
{
    Driver driver(kWidth, kHeight, 3, 2.0f);
    addFrames(driver, 3);
    driver.setSkipMinimization(true);
    s.maskedFractions = {0.75, 0.0, 0.0};
    s.subPixels = {PointF(0.25f, -0.5f), PointF(), PointF(0.5f, 0.0f)};
    cv::Mat_<short> out;
    EXPECT_EQ(driver.computeSr(out), -3);
    EXPECT_EQ(s.seenFrameCount, -1);
    EXPECT_EQ(cv::countNonZero(out), 0);
    // The point-spread functions are made all the same, from the sub-pixel shifts.
    ASSERT_EQ(s.seenPsfFrames, 3);
    EXPECT_FLOAT_EQ(s.seenPsfShifts[0].x, 0.25f);
    EXPECT_FLOAT_EQ(s.seenPsfShifts[0].y, -0.5f);
    EXPECT_FLOAT_EQ(s.seenPsfShifts[2].x, 0.5f);
}

TEST_F(SrIntDriver, RejectedFrameEmptiesTheWindow)
{
    Driver driver(kWidth, kHeight, 3, 2.0f);
    addFrames(driver, 2);
    s.prepareResult = -8;
    EXPECT_EQ(driver.addFrame(cv::Mat_<short>(kHeight, kWidth, short(9))), -8);
    EXPECT_EQ(driver.getFrameCount(), 0);
    EXPECT_EQ(s.clears, 1);
    s.prepareResult = 0;
    addFrames(driver, 1);
    cv::Mat_<short> out;
    driver.computeSr(out);
    EXPECT_EQ(s.seenFrameCount, 1);
}

TEST_F(SrIntDriver, WindowOfOneReplacesItsOnlyFrame)
{
    Driver driver(kWidth, kHeight, 1, 2.0f);
    cv::Mat_<short> out;
    for (int value : {5, 9}) {
        driver.addFrame(cv::Mat_<short>(kHeight, kWidth, static_cast<short>(value)));
        EXPECT_EQ(driver.getFrameCount(), 1);
    }
    driver.setSkipMinimization(false);
    driver.computeSr(out);
    EXPECT_EQ(s.seenFrameCount, 1);
    EXPECT_EQ(s.seenRefIndex, 0);
}

TEST_F(SrIntDriver, BadInputIsRefusedClearly)
{
    EXPECT_THROW(Driver(kWidth, kHeight, 0, 2.0f), const char*);
    Driver driver(kWidth, kHeight, 3, 2.0f);
    cv::Mat_<short> out;
    EXPECT_THROW(driver.computeSr(out), Exception);  // nothing added yet
    EXPECT_THROW(driver.addFrame(cv::Mat_<short>(kHeight, kWidth + 1, short(0))), Exception);
    EXPECT_EQ(driver.getFrameCount(), 0);
}

} // namespace
} // namespace kro
} // namespace velmor
