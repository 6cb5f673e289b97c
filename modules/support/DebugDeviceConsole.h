#pragma once

#include <mutex>

#include "DebugDeviceBase.h"

namespace velmor {
namespace kro {

// Writes each message as one line "[channel] message" to standard error.
class KROLIB_EXPORT DebugDeviceConsole : public DebugDeviceBase {
public:
    void write(const std::string& channelName, const std::string& message, int level) override;

private:
    std::mutex mutex_;
};

} // namespace kro
} // namespace velmor
