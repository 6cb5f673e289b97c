#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "DebugDeviceBase.h"
#include "Exception.h"
#include "RegisteredFrames.h"
#include "ShiftedFrames.h"
#include "SrFloatRegistration2.h"
#include "SrIntRegistration.h"
#include "TestImages.h"

namespace velmor {
namespace kro {

// The unit tests' view of the registration's steps.
class SrIntRegistrationPeer {
public:
    explicit SrIntRegistrationPeer(SrIntRegistration& r) : r_(r) {}
    void diffX(const cv::Mat_<unsigned char>& in, cv::Mat_<short>& out) { r_.computeDiffX(in, out); }
    void diffXNeon(const cv::Mat_<unsigned char>& in, cv::Mat_<short>& out) { r_.computeDiffX_neon(in, out); }
    void diffY(const cv::Mat_<unsigned char>& in, cv::Mat_<short>& out) { r_.computeDiffY(in, out); }
    cv::Point_<short> meanFlow(const std::vector<cv::Point_<float>>& flows) { return r_.getMeanFlow(flows); }
    void splitSmallFrames() { r_.minWorkPerThread = 0; }
    // One Lucas-Kanade step of `cur` against `ref` (8-bit images of the
    // registration's size, stored as its prepared frames 0 and 1).
    cv::Point_<short> flowStep(const cv::Mat_<unsigned char>& ref, const cv::Mat_<unsigned char>& cur,
                               cv::Point_<short> intShift, cv::Point_<Fixpoint>& sub, cv::Point_<Fixpoint>& pair,
                               cv::Mat_<signed char>& mask)
    {
        ref.copyTo(r_.preparedFrames[0]);
        cur.copyTo(r_.preparedFrames[1]);
        r_.buildPyramid(0, 0);
        r_.buildPyramid(1, 1);
        r_.prepareGradientsRefImage(0);
        return r_.opticalFlow(0, 1, intShift, sub, pair, mask);
    }

private:
    SrIntRegistration& r_;
};

namespace {

using Peer = SrIntRegistrationPeer;
using Shift = cv::Point_<Fixpoint>;

// The outputs of doRegistrationVideo; the total shifts start at zero as the
// driver passes them.
struct Outputs {
    std::vector<Shift> sub, total;
    std::vector<cv::Point_<short>> rounded;
    std::vector<cv::Mat_<signed char>> masks;
    std::vector<cv::Mat_<short>> moved;
    int run(SrIntRegistration& reg, const std::vector<cv::Mat_<short>>& frames)
    {
        total.assign(frames.size(), Shift());
        return reg.doRegistrationVideo(frames, sub, total, rounded, masks, moved);
    }
    // The complete shift of frame i against the newest of n frames: the
    // frame before the newest has it in its rounded and sub-pixel parts.
    PointF complete(size_t i, size_t n) const
    {
        if (i + 2 == n)
            return PointF(rounded[i].x + sub[i].x.toFloat(), rounded[i].y + sub[i].y.toFloat());
        return PointF(total[i].x.toFloat(), total[i].y.toFloat());
    }
};

std::vector<cv::Mat_<float>> burst(int width, int height, const std::vector<PointF>& shifts)
{
    const cv::Mat_<float> scene = krotest::texturedScene(2 * height, 2 * width, 11);
    return krotest::makeShiftedFrames(scene, 2, shifts, 0.5, 2.0, 12);
}

std::vector<cv::Mat_<short>> toShort(const std::vector<cv::Mat_<float>>& in, double scale, double offset)
{
    std::vector<cv::Mat_<short>> out(in.size());
    for (size_t i = 0; i < in.size(); ++i)
        in[i].convertTo(out[i], CV_16S, scale, offset);
    return out;
}

// Feeds frames one at a time through a sliding window of `window` frames,
// registering after each (as the driver does); calls check(k, held, out).
template <class Check>
void slide(SrIntRegistration& reg, const std::vector<cv::Mat_<short>>& frames, size_t window, Check&& check)
{
    std::vector<cv::Mat_<short>> held;
    Outputs out;
    for (size_t k = 0; k < frames.size(); ++k) {
        if (held.size() == window)
            held.erase(held.begin());
        held.push_back(frames[k]);
        ASSERT_EQ(0, reg.prepareFrame(frames[k])) << "frame " << k;
        ASSERT_EQ(0, out.run(reg, held)) << "frame " << k;
        check(k, held, out);
    }
}

const std::vector<PointF> kTruth = {{0.0f, 0.0f},   {0.35f, -1.4f}, {-2.6f, 0.8f}, {3.1f, 2.45f},
                                    {-0.5f, -3.7f}, {1.2f, 0.3f},   {0.7f, -0.6f}};

TEST(SrIntRegistration, RecoversKnownShiftsAgainstTheNewestFrameLikeTheFloatRegistration)
{
    // Frame i is the scene moved by kTruth[i], so against the newest frame k
    // it is moved by kTruth[i] - kTruth[k].
    const std::vector<cv::Mat_<float>> floats = burst(160, 120, kTruth);
    const std::vector<cv::Mat_<short>> frames = toShort(floats, 20.0, 1000.0);
    SrIntRegistration reg(160, 120, 5);
    float worst = 0.0f, worstFloat = 0.0f;
    slide(reg, frames, 5, [&](size_t k, const std::vector<cv::Mat_<short>>& held, const Outputs& out) {
        const size_t n = held.size(), first = k + 1 - n;
        std::vector<cv::Mat_<float>> window(floats.begin() + first, floats.begin() + k + 1);
        SrFloatRegistration2 floatReg(160, 120, static_cast<int>(n));
        const krotest::RegisteredFrames f = krotest::registerAll(floatReg, window, static_cast<int>(n) - 1);
        for (size_t i = 0; i < n; ++i) {
            SCOPED_TRACE("frame " + std::to_string(i) + " of " + std::to_string(n) + " after " + std::to_string(k));
            const PointF truth(kTruth[first + i].x - kTruth[k].x, kTruth[first + i].y - kTruth[k].y);
            const PointF c = i + 1 == n ? PointF() : out.complete(i, n);
            worst = std::max({worst, std::fabs(c.x - truth.x), std::fabs(c.y - truth.y)});
            worstFloat = std::max({worstFloat, std::fabs(c.x - f.complete[i].x), std::fabs(c.y - f.complete[i].y)});
            EXPECT_NEAR(truth.x, c.x, 0.1f);
            EXPECT_NEAR(truth.y, c.y, 0.1f);
            EXPECT_NEAR(f.complete[i].x, c.x, 0.1f);
            EXPECT_NEAR(f.complete[i].y, c.y, 0.1f);
            // Rounded part and remainder in [-0.5, 0.5].
            const cv::Point_<short> r = out.rounded[i];
            EXPECT_NEAR(c.x - r.x, out.sub[i].x.toFloat(), 1e-3f);
            EXPECT_NEAR(c.y - r.y, out.sub[i].y.toFloat(), 1e-3f);
            EXPECT_LE(std::fabs(out.sub[i].x.toFloat()), 0.5f);
            EXPECT_LE(std::fabs(out.sub[i].y.toFloat()), 0.5f);
            // Moved frame: out(x, y) = frame(x + rx, y + ry), 0 and mask 0
            // where nothing moves in; most of the rest kept.
            int inside = 0, kept = 0, wrong = 0;
            for (int y = 0; y < 120; ++y)
                for (int x = 0; x < 160; ++x) {
                    const bool filled = cv::Rect(0, 0, 160, 120).contains(cv::Point(x + r.x, y + r.y));
                    const short expected = filled ? held[i](y + r.y, x + r.x) : 0;
                    const signed char m = out.masks[i](y, x);
                    wrong += out.moved[i](y, x) != expected || (!filled && m != 0) || (m != 0 && m != 1);
                    inside += filled;
                    kept += filled && m == 1;
                }
            EXPECT_EQ(0, wrong);
            EXPECT_GE(kept, 0.88 * inside);
        }
    });
    std::printf("[ measured ] largest error against the true shifts %.3f px, against the float registration %.3f px\n",
                worst, worstFloat);
}

TEST(SrIntRegistration, TotalsAccumulateThePairwiseShiftsButNotTheFrameBeforeTheNewest)
{
    // Pairwise shift of each frame against the next, as the call after that
    // next frame reported it (rounded + sub-pixel of the frame before the
    // newest, whose total stays at the zero passed in).
    const std::vector<cv::Mat_<short>> frames = toShort(burst(160, 120, kTruth), 20.0, 1000.0);
    SrIntRegistration reg(160, 120, 4);
    std::vector<PointF> pair(frames.size());
    slide(reg, frames, 4, [&](size_t k, const std::vector<cv::Mat_<short>>& held, const Outputs& out) {
        const size_t n = held.size(), first = k + 1 - n;
        EXPECT_EQ(0.0f, out.total[n - 1].x.toFloat());
        EXPECT_EQ(0.0f, out.rounded[n - 1].x + out.sub[n - 1].x.toFloat() + out.sub[n - 1].y.toFloat());
        if (n < 2)
            return;
        EXPECT_EQ(0.0f, out.total[n - 2].x.toFloat());
        EXPECT_EQ(0.0f, out.total[n - 2].y.toFloat());
        pair[k - 1] = out.complete(n - 2, n);
        EXPECT_GT(std::hypot(pair[k - 1].x, pair[k - 1].y), 0.5f);
        float x = pair[k - 1].x, y = pair[k - 1].y;
        for (size_t i = n - 2; i-- > 0;) {
            x += pair[first + i].x;
            y += pair[first + i].y;
            EXPECT_NEAR(x, out.total[i].x.toFloat(), 2e-3f) << i << " after " << k;
            EXPECT_NEAR(y, out.total[i].y.toFloat(), 2e-3f) << i << " after " << k;
        }
    });
}

TEST(SrIntRegistration, WindowLifecycleMappingAndClear)
{
    const std::vector<cv::Mat_<short>> frames = toShort(burst(160, 120, {{0.0f, 0.0f}, {0.4f, 0.3f}}), 10.0, 0.0);
    SrIntRegistration reg(160, 120, 3);
    Outputs out;
    EXPECT_EQ(SrIntRegistration::kNoFrames, out.run(reg, frames));
    // A brighter frame within the first frame's margin keeps the mapping; a
    // frame beyond it widens it: -8 with two frames held, as with more.
    EXPECT_EQ(0, reg.prepareFrame(frames[0]));
    EXPECT_EQ(0, reg.prepareFrame(frames[1]));
    cv::Mat_<short> hot = frames[1].clone();
    hot(60, 80) = 30000;
    EXPECT_EQ(SrIntRegistration::kMappingWidened, reg.prepareFrame(hot));
    EXPECT_EQ(3, reg.getCount());
    reg.clearFrames();
    EXPECT_EQ(0, reg.prepareFrame(frames[0]));
    EXPECT_EQ(SrIntRegistration::kMappingWidened, reg.prepareFrame(hot));
    // After a clear the mapping starts afresh, and the first frame registers
    // nothing: zero shifts, a full mask, the frame itself.
    reg.clearFrames();
    EXPECT_EQ(0, reg.prepareFrame(hot));
    std::vector<cv::Mat_<short>> one = {hot};
    out.sub.assign(1, Shift(Fixpoint(0.25f), Fixpoint(0.25f)));
    out.rounded.assign(1, cv::Point_<short>(3, 3));
    ASSERT_EQ(0, out.run(reg, one));
    EXPECT_EQ(1, reg.getCount());
    EXPECT_EQ(0.0f, out.sub[0].x.toFloat() + out.sub[0].y.toFloat() + out.total[0].x.toFloat());
    EXPECT_EQ(cv::Point_<short>(0, 0), out.rounded[0]);
    EXPECT_EQ(0, cv::countNonZero(out.masks[0] != 1));
    EXPECT_IMAGES_EQUAL(hot, out.moved[0]);
}

TEST(SrIntRegistration, TooFewCornersOrInliersThrowFromTheStepThatFinds)
{
    const cv::Mat_<short> textured = toShort(burst(160, 120, {{0.0f, 0.0f}}), 20.0, 1000.0)[0];
    const cv::Mat_<short> flat(120, 160, short(5000));
    const cv::Mat_<short> noise(krotest::randomImage(120, 160, CV_16S, 1000, 21000, 3));
    struct Case {
        cv::Mat_<short> prev, next;
        const char* message;
        const char* function;
    };
    const Case cases[] = {
        {flat, flat, "Not enough stable correspondences", "registerWithCorners"},      // no corner at all
        {textured, flat, "Not enough stable correspondences", "registerWithCorners"},  // none tracked
        {textured, noise, "Not enough inlier", "getMeanFlow"},                         // tracked anywhere
    };
    for (const Case& c : cases) {
        SrIntRegistration reg(160, 120, 2);
        reg.prepareFrame(c.prev);
        reg.prepareFrame(c.next);
        Outputs out;
        try {
            out.run(reg, {c.prev, c.next});
            ADD_FAILURE() << "no exception for " << c.message;
        } catch (const Exception& e) {
            EXPECT_STREQ(c.message, e.what());
            EXPECT_NE(std::string::npos, e.where().find(std::string(" : velmor::kro::SrIntRegistration::") +
                                                        c.function + "(..)"))
                << e.where();
        }
    }
}

TEST(SrIntRegistration, MeanFlowIsTheMeanOfTheFlowsNearTheUpperMedian)
{
    SrIntRegistration reg(16, 16, 2);
    Peer peer(reg);
    // Median (0.5, 0); inliers the first two, mean (0.25, 0).
    EXPECT_EQ(cv::Point_<short>(0, 0), peer.meanFlow({{0.0f, 0.0f}, {0.5f, 0.0f}, {10.0f, 10.0f}}));
    // Even count: the upper middle element (3) is the median.
    EXPECT_EQ(cv::Point_<short>(3, -1), peer.meanFlow({{0.0f, -1.0f}, {0.2f, -1.0f}, {3.0f, -1.0f}, {3.4f, -1.0f}}));
    // Halves round up: mean (-2.5, 1.5).
    EXPECT_EQ(cv::Point_<short>(-2, 2), peer.meanFlow({{-3.0f, 1.0f}, {-2.0f, 2.0f}}));
    try {
        peer.meanFlow({{0.0f, 0.0f}, {5.0f, 5.0f}, {10.0f, 10.0f}});
        ADD_FAILURE() << "one inlier accepted";
    } catch (const Exception& e) {
        EXPECT_STREQ("Not enough inlier", e.what());
    }
}

TEST(SrIntRegistration, GradientsUseHalvedCentralAndOneSidedEndDifferences)
{
    SrIntRegistration reg(200, 9, 2);
    Peer peer(reg);
    cv::Mat_<short> d(1, 3);
    peer.diffX(cv::Mat_<unsigned char>({1, 3}, {0, 10, 20}), d);
    EXPECT_IMAGES_EQUAL(cv::Mat_<short>({1, 3}, {10, 10, 10}), d);
    cv::Mat_<short> dy(3, 1);
    peer.diffY(cv::Mat_<unsigned char>({3, 1}, {250, 7, 0}), dy);
    EXPECT_IMAGES_EQUAL(cv::Mat_<short>({3, 1}, {-243, -125, -7}), dy);  // (0 - 250) >> 1 rounds down
    // The eight-lane form matches on every width (lanes, tail, the ends).
    for (int w : {1, 2, 3, 8, 9, 10, 17, 200}) {
        const cv::Mat_<unsigned char> in(krotest::randomImage(9, w, CV_8U, 0, 256, w));
        cv::Mat_<short> a(9, w, short(-1)), b(9, w, short(-2));
        peer.diffX(in, a);
        peer.diffXNeon(in, b);
        EXPECT_IMAGES_EQUAL(a, b) << "width " << w;
        EXPECT_EQ(w == 1 ? 0 : std::abs(in(4, 1) - in(4, 0)), std::abs(a(4, 0))) << "width " << w;
    }
    try {
        peer.diffXNeon(cv::Mat_<unsigned char>(2, 3), d);
        ADD_FAILURE() << "size mismatch accepted";
    } catch (const Exception& e) {
        EXPECT_STREQ("invalid Ref or DiffX frame size", e.what());
        EXPECT_NE(std::string::npos, e.where().find("SrIntRegistration::computeDiffX_neon(..)"));
    }
}

// The reference's gradients (as the registration defines them) and the
// least-squares step over the overlap, in double.
PointF modelStep(const cv::Mat_<unsigned char>& ref, const cv::Mat_<unsigned char>& cur, cv::Point s)
{
    const int w = ref.cols, h = ref.rows;
    auto at = [](const cv::Mat_<unsigned char>& m, int y, int x) { return static_cast<double>(m(y, x)); };
    double xx = 0, xy = 0, yy = 0, xt = 0, yt = 0;
    for (int y = std::max(0, -s.y); y < std::min(h, h - s.y); ++y)
        for (int x = std::max(0, -s.x); x < std::min(w, w - s.x); ++x) {
            const double gx = x == 0 ? at(ref, y, 1) - at(ref, y, 0)
                              : x == w - 1 ? at(ref, y, w - 1) - at(ref, y, w - 2)
                                           : std::floor((at(ref, y, x + 1) - at(ref, y, x - 1)) / 2);
            const double gy = y == 0 ? at(ref, 1, x) - at(ref, 0, x)
                              : y == h - 1 ? at(ref, h - 1, x) - at(ref, h - 2, x)
                                           : std::floor((at(ref, y + 1, x) - at(ref, y - 1, x)) / 2);
            const double t = at(ref, y, x) - at(cur, y + s.y, x + s.x);
            xx += gx * gx, xy += gx * gy, yy += gy * gy, xt += gx * t, yt += gy * t;
        }
    const double det = xx * yy - xy * xy;
    return PointF(static_cast<float>((yy * xt - xy * yt) / det), static_cast<float>((xx * yt - xy * xt) / det));
}

TEST(SrIntRegistration, FlowStepSolvesTheOverlapsLeastSquaresAndCarriesHalfPixels)
{
    // A blurred 8-bit scene and the same scene moved by intShift + step, for
    // shifts of every sign: the overlap, the repair of the reference's
    // tensor and the sign of the step all show in the result.
    const cv::Mat_<float> scene = krotest::texturedScene(96, 128, 5);
    SrIntRegistration reg(128, 96, 2);
    Peer peer(reg);
    for (const cv::Point s : {cv::Point(3, 2), cv::Point(-4, 1), cv::Point(2, -5), cv::Point(-3, -3), cv::Point(0, 0)}) {
        for (const PointF step : {PointF(0.3f, -0.2f), PointF(0.7f, -0.65f)}) {
            SCOPED_TRACE(std::to_string(s.x) + "," + std::to_string(s.y) + " + " + std::to_string(step.x));
            cv::Mat_<unsigned char> ref, cur;
            scene.convertTo(ref, CV_8U, 0.25);
            krotest::shiftImage(scene, PointF(s.x + step.x, s.y + step.y)).convertTo(cur, CV_8U, 0.25);
            Shift sub, pair;
            cv::Mat_<signed char> mask(96, 128, static_cast<signed char>(7));
            const cv::Point_<short> got = peer.flowStep(ref, cur, cv::Point_<short>(s), sub, pair, mask);
            const PointF model = modelStep(ref, cur, s);
            // The integer part takes the half pixels: the remainder stays in
            // [-0.5, 0.5).
            const int carryX = model.x >= 0.5f ? 1 : model.x < -0.5f ? -1 : 0;
            const int carryY = model.y >= 0.5f ? 1 : model.y < -0.5f ? -1 : 0;
            EXPECT_EQ(cv::Point_<short>(s.x + carryX, s.y + carryY), got);
            EXPECT_NEAR(model.x - carryX, sub.x.toFloat(), 2e-3f);
            EXPECT_NEAR(model.y - carryY, sub.y.toFloat(), 2e-3f);
            EXPECT_NEAR(got.x + sub.x.toFloat(), pair.x.toFloat(), 1e-3f);
            EXPECT_NEAR(got.y + sub.y.toFloat(), pair.y.toFloat(), 1e-3f);
            EXPECT_NEAR(s.x + step.x, pair.x.toFloat(), 0.1f);
            EXPECT_NEAR(s.y + step.y, pair.y.toFloat(), 0.1f);
            // The mask lies in the reference's grid, zero outside the overlap.
            const cv::Rect overlap(std::max(0, -s.x), std::max(0, -s.y), 128 - std::abs(s.x), 96 - std::abs(s.y));
            EXPECT_EQ(0, cv::countNonZero(mask) - cv::countNonZero(mask(overlap)));
            EXPECT_GT(cv::countNonZero(mask(overlap)), 0.9 * overlap.area());
        }
    }
}

TEST(SrIntRegistration, ChangedContentIsMaskedOut)
{
    std::vector<cv::Mat_<short>> frames = toShort(burst(160, 120, {{0.0f, 0.0f}, {1.3f, -0.4f}}), 20.0, 1000.0);
    frames[0](cv::Rect(40, 30, 12, 12)) = 21000;  // something that is not in the newest frame
    SrIntRegistration reg(160, 120, 2);
    reg.prepareFrame(frames[0]);
    ASSERT_EQ(0, reg.prepareFrame(frames[1]));
    Outputs out;
    ASSERT_EQ(0, out.run(reg, frames));
    // Moved by the rounded shift (-1, 0), the square sits at x 41..52.
    EXPECT_EQ(0, cv::countNonZero(out.masks[0](cv::Rect(43, 32, 8, 8))));
    EXPECT_EQ(64, cv::countNonZero(out.masks[0](cv::Rect(100, 80, 8, 8))));
}

// Values over the whole 16-bit range, a flat frame and frames smaller than
// the tracker's window end in a result or one of the registration's own
// messages.
TEST(SrIntRegistration, ExtremeValuesAndTinyFramesGiveResultsOrMessages)
{
    const std::vector<cv::Mat_<float>> floats = burst(160, 120, {{0.0f, 0.0f}, {-1.3f, 0.6f}});
    double lo = 0, hi = 0;
    cv::minMaxIdx(floats[1], &lo, &hi);
    // Stretched a little beyond the 16-bit range: both ends saturate.
    const double scale = 70000.0 / (hi - lo);
    const std::vector<cv::Mat_<short>> full = toShort(floats, scale, -34000.0 - lo * scale);
    cv::minMaxIdx(full[1], &lo, &hi);
    ASSERT_EQ(-32768.0, lo);
    ASSERT_EQ(32767.0, hi);
    SrIntRegistration reg(160, 120, 2);
    reg.prepareFrame(full[1]);
    EXPECT_EQ(0, reg.prepareFrame(full[0]));
    Outputs out;
    ASSERT_EQ(0, out.run(reg, {full[1], full[0]}));
    EXPECT_NEAR(-1.3f, out.complete(0, 2).x, 0.1f);
    EXPECT_NEAR(0.6f, out.complete(0, 2).y, 0.1f);

    const std::set<std::string> messages = {"Not enough stable correspondences", "Not enough inlier"};
    for (const cv::Size size : {cv::Size(1, 1), cv::Size(2, 2), cv::Size(8, 6), cv::Size(30, 20), cv::Size(1, 40)}) {
        SrIntRegistration small(size.width, size.height, 3);
        std::vector<cv::Mat_<short>> frames;
        for (int i = 0; i < 3; ++i) {
            frames.emplace_back(krotest::randomImage(size.height, size.width, CV_16S, -32768, 32768, 9 + i));
            small.prepareFrame(frames.back());
            try {
                EXPECT_GE(out.run(small, frames), 0);
            } catch (const Exception& e) {
                EXPECT_EQ(1u, messages.count(e.what())) << e.what() << " at " << size;
            }
        }
    }
}

void expectSameOutputs(const Outputs& x, const Outputs& y, size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        SCOPED_TRACE("frame " + std::to_string(i));
        EXPECT_EQ(x.total[i].x.toFloat(), y.total[i].x.toFloat());
        EXPECT_EQ(x.total[i].y.toFloat(), y.total[i].y.toFloat());
        EXPECT_EQ(x.sub[i].x.toFloat(), y.sub[i].x.toFloat());
        EXPECT_EQ(x.sub[i].y.toFloat(), y.sub[i].y.toFloat());
        EXPECT_EQ(x.rounded[i], y.rounded[i]);
        EXPECT_IMAGES_EQUAL(x.masks[i], y.masks[i]);
        EXPECT_IMAGES_EQUAL(x.moved[i], y.moved[i]);
    }
}

TEST(SrIntRegistration, SameBytesWhateverTheThreadCountAndCopiesAndLateCallsAgree)
{
    const std::vector<cv::Mat_<short>> frames = toShort(burst(160, 120, kTruth), 20.0, 1000.0);
    std::vector<std::vector<Outputs>> runs(3);
    const int counts[3] = {1, 2, 7};
    for (int t = 0; t < 3; ++t) {
        SrIntRegistration reg(160, 120, 4);
        Peer(reg).splitSmallFrames();
        reg.setThreads(counts[t]);
        slide(reg, frames, 4, [&](size_t, const std::vector<cv::Mat_<short>>& held, const Outputs& out) {
            EXPECT_EQ(held.size() > 1 ? counts[t] : 1, reg.getLastThreadCount());
            runs[t].push_back(out);
        });
    }
    for (int t = 1; t < 3; ++t)
        for (size_t k = 0; k < frames.size(); ++k) {
            SCOPED_TRACE(std::to_string(counts[t]) + " threads, after frame " + std::to_string(k));
            expectSameOutputs(runs[0][k], runs[t][k], std::min<size_t>(k + 1, 4));
        }

    // A copy taken half-way, and a registration that registers only once its
    // window is full (it registers the pairs it missed then), end where the
    // original does: the step depends on the frames and the integer shift,
    // not on which corners were tracked.
    SrIntRegistration original(160, 120, 4), late(160, 120, 4);
    std::unique_ptr<SrIntRegistration> copy;
    std::vector<cv::Mat_<short>> held;
    Outputs a, b, c;
    for (size_t k = 0; k < frames.size(); ++k) {
        if (held.size() == 4)
            held.erase(held.begin());
        held.push_back(frames[k]);
        for (SrIntRegistration* r : {&original, &late, copy.get()})
            if (r)
                r->prepareFrame(frames[k]);
        ASSERT_EQ(0, a.run(original, held));
        if (k == 2)
            copy = std::make_unique<SrIntRegistration>(original);
    }
    ASSERT_EQ(0, b.run(*copy, held));
    ASSERT_EQ(0, c.run(late, held));
    {
        SCOPED_TRACE("copy");
        expectSameOutputs(a, b, 4);
    }
    {
        SCOPED_TRACE("late");
        expectSameOutputs(a, c, 4);
    }
}

// Collects the messages of a debug channel.
class Recorder : public DebugDeviceBase {
public:
    void write(const std::string&, const std::string& message, int level) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(std::to_string(level) + " " + message);
    }
    std::mutex mutex;
    std::vector<std::string> lines;
};

TEST(SrIntRegistration, TracesItsStepsOnTheSrIntChannel)
{
    const std::vector<cv::Mat_<short>> frames = toShort(burst(160, 120, {{0.0f, 0.0f}, {2.0f, 0.0f}}), 20.0, 1000.0);
    SrIntRegistration reg(160, 120, 2);
    EXPECT_EQ("SrInt", reg.getDebugChannelName());
    auto recorder = std::make_shared<Recorder>();
    reg.setDebugDevice(recorder);
    reg.setOutputLevel(11);
    reg.prepareFrame(frames[0]);
    reg.prepareFrame(frames[1]);
    recorder->lines.clear();
    Outputs out;
    ASSERT_EQ(0, out.run(reg, frames));
    const std::vector<std::string> expected = {
        "11 start doRegistrationVideo", "11 start registerWithCorners", "11 start extractCorners",
        "11 end extractCorners", "11 start getMeanFlow", "11 end getMeanFlow", "11 end registerWithCorners",
        "11 start prepareGradientsRefImage", "11 end prepareGradientsRefImage", "11 start opticalFlow",
        "11 end opticalFlow", "11 Video registration: Accumulated shift 0 0 0",
        "11 Video registration: Accumulated shift 1 0 0", "11 end doRegistrationVideo"};
    EXPECT_EQ(expected, recorder->lines);
}

} // namespace
} // namespace kro
} // namespace velmor
