#include "StopWatch.h"

#include <iomanip>
#include <sstream>

namespace velmor {
namespace kro {

void StopWatch::start()
{
    start_ = Clock::now();
    running_ = true;
}

double StopWatch::stop()
{
    if (running_) {
        elapsed_ = std::chrono::duration<double>(Clock::now() - start_).count();
        running_ = false;
    }
    return elapsed_;
}

double StopWatch::timeElapsed() const
{
    if (running_)
        return std::chrono::duration<double>(Clock::now() - start_).count();
    return elapsed_;
}

std::string StopWatch::formatMilliseconds(const std::string& label, double seconds)
{
    std::ostringstream text;
    text << label << ' ' << std::fixed << std::setprecision(3) << seconds * 1000.0 << " [ms]";
    return text.str();
}

} // namespace kro
} // namespace velmor
