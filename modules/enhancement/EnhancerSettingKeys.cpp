#include "EnhancerSettingKeys.h"

#include <cerrno>
#include <cstdlib>
#include <limits>

#include "Histogram.h"
#include "Peaking.h"
#include "SnrCmod.h"
#include "SprCmod.h"
#include "TnrCmod.h"

namespace velmor {
namespace kro {

namespace {

using E = OmbrixImageEnhancer;
constexpr int kAnyLow = std::numeric_limits<int>::min();
constexpr int kAnyHigh = std::numeric_limits<int>::max();
const char* const kClamped = "clamped";
const char* const kEveryValue = "";  // the setter takes every value

std::vector<EnhancerSettingKey> makeKeys()
{
    return {
        {"tnr.enable", "tnrSetBypass", &E::tnrSetBypass, kAnyLow, kAnyHigh, kEveryValue,
         "0 bypasses temporal noise reduction, other values run it (a change restarts it)"},
        {"tnr.control_gain", "tnrSetCGain", &E::tnrSetCGain, TnrCmod::kMinControlGain, TnrCmod::kMaxControlGain,
         kClamped, "temporal noise: weight falls faster with the change of a pixel"},
        {"tnr.global_threshold", "tnrSetGlobal", &E::tnrSetGlobal, TnrCmod::kMinGlobalThreshold,
         TnrCmod::kMaxGlobalThreshold, kClamped, "share of moving pixels tolerated; 100 fixes the feedback"},
        {"tnr.feedback_factor", "tnrSetAlpha", &E::tnrSetAlpha, TnrCmod::kMinFeedbackFactor,
         TnrCmod::kMaxFeedbackFactor, kClamped, "base feedback, percent"},
        {"spr.enable", "sprSetBypass", &E::sprSetBypass, kAnyLow, kAnyHigh, kEveryValue,
         "0 bypasses static pattern removal, other values run it (a change restarts it)"},
        {"spr.threshold", "sprSetThreshold", &E::sprSetThreshold, SprCmod::kMinThreshold, SprCmod::kMaxThreshold,
         kClamped, "largest local spread that counts as flat; 0 stops the learning"},
        {"spr.frame_limit", "sprSetMaxFrame", &E::sprSetMaxFrame, SprCmod::kMinLimit, SprCmod::kMaxLimit, kClamped,
         "bound of the pixel pattern"},
        {"spr.line_limit", "sprSetMaxLine", &E::sprSetMaxLine, SprCmod::kMinLimit, SprCmod::kMaxLimit, kClamped,
         "bound of the column pattern"},
        {"snr.enable", "snrSetBypass", &E::snrSetBypass, kAnyLow, kAnyHigh, kEveryValue,
         "0 bypasses spatial noise removal, other values run it"},
        {"snr.gain", "snrSetGain", &E::snrSetGain, SnrCmod::kMinGain, SnrCmod::kMaxGain, kClamped,
         "spatial smoothing strength; 0 passes frames unchanged"},
        {"hist.mode", "histSetMode", &E::histSetMode, kAnyLow, kAnyHigh, kEveryValue,
         "0 no mapping, 2 two-level gain, 3 clip-limited equalisation, 4 plain equalisation, other linear"},
        {"hist.width", "histSetWidth", &E::histSetWidth, Histogram::kMinWidth, Histogram::kMaxWidth, kClamped,
         "2^width bins (a change restarts the curve)"},
        {"hist.range", "histSetRange", &E::histSetRange, Histogram::kMinRange, Histogram::kMaxRange, kClamped,
         "the tracked span is at least 2^range"},
        {"hist.offset", "histSetOffset", &E::histSetOffset, Histogram::kMinOffset, Histogram::kMaxOffset, kClamped,
         "added to every scaled sample"},
        {"hist.speed", "histSetSpeed", &E::histSetSpeed, Histogram::kMinSpeed, Histogram::kMaxSpeed, kClamped,
         "smoothing of range and curve over 2^speed frames"},
        {"hist.gamma", "histSetGamma", &E::histSetGamma, Histogram::kMinGamma, Histogram::kMaxGamma, kClamped,
         "curve exponent (gamma + 10) / 10, or 10 / (10 - gamma) below 0"},
        {"hist.tridis", "histSetTridis", &E::histSetTridis, kAnyLow, kAnyHigh, kEveryValue,
         "software measurement only: the pipeline measures with the hardware block"},
        {"hist.rangedis", "histSetRangeDis", &E::histSetRangeDis, kAnyLow, kAnyHigh, kEveryValue,
         "non-zero: no range scaling"},
        {"hist.poffdis", "histSetPoffdis", &E::histSetPoffdis, kAnyLow, kAnyHigh, kEveryValue,
         "non-zero: no centring pedestal"},
        {"hist.limit", "histSetLimit", &E::histSetLimit, Histogram::kMinLimit, Histogram::kMaxLimit, kClamped,
         "per-bin clip limit of mode 3"},
        {"hist.limit2", "histSetLimit2", &E::histSetLimit2, kAnyLow, kAnyHigh, kEveryValue,
         "second limit, stored only"},
        {"hist.gain", "histSetGain", &E::histSetGain, Histogram::kMinGain, Histogram::kMaxGain, kClamped,
         "per-bin weight of mode 2 inside the percentile band"},
        {"hist.gainlow", "histSetGainLow", &E::histSetGainLow, Histogram::kMinGainCount, Histogram::kMaxGainCount,
         kClamped, "pixel count of the band's lower percentile (mode 2)"},
        {"hist.gainhigh", "histSetGainHigh", &E::histSetGainHigh, Histogram::kMinGainCount,
         Histogram::kMaxGainCount, kClamped, "pixel count of the band's upper percentile (mode 2)"},
        {"hist.hw", "histSetHW", &E::histSetHW, kAnyLow, kAnyHigh, kEveryValue,
         "stored only: the pipeline always measures with the hardware block"},
        {"peak.enable", "peakSetEnabled", &E::peakSetEnabled, kAnyLow, kAnyHigh, kEveryValue,
         "0 passes frames through peaking unchanged"},
        {"peak.gain", "peakSetGain", &E::peakSetGain, Peaking::kMinGain, Peaking::kMaxGain, kClamped,
         "detail gain, Q12"},
        {"peak.coring", "peakSetCoring", &E::peakSetCoring, Peaking::kMinCoring, Peaking::kMaxCoring, kClamped,
         "dead zone on neighbour differences"},
        {"peak.limit", "peakSetLimit", &E::peakSetLimit, Peaking::kMinLimit, Peaking::kMaxLimit, kClamped,
         "bound of the detail, in units of 4096"},
        {"peak.width", "peakSetWidth", &E::peakSetWidth, kAnyLow, kAnyHigh, kEveryValue, "stored only"},
        {"peak.reduct_thres", "peakSetReductThres", &E::peakSetReductThres, Peaking::kMinReductThres,
         Peaking::kMaxReductThres, kClamped, "local range (units of 512) above which the detail is reduced"},
        {"peak.reduct_gain", "peakSetReductGain", &E::peakSetReductGain, Peaking::kMinReductGain,
         Peaking::kMaxReductGain, kClamped, "slope of that reduction, Q12"},
    };
}

// Whole decimal integer of the int range: optional sign, digits, nothing else.
bool parseDecimal(const std::string& text, int& value)
{
    std::size_t i = (!text.empty() && (text[0] == '-' || text[0] == '+')) ? 1 : 0;
    if (i == text.size())
        return false;
    for (std::size_t k = i; k < text.size(); ++k)
        if (text[k] < '0' || text[k] > '9')
            return false;
    errno = 0;
    const long long wide = std::strtoll(text.c_str(), nullptr, 10);
    if (errno == ERANGE || wide < std::numeric_limits<int>::min() || wide > std::numeric_limits<int>::max())
        return false;
    value = static_cast<int>(wide);
    return true;
}

} // namespace

const std::vector<EnhancerSettingKey>& enhancerSettingKeys()
{
    static const std::vector<EnhancerSettingKey> keys = makeKeys();
    return keys;
}

const EnhancerSettingKey* findEnhancerSettingKey(const std::string& key)
{
    for (const EnhancerSettingKey& entry : enhancerSettingKeys())
        if (key == entry.key)
            return &entry;
    return nullptr;
}

std::string parseEnhancerSetting(const std::string& text, EnhancerSetting& setting)
{
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos)
        return "missing '=' (write KEY=VALUE)";
    const std::string key = text.substr(0, equals);
    const std::string value = text.substr(equals + 1);
    if (key.find('.') == std::string::npos)
        return "the key \"" + key + "\" names no module (write MODULE.KEY, e.g. peak.gain)";
    const EnhancerSettingKey* entry = findEnhancerSettingKey(key);
    if (!entry)
        return "unknown key \"" + key + "\"";
    int parsed = 0;
    if (!parseDecimal(value, parsed))
        return "the value \"" + value + "\" of " + key + " is not a whole decimal integer of the int range";
    setting.key = entry;
    setting.value = parsed;
    return "";
}

void applyEnhancerSetting(OmbrixImageEnhancer& enhancer, const EnhancerSetting& setting)
{
    (enhancer.*(setting.key->setter))(setting.value);
}

std::string describeRange(const EnhancerSettingKey& key)
{
    if (key.low == kAnyLow && key.high == kAnyHigh)
        return "any";
    if (key.high == kAnyHigh)
        return std::to_string(key.low) + " or more";
    return std::to_string(key.low) + " to " + std::to_string(key.high);
}

} // namespace kro
} // namespace velmor
