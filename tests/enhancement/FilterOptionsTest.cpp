#include <gtest/gtest.h>

#include <cmath>

#include "ClusterPatternRemover.h"
#include "Exception.h"
#include "SpatialNoiseRemover.h"
#include "StaticPatternRemover.h"
#include "TemporalNoiseReduction.h"
#include "UnsharpMask.h"

namespace velmor {
namespace kro {
namespace {

// Each bound: the options accept the value on it and refuse the one beyond
// with the field named; the filter's setter and its constructor from options
// judge the same values the same way.
TEST(FilterOptions, OptionsSettersAndConstructorsShareTheirRules)
{
    TemporalNoiseReduction tnr(TemporalNoiseReductionOptions{});
    const struct {
        int TemporalNoiseReductionOptions::*field;
        bool (TemporalNoiseReduction::*setter)(int);
        int low, high;
        const char* name;
    } tnrCases[] = {
        {&TemporalNoiseReductionOptions::controlGain, &TemporalNoiseReduction::setControlGain, 0, 10, "control gain"},
        {&TemporalNoiseReductionOptions::globalThreshold, &TemporalNoiseReduction::setGlobalThreshold, 0, 100,
         "global threshold"},
        {&TemporalNoiseReductionOptions::feedbackFactor, &TemporalNoiseReduction::setFeedbackFactor, 0, 100,
         "feedback factor"},
        {&TemporalNoiseReductionOptions::threads, &TemporalNoiseReduction::setThreads, 0, 1024, "threads"},
    };
    for (const auto& c : tnrCases) {
        for (int v : {c.low, c.high, c.low - 1, c.high + 1}) {
            const bool inside = v >= c.low && v <= c.high;
            TemporalNoiseReductionOptions o;
            o.*c.field = v;
            EXPECT_EQ(inside, o.validate().empty()) << c.name << " " << v;
            EXPECT_EQ(inside, (tnr.*c.setter)(v)) << c.name << " " << v;
            if (!inside) {
                EXPECT_EQ(std::string(c.name) + ": " + std::to_string(v) + " is outside the accepted range " +
                              std::to_string(c.low) + " to " + std::to_string(c.high),
                          o.validate());
                EXPECT_THROW(TemporalNoiseReduction{o}, Exception);
            } else {
                EXPECT_EQ(v, TemporalNoiseReduction(o).getOptions().*c.field);
            }
        }
    }

    SpatialNoiseRemover snr(SpatialNoiseRemoverOptions{});
    for (int gain : {0, 31, -1, 32}) {
        SpatialNoiseRemoverOptions o;
        o.gain = gain;
        const bool inside = gain >= 0 && gain <= 31;
        EXPECT_EQ(inside, o.validate().empty()) << gain;
        EXPECT_EQ(inside, snr.setGain(gain)) << gain;
    }
    EXPECT_EQ(31, snr.getOptions().gain);  // the last accepted value stays

    StaticPatternRemover spr(StaticPatternRemoverOptions{});
    for (int limit : {0, 31, -1, 32}) {
        StaticPatternRemoverOptions o;
        o.frameLimit = limit;
        const bool inside = limit >= 0 && limit <= 31;
        EXPECT_EQ(inside, o.validate().empty()) << limit;
        EXPECT_EQ(inside, spr.setLineLimit(limit)) << limit;
        EXPECT_EQ(inside, spr.setFrameLimit(limit)) << limit;
    }
    StaticPatternRemoverOptions o;
    o.threshold = 101;
    EXPECT_EQ("threshold: 101 is outside the accepted range 0 to 100", o.validate());
    EXPECT_FALSE(spr.setThreshold(101));

    // Real-valued rules: the blend factor of the cluster remover (NaN
    // refused too) and the unsharp mask's settings.
    ClusterPatternRemoverOptions c;
    c.alphaDamping = 0.25f;
    EXPECT_EQ(0.25f, ClusterPatternRemover(c).getOptions().alphaDamping);  // applied, not the std-dev limit
    for (float alpha : {-0.01f, 1.01f, NAN}) {
        c.alphaDamping = alpha;
        EXPECT_FALSE(c.validate().empty()) << alpha;
        EXPECT_THROW(ClusterPatternRemover{c}, Exception);
        EXPECT_FALSE(ClusterPatternRemover(3, 3, 1.0f, 0.0f, 1.0f).setAlphaDamping(alpha)) << alpha;
    }
    UnsharpMaskOptions u;
    u.sigma = 0.05;
    EXPECT_EQ("sigma: 0.05 is outside the accepted range 0.1 to 50", u.validate());
    cv::Mat src(8, 8, CV_32F, cv::Scalar(0.5)), dst;
    EXPECT_THROW(UnsharpMask::unsharp(src, dst, u), Exception);
    u.sigma = 1.0;
    EXPECT_EQ(0, UnsharpMask::unsharp(src, dst, u));
}

} // namespace
} // namespace kro
} // namespace velmor
