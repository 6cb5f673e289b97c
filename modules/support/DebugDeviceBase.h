#pragma once

#include <string>

#include "KroLibExport.h"

namespace velmor {
namespace kro {

// Where a DebugChannel's messages end up. A device may be shared by many
// channels (and threads); implementations serialise their own output.
class KROLIB_EXPORT DebugDeviceBase {
public:
    virtual ~DebugDeviceBase();
    virtual void write(const std::string& channelName, const std::string& message,
                       int level) = 0;
};

} // namespace kro
} // namespace velmor
