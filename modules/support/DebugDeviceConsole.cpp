#include "DebugDeviceConsole.h"

#include <iostream>

namespace velmor {
namespace kro {

DebugDeviceBase::~DebugDeviceBase() = default;

void DebugDeviceConsole::write(const std::string& channelName, const std::string& message,
                               int /*level*/)
{
    std::lock_guard<std::mutex> lock(mutex_);
    std::cerr << '[' << channelName << "] " << message << '\n';
}

} // namespace kro
} // namespace velmor
