#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "DebugChannel.h"

namespace velmor {
namespace kro {

// Process-wide registry of the live debug channels. Channels register on
// construction and unregister in their destructor, so the registry only ever
// reaches live objects. The configuration calls apply to every registered
// channel, or, given a name, to the channels of that name ("SrFloat").
//
// Registration and the configuration calls are serialised by one lock. A
// channel must not be destroyed by one thread while another thread
// configures it through the registry.
class KROLIB_EXPORT DebugSingleton {
public:
    static DebugSingleton& getInstance();

    void registerChannel(DebugChannel* channel);
    void unregisterChannel(DebugChannel* channel);
    bool isRegistered(const DebugChannel* channel) const;
    std::size_t getChannelCount() const;

    void setDebugDevice(const std::shared_ptr<DebugDeviceBase>& device,
                        const std::string& name = std::string());
    void setOutputLevel(DEBUG_LEVEL level, const std::string& name = std::string());
    void setLogLevel(DEBUG_LEVEL level, const std::string& name = std::string());

    DebugSingleton(const DebugSingleton&) = delete;
    DebugSingleton& operator=(const DebugSingleton&) = delete;

private:
    DebugSingleton() = default;

    template <typename Action>
    void forEach(const std::string& name, Action action);

    mutable std::mutex mutex_;
    std::vector<DebugChannel*> channels_;
};

} // namespace kro
} // namespace velmor
