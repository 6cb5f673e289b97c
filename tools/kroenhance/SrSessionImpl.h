#pragma once

// What every kind of SrSession implements (the global-motion engines in
// SrSession.cpp, the local-motion engine in SrRobustSession.cpp).

#include <memory>

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

// The local-motion session. Throws UsageError for settings the engine
// refuses, RunError for frames it cannot work on.
std::unique_ptr<SrSession::Impl> makeRobustSession(const SrSettings& settings, cv::Size frameSize);

// The local-motion engine's options for these settings; throws UsageError
// naming the option when they are refused.
void checkRobustSettings(const SrSettings& settings);

} // namespace kroenhance
