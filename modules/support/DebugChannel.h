#pragma once

#include <memory>
#include <string>

#include "DebugDeviceBase.h"
#include "KroLibExport.h"

namespace velmor {
namespace kro {

// Level of a debug message: 0 is never sent, higher numbers are more
// detailed. Engines send their "start ..."/"end ..." step traces at
// kDebugLevelTrace.
typedef int DEBUG_LEVEL;
constexpr DEBUG_LEVEL kDebugLevelTrace = 11;

// A named outlet for diagnostic text, used as a base class by the engines.
//
// A message of level L sent through send() goes
//  - to the attached device when 1 <= L <= output level, and
//  - to LogFacility (as "[name] text" at LogLevel 4) when 1 <= L <= log level.
// Both levels start at 0, so a new channel is silent. Every channel registers
// itself with DebugSingleton for its whole lifetime, so that a program can
// configure all channels at once; the destructor unregisters it.
class KROLIB_EXPORT DebugChannel {
public:
    explicit DebugChannel(const std::string& name = std::string());
    DebugChannel(const DebugChannel& other);
    DebugChannel& operator=(const DebugChannel& other);

    virtual ~DebugChannel();
    virtual void setDebugDevice(std::shared_ptr<DebugDeviceBase> device);
    virtual std::shared_ptr<DebugDeviceBase> getDebugDevice() const;
    virtual void setDebugChannelName(const std::string& name);
    virtual std::string getDebugChannelName() const;
    virtual void setOutputLevel(DEBUG_LEVEL level);
    virtual void setLogLevel(DEBUG_LEVEL level);
    virtual bool isDebugActive(DEBUG_LEVEL level) const;
    virtual void send(const std::string& message, DEBUG_LEVEL level);

    DEBUG_LEVEL getOutputLevel() const { return outputLevel_; }
    DEBUG_LEVEL getLogLevel() const { return logLevel_; }

    // Sends a step trace at kDebugLevelTrace; builds no string when nobody
    // listens, so it is cheap enough to call once per frame and step.
    void trace(const char* text)
    {
        if (outputLevel_ >= kDebugLevelTrace || logLevel_ >= kDebugLevelTrace)
            if (isDebugActive(kDebugLevelTrace))
                send(text, kDebugLevelTrace);
    }

private:
    std::string name_;
    std::shared_ptr<DebugDeviceBase> device_;
    DEBUG_LEVEL outputLevel_ = 0;
    DEBUG_LEVEL logLevel_ = 0;
};

} // namespace kro
} // namespace velmor
