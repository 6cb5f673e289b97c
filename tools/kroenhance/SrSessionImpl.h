#pragma once

// What every kind of SrSession implements (the global-motion engines in
// SrSession.cpp, the local-motion engine in SrRobustSession.cpp).

#include <memory>
#include <sstream>
#include <string>

#include <opencv2/core.hpp>

#include "SrSession.h"

namespace kroenhance {

struct SrSession::Impl {
    Impl(const SrSettings& s, cv::Size frameSize) : settings(s), size(frameSize) {}
    virtual ~Impl() = default;
    virtual cv::Size outputSize() const = 0;
    virtual bool addFrame(const cv::Mat& frame, cv::Mat_<float>& out, SrFrameRecord& record) = 0;

    SrSettings settings;
    cv::Size size;
    long long added = 0;
    long long produced = 0;
};

// The tool keeps this many frames at most (a window is held twice: by the
// engine and as the fallback's source).
constexpr int kMaxWindow = 64;

// Throws UsageError when the window is larger than the tool holds.
void checkWindowLimit(const SrSettings& settings);

// Throws UsageError for a value an engine's rules refuse: the rule's own
// message, prefixed by the option and followed by the value and what is
// accepted.
template <typename Value>
void checkOption(const char* option, const char* refused, Value value, const std::string& accepted)
{
    if (!refused)
        return;
    std::ostringstream why;
    why << "option " << option << ": " << refused << " (got " << value << "; accepted: " << accepted << ")";
    throw UsageError(why.str());
}

// The float engine's rules (SrFloatOptions'), one option at a time in the
// order the engine applies them, so that the message names the option (the
// TV weight and the residue share a message). The reference engine applies
// the same rules.
void checkGlobalSettings(const SrSettings& settings);

// The fixed-point session and its settings check (SrIntOptions' rules, one
// option at a time so that the message names the option).
std::unique_ptr<SrSession::Impl> makeFixedSession(const SrSettings& settings, cv::Size frameSize);
void checkFixedSettings(const SrSettings& settings);

// The reference engine's session (raw frames, two-point calibration) and
// its settings check, which also names the calibration files missing.
std::unique_ptr<SrSession::Impl> makeReferenceSession(const SrSettings& settings, cv::Size frameSize);
void checkReferenceSettings(const SrSettings& settings);

// The local-motion session. Throws UsageError for settings the engine
// refuses, RunError for frames it cannot work on.
std::unique_ptr<SrSession::Impl> makeRobustSession(const SrSettings& settings, cv::Size frameSize);

// The local-motion engine's options for these settings; throws UsageError
// naming the option when they are refused.
void checkRobustSettings(const SrSettings& settings);

} // namespace kroenhance
