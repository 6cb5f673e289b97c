#include "LogFacility.h"

#include <cstdlib>
#include <iostream>

namespace velmor {
namespace kro {

LogFacility& LogFacility::getInstance()
{
    static LogFacility instance;
    return instance;
}

void LogFacility::setLogLevel(LogLevel level)
{
    std::lock_guard<std::mutex> lock(mutex_);
    level_ = level;
}

LogLevel LogFacility::getLogLevel() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return level_;
}

bool LogFacility::openLogFile(const std::string& path, bool append)
{
    {
        // Re-opening the file that is already the sink keeps it as it is:
        // the C interface sets the log up on every init, and a second
        // context must not wipe the lines of the first.
        std::lock_guard<std::mutex> lock(mutex_);
        if (file_.is_open() && path == filePath_)
            return true;
    }
    std::ofstream file(path, append ? std::ios::out | std::ios::app : std::ios::out | std::ios::trunc);
    if (!file) {
        std::cerr << "KroLibEnhancement: cannot open log file \"" << path
                  << "\"; logging to standard error instead\n";
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    file_ = std::move(file);
    filePath_ = path;
    return true;
}

void LogFacility::resetStream()
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (file_.is_open())
        file_.close();
    file_ = std::ofstream();
    filePath_.clear();
}

void LogFacility::setSourcePosition(bool on)
{
    std::lock_guard<std::mutex> lock(mutex_);
    sourcePosition_ = on;
}

bool LogFacility::getSourcePosition() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return sourcePosition_;
}

void LogFacility::logMessage(LogLevel level, const std::string& text)
{
    std::lock_guard<std::mutex> lock(mutex_);
    if (level <= LOG_OFF || level > level_)
        return;
    // Flushed per line: the log is read while the program runs, and a crash
    // of the caller must not lose the lines before it.
    std::ostream& out = file_.is_open() ? static_cast<std::ostream&>(file_) : std::clog;
    out << text << '\n';
    out.flush();
}

void LogFacility::configureFromEnvironment()
{
    const char* path = std::getenv("KROLIB_LOG_FILE");
    if (path != nullptr && path[0] != '\0') {
        setLogLevel(LOG_DEBUG);
        openLogFile(path, false);
    } else {
        setLogLevel(LOG_OFF);
        resetStream();
    }
}

} // namespace kro
} // namespace velmor
