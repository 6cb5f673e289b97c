#pragma once

#include <fstream>
#include <mutex>
#include <string>

#include "KroLibExport.h"

namespace velmor {
namespace kro {

// Log levels: 0 switches logging off, higher values let more through. The
// library itself only uses 0 (off) and 4 (every line).
enum LogLevel : int {
    LOG_OFF = 0,
    LOG_ERROR = 1,
    LOG_WARNING = 2,
    LOG_INFO = 3,
    LOG_DEBUG = 4
};

// Process-wide log. Lines go to the default sink (standard error) until
// openLogFile() directs them to a file; resetStream() returns to the default
// sink. A line is written when its level is at least 1 and at most the
// current level. Writing is serialised internally, so lines from different
// threads never interleave; configuring (level, file) is meant for the
// set-up phase of a program.
class KROLIB_EXPORT LogFacility {
public:
    static LogFacility& getInstance();

    void setLogLevel(LogLevel level);
    LogLevel getLogLevel() const;

    // Directs output to `path` (appending if `append`, else truncating).
    // When `path` is already the open sink, nothing changes.
    // Returns false, keeps the previous sink and says why on standard error
    // when the file cannot be opened.
    bool openLogFile(const std::string& path, bool append);
    void resetStream();

    // Whether callers prefix their lines with "source path, line : ".
    void setSourcePosition(bool on);
    bool getSourcePosition() const;

    void logMessage(LogLevel level, const std::string& text);

    // Log set-up from the environment variable KROLIB_LOG_FILE: when it is
    // set and not empty, level 4 and output to that file (truncated);
    // otherwise level 0 and the default sink.
    void configureFromEnvironment();

    LogFacility(const LogFacility&) = delete;
    LogFacility& operator=(const LogFacility&) = delete;

private:
    LogFacility() = default;

    mutable std::mutex mutex_;
    LogLevel level_ = LOG_OFF;
    bool sourcePosition_ = false;
    std::ofstream file_;
    std::string filePath_;
};

} // namespace kro
} // namespace velmor
