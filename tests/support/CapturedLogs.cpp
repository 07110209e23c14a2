#include "support/CapturedLogs.hpp"

namespace velto::testing {

CapturedLogs::CapturedLogs() : previousMinimum_(minimumLogLevel()) {
    setMinimumLogLevel(LogLevel::debug);
    setLogSink([this](LogLevel level, std::string_view subsystem, std::string_view category, std::string_view message) {
        std::lock_guard lock(mutex_);
        records_.push_back({level, std::string(subsystem), std::string(category), std::string(message)});
    });
}

CapturedLogs::~CapturedLogs() {
    setLogSink(nullptr);
    setMinimumLogLevel(previousMinimum_);
}

bool CapturedLogs::containsPrefix(const std::string& category, const std::string& prefix) const {
    std::lock_guard lock(mutex_);
    for (const auto& r : records_)
        if (r.category == category && r.message.rfind(prefix, 0) == 0) return true;
    return false;
}

}  // namespace velto::testing
