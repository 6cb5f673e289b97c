#pragma once

#include <chrono>
#include <string>

#include "KroLibExport.h"

namespace velmor {
namespace kro {

// Wall-clock timer on a monotonic clock.
class KROLIB_EXPORT StopWatch {
public:
    // Starts (or restarts) timing.
    void start();
    // Stops timing and returns the seconds since start().
    double stop();
    // Seconds since start() while running; the last start-stop interval
    // once stopped; 0 before the first start().
    double timeElapsed() const;

    // "label 12.345 [ms]": the library's form for timings in traces.
    static std::string formatMilliseconds(const std::string& label, double seconds);

private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point start_{};
    double elapsed_ = 0.0;
    bool running_ = false;
};

} // namespace kro
} // namespace velmor
