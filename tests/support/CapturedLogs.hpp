#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "veltoaudio/Logging.hpp"

namespace velto::testing {

struct LogRecord {
    LogLevel level;
    std::string subsystem;
    std::string category;
    std::string message;
};

// Captures every message logged while it lives (debug included), instead of
// writing it to standard error. One at a time per process.
class CapturedLogs {
public:
    CapturedLogs();
    ~CapturedLogs();
    CapturedLogs(const CapturedLogs&) = delete;
    CapturedLogs& operator=(const CapturedLogs&) = delete;

    // True when some message of the category starts with `prefix`.
    bool containsPrefix(const std::string& category, const std::string& prefix) const;

private:
    mutable std::mutex mutex_;
    std::vector<LogRecord> records_;
    LogLevel previousMinimum_;
};

}  // namespace velto::testing
