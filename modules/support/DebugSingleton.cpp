#include "DebugSingleton.h"

#include <algorithm>

namespace velmor {
namespace kro {

DebugSingleton& DebugSingleton::getInstance()
{
    // Never destroyed: channels with static storage duration may unregister
    // after every other static object is gone.
    static DebugSingleton* instance = new DebugSingleton();
    return *instance;
}

void DebugSingleton::registerChannel(DebugChannel* channel)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (std::find(channels_.begin(), channels_.end(), channel) == channels_.end())
        channels_.push_back(channel);
}

void DebugSingleton::unregisterChannel(DebugChannel* channel)
{
    std::lock_guard<std::mutex> lock(mutex_);
    channels_.erase(std::remove(channels_.begin(), channels_.end(), channel), channels_.end());
}

bool DebugSingleton::isRegistered(const DebugChannel* channel) const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return std::find(channels_.begin(), channels_.end(), channel) != channels_.end();
}

std::size_t DebugSingleton::getChannelCount() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return channels_.size();
}

template <typename Action>
void DebugSingleton::forEach(const std::string& name, Action action)
{
    std::lock_guard<std::mutex> lock(mutex_);
    for (DebugChannel* channel : channels_)
        if (name.empty() || channel->getDebugChannelName() == name)
            action(*channel);
}

void DebugSingleton::setDebugDevice(const std::shared_ptr<DebugDeviceBase>& device,
                                    const std::string& name)
{
    forEach(name, [&](DebugChannel& channel) { channel.setDebugDevice(device); });
}

void DebugSingleton::setOutputLevel(DEBUG_LEVEL level, const std::string& name)
{
    forEach(name, [&](DebugChannel& channel) { channel.setOutputLevel(level); });
}

void DebugSingleton::setLogLevel(DEBUG_LEVEL level, const std::string& name)
{
    forEach(name, [&](DebugChannel& channel) { channel.setLogLevel(level); });
}

} // namespace kro
} // namespace velmor
