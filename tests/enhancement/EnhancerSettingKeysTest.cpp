// The settings by name: every key reaches the setter it is documented with,
// and malformed settings are refused with the reason.
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "EnhancerSettingKeys.h"
#include "OmbrixImageEnhancer.h"
#include "TestImages.h"

namespace {

using velmor::kro::EnhancerSetting;
using velmor::kro::OmbrixImageEnhancer;

constexpr int kWidth = 64;
constexpr int kHeight = 48;

// The setters the keys are documented with, called by name.
const std::map<std::string, std::function<void(OmbrixImageEnhancer&, int)>>& documentedSetters()
{
    using E = OmbrixImageEnhancer;
    static const std::map<std::string, std::function<void(E&, int)>> setters = {
        {"tnr.enable", [](E& e, int v) { e.tnrSetBypass(v); }},
        {"tnr.control_gain", [](E& e, int v) { e.tnrSetCGain(v); }},
        {"tnr.global_threshold", [](E& e, int v) { e.tnrSetGlobal(v); }},
        {"tnr.feedback_factor", [](E& e, int v) { e.tnrSetAlpha(v); }},
        {"spr.enable", [](E& e, int v) { e.sprSetBypass(v); }},
        {"spr.threshold", [](E& e, int v) { e.sprSetThreshold(v); }},
        {"spr.frame_limit", [](E& e, int v) { e.sprSetMaxFrame(v); }},
        {"spr.line_limit", [](E& e, int v) { e.sprSetMaxLine(v); }},
        {"snr.enable", [](E& e, int v) { e.snrSetBypass(v); }},
        {"snr.gain", [](E& e, int v) { e.snrSetGain(v); }},
        {"hist.mode", [](E& e, int v) { e.histSetMode(v); }},
        {"hist.width", [](E& e, int v) { e.histSetWidth(v); }},
        {"hist.range", [](E& e, int v) { e.histSetRange(v); }},
        {"hist.offset", [](E& e, int v) { e.histSetOffset(v); }},
        {"hist.speed", [](E& e, int v) { e.histSetSpeed(v); }},
        {"hist.gamma", [](E& e, int v) { e.histSetGamma(v); }},
        {"hist.tridis", [](E& e, int v) { e.histSetTridis(v); }},
        {"hist.rangedis", [](E& e, int v) { e.histSetRangeDis(v); }},
        {"hist.poffdis", [](E& e, int v) { e.histSetPoffdis(v); }},
        {"hist.limit", [](E& e, int v) { e.histSetLimit(v); }},
        {"hist.limit2", [](E& e, int v) { e.histSetLimit2(v); }},
        {"hist.gain", [](E& e, int v) { e.histSetGain(v); }},
        {"hist.gainlow", [](E& e, int v) { e.histSetGainLow(v); }},
        {"hist.gainhigh", [](E& e, int v) { e.histSetGainHigh(v); }},
        {"hist.hw", [](E& e, int v) { e.histSetHW(v); }},
        {"peak.enable", [](E& e, int v) { e.peakSetEnabled(v); }},
        {"peak.gain", [](E& e, int v) { e.peakSetGain(v); }},
        {"peak.coring", [](E& e, int v) { e.peakSetCoring(v); }},
        {"peak.limit", [](E& e, int v) { e.peakSetLimit(v); }},
        {"peak.width", [](E& e, int v) { e.peakSetWidth(v); }},
        {"peak.reduct_thres", [](E& e, int v) { e.peakSetReductThres(v); }},
        {"peak.reduct_gain", [](E& e, int v) { e.peakSetReductGain(v); }},
    };
    return setters;
}

// A value of each key that changes the output of a noisy scene with a
// column pattern. The others change nothing in the pipeline: limit2, hw and
// peaking's width are stored only, and tridis is not read by the hardware
// measurement the pipeline uses.
const std::map<std::string, int> kEffectiveValues = {
    {"tnr.enable", 0},         {"tnr.control_gain", 2},   {"tnr.global_threshold", 100},
    {"tnr.feedback_factor", 95}, {"spr.enable", 0},        {"spr.threshold", 90},
    {"spr.frame_limit", 0},    {"spr.line_limit", 0},    {"snr.enable", 0},
    {"snr.gain", 31},          {"hist.mode", 4},          {"hist.width", 5},
    {"hist.range", 14},        {"hist.offset", 3000},     {"hist.speed", 4},
    {"hist.gamma", 20},        {"hist.rangedis", 1},
    {"hist.poffdis", 1},       {"hist.limit", 100},       {"hist.gain", 60},
    {"hist.gainlow", 2000},    {"hist.gainhigh", 2500},   {"peak.enable", 0},
    {"peak.gain", 100},        {"peak.coring", 0},        {"peak.limit", 2},
    {"peak.reduct_thres", 0},  {"peak.reduct_gain", 4000}};

std::vector<cv::Mat_<short>> scene()
{
    std::vector<cv::Mat_<short>> frames;
    const cv::Mat_<float> base = krotest::texturedScene(kHeight, kWidth, 3);
    const cv::Mat pattern = krotest::randomImage(1, kWidth, CV_32F, -20.0, 20.0, 5);
    for (int f = 0; f < 6; ++f) {
        const cv::Mat noise = krotest::randomImage(kHeight, kWidth, CV_32F, -12.0, 12.0, 10 + f);
        cv::Mat_<float> frame = base + noise + cv::repeat(pattern, kHeight, 1) - 1500.0f;
        cv::Mat_<short> s;
        frame.convertTo(s, CV_16S);
        frames.push_back(s);
    }
    return frames;
}

std::vector<cv::Mat_<short>> run(OmbrixImageEnhancer& enhancer)
{
    std::vector<cv::Mat_<short>> outputs;
    for (cv::Mat_<short> in : scene()) {
        cv::Mat_<short> out;
        enhancer.processFrame(in, out);
        outputs.push_back(out.clone());
    }
    return outputs;
}

bool same(const std::vector<cv::Mat_<short>>& a, const std::vector<cv::Mat_<short>>& b)
{
    for (std::size_t i = 0; i < a.size(); ++i)
        if (cv::norm(a[i], b[i], cv::NORM_INF) != 0.0)
            return false;
    return true;
}

TEST(EnhancerSettingKeys, EveryKeyReachesItsDocumentedSetter)
{
    const auto& keys = velmor::kro::enhancerSettingKeys();
    ASSERT_EQ(keys.size(), documentedSetters().size());
    OmbrixImageEnhancer plain(kWidth, kHeight), twoLevel(kWidth, kHeight);
    twoLevel.histSetMode(2);
    const std::vector<cv::Mat_<short>> defaults = run(plain), twoLevelDefaults = run(twoLevel);
    for (const auto& key : keys) {
        SCOPED_TRACE(key.key);
        ASSERT_EQ(documentedSetters().count(key.key), 1u);
        const auto effective = kEffectiveValues.find(key.key);
        const int value = effective != kEffectiveValues.end() ? effective->second : 12345;
        EnhancerSetting setting;
        ASSERT_EQ(velmor::kro::parseEnhancerSetting(std::string(key.key) + "=" + std::to_string(value), setting), "");
        ASSERT_EQ(setting.key, &key);
        ASSERT_EQ(setting.value, value);
        OmbrixImageEnhancer byKey(kWidth, kHeight), bySetter(kWidth, kHeight);
        // The band of the two-level mode is read in that mode only.
        const bool band = std::string(key.key).compare(0, 9, "hist.gain") == 0;
        if (band) {
            byKey.histSetMode(2);
            bySetter.histSetMode(2);
        }
        velmor::kro::applyEnhancerSetting(byKey, setting);
        documentedSetters().at(key.key)(bySetter, value);
        const std::vector<cv::Mat_<short>> result = run(byKey);
        EXPECT_TRUE(same(run(bySetter), result));
        const std::vector<cv::Mat_<short>>& unchanged = band ? twoLevelDefaults : defaults;
        if (effective != kEffectiveValues.end())
            EXPECT_FALSE(same(unchanged, result)) << "the value " << value << " changes nothing";
        else
            EXPECT_TRUE(same(unchanged, result)) << "a key without effect changed the output";
    }
}

TEST(EnhancerSettingKeys, MalformedSettingsAreRefusedWithTheReason)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"peak.gain", "missing '='"},
        {"gain=3", "the key \"gain\" names no module"},
        {"=3", "the key \"\" names no module"},
        {"peak.gian=3", "unknown key \"peak.gian\""},
        {"peaking.gain=3", "unknown key \"peaking.gain\""},
        {"peak.gain=", "the value \"\" of peak.gain is not a whole decimal integer"},
        {"peak.gain=1.5", "not a whole decimal integer"},
        {"peak.gain=0x10", "not a whole decimal integer"},
        {"peak.gain= 3", "not a whole decimal integer"},
        {"peak.gain=3 ", "not a whole decimal integer"},
        {"peak.gain=-", "not a whole decimal integer"},
        {"peak.gain=2147483648", "not a whole decimal integer of the int range"},
        {"peak.gain=-2147483649", "not a whole decimal integer"},
        {"peak.gain=3=4", "not a whole decimal integer"},
    };
    for (const auto& c : cases) {
        EnhancerSetting setting;
        const std::string problem = velmor::kro::parseEnhancerSetting(c.first, setting);
        EXPECT_NE(problem.find(c.second), std::string::npos) << c.first << ": " << problem;
        EXPECT_EQ(setting.key, nullptr) << c.first;
    }
    // The ends of the int range and explicit signs are whole integers.
    for (const auto& text :
         {"hist.limit2=-2147483648", "hist.limit2=2147483647", "hist.offset=+12", "hist.offset=-007"}) {
        EnhancerSetting setting;
        EXPECT_EQ(velmor::kro::parseEnhancerSetting(text, setting), "") << text;
    }
    EnhancerSetting setting;
    velmor::kro::parseEnhancerSetting("hist.offset=-007", setting);
    EXPECT_EQ(setting.value, -7);
}

} // namespace
