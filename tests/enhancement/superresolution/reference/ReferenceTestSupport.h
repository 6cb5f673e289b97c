#pragma once

// Helpers of the reference engine's tests: byte comparison of float images
// and a debug device that records what the channels send.

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include "DebugDeviceBase.h"

namespace krotest {

// Same size and the same bytes; on failure names the first differing sample.
inline ::testing::AssertionResult sameFloatBytes(const cv::Mat& expected, const cv::Mat& actual)
{
    if (expected.size() != actual.size() || expected.type() != actual.type())
        return ::testing::AssertionFailure() << "sizes or types differ";
    const cv::Mat a = expected.isContinuous() ? expected : expected.clone();
    const cv::Mat b = actual.isContinuous() ? actual : actual.clone();
    const float* pa = a.ptr<float>();
    const float* pb = b.ptr<float>();
    for (std::size_t i = 0; i < a.total() * a.channels(); ++i)
        if (std::memcmp(pa + i, pb + i, sizeof(float)) != 0)
            return ::testing::AssertionFailure() << "sample " << i << " (x " << i % a.cols << ", y " << i / a.cols
                                                 << "): " << pa[i] << " against " << pb[i];
    return ::testing::AssertionSuccess();
}

// Keeps every message with the channel that sent it.
class MessageRecorder : public velmor::kro::DebugDeviceBase {
public:
    void write(const std::string& channel, const std::string& message, int) override
    {
        channels.push_back(channel);
        messages.push_back(message);
    }
    // The messages that start with one of `prefixes`, in order, each cut to
    // the prefix it matched.
    std::vector<std::string> matching(const std::vector<std::string>& prefixes) const
    {
        std::vector<std::string> out;
        for (const std::string& m : messages)
            for (const std::string& p : prefixes)
                if (m.rfind(p, 0) == 0) {
                    out.push_back(p);
                    break;
                }
        return out;
    }
    bool contains(const std::string& prefix) const
    {
        for (const std::string& m : messages)
            if (m.rfind(prefix, 0) == 0)
                return true;
        return false;
    }
    std::vector<std::string> channels;
    std::vector<std::string> messages;
};

} // namespace krotest
