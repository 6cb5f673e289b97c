#pragma once

// Step traces sent from inside a parallel region: only the team's master
// thread sends, and an exception of the debug device (which must never leave
// the region) is kept in `failure`, to be rethrown by the caller once the
// region has closed. Shared by the float and the fixed-point minimiser.

#include <exception>
#include <string>

#include "DebugChannel.h"
#include "detail/Parallel.h"

namespace velmor {
namespace kro {
namespace detail {

template <class Send>
void sendFromMaster(const parallel::Team& team, std::exception_ptr& failure, Send&& send)
{
    if (!team.isMaster())
        return;
    try {
        send();
    } catch (...) {
        if (!failure)
            failure = std::current_exception();
    }
}

inline void masterTrace(const parallel::Team& team, DebugChannel& channel, std::exception_ptr& failure,
                        const char* text)
{
    sendFromMaster(team, failure, [&] { channel.trace(text); });
}

// `text` followed by `value`, as "start small iteration: 3".
inline void masterTraceValue(const parallel::Team& team, DebugChannel& channel, std::exception_ptr& failure,
                             const char* text, int value)
{
    sendFromMaster(team, failure, [&] {
        if (channel.isDebugActive(kDebugLevelTrace))
            channel.send(text + std::to_string(value), kDebugLevelTrace);
    });
}

} // namespace detail
} // namespace kro
} // namespace velmor
