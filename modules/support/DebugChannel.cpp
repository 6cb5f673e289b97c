#include "DebugChannel.h"

#include "DebugSingleton.h"
#include "LogFacility.h"

namespace velmor {
namespace kro {

DebugChannel::DebugChannel(const std::string& name) : name_(name)
{
    DebugSingleton::getInstance().registerChannel(this);
}

DebugChannel::DebugChannel(const DebugChannel& other)
    : name_(other.name_), device_(other.device_), outputLevel_(other.outputLevel_),
      logLevel_(other.logLevel_)
{
    DebugSingleton::getInstance().registerChannel(this);
}

DebugChannel& DebugChannel::operator=(const DebugChannel& other)
{
    // Settings are copied; the registration belongs to the object itself.
    name_ = other.name_;
    device_ = other.device_;
    outputLevel_ = other.outputLevel_;
    logLevel_ = other.logLevel_;
    return *this;
}

DebugChannel::~DebugChannel()
{
    DebugSingleton::getInstance().unregisterChannel(this);
}

void DebugChannel::setDebugDevice(std::shared_ptr<DebugDeviceBase> device)
{
    device_ = std::move(device);
}

std::shared_ptr<DebugDeviceBase> DebugChannel::getDebugDevice() const { return device_; }

void DebugChannel::setDebugChannelName(const std::string& name) { name_ = name; }

std::string DebugChannel::getDebugChannelName() const { return name_; }

void DebugChannel::setOutputLevel(DEBUG_LEVEL level) { outputLevel_ = level; }

void DebugChannel::setLogLevel(DEBUG_LEVEL level) { logLevel_ = level; }

bool DebugChannel::isDebugActive(DEBUG_LEVEL level) const
{
    if (level < 1)
        return false;
    return (device_ && level <= outputLevel_) || level <= logLevel_;
}

void DebugChannel::send(const std::string& message, DEBUG_LEVEL level)
{
    if (level < 1)
        return;
    if (device_ && level <= outputLevel_)
        device_->write(name_, message, level);
    if (level <= logLevel_)
        LogFacility::getInstance().logMessage(LOG_DEBUG, "[" + name_ + "] " + message);
}

} // namespace kro
} // namespace velmor
