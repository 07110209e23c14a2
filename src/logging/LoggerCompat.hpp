#pragma once

#include <concepts>
#include <string>
#include <string_view>
#include <utility>

#include "veltoaudio/Logging.hpp"

namespace velto {

// The one logging facility of the library. A message is built completely by the
// caller and published unchanged, with this logger's subsystem and category, to
// the process-wide sink (see veltoaudio/Logging.hpp). Any thread may log.
//
// Each component keeps one logger for the life of the process:
//   static LoggerCompat& logger() { static LoggerCompat l{kLogSubsystem, "AudioMixer"}; return l; }
//
// Where a line would be built often (per block, per tick), pass a callable that
// builds it: it runs only when the level is kept, so a dropped line costs one
// relaxed atomic load and no allocation:
//   logger().debug([&] { return "Converted " + std::to_string(frames) + " frames"; });
class LoggerCompat {
public:
    LoggerCompat(std::string subsystem, std::string category);

    void debug(std::string_view message) const { log(LogLevel::debug, message); }
    void info(std::string_view message) const { log(LogLevel::info, message); }
    void error(std::string_view message) const { log(LogLevel::error, message); }
    void critical(std::string_view message) const { log(LogLevel::critical, message); }

    template <std::invocable Build>
    void debug(Build&& build) const {
        logLazily(LogLevel::debug, std::forward<Build>(build));
    }
    template <std::invocable Build>
    void error(Build&& build) const {
        logLazily(LogLevel::error, std::forward<Build>(build));
    }

    // Whether a line of this level would reach the sink now.
    static bool isEnabled(LogLevel level) noexcept { return level >= minimumLogLevel(); }

    const std::string& subsystem() const { return subsystem_; }
    const std::string& category() const { return category_; }

private:
    template <typename Build>
    void logLazily(LogLevel level, Build&& build) const {
        if (isEnabled(level)) log(level, std::forward<Build>(build)());
    }
    void log(LogLevel level, std::string_view message) const;
    std::string subsystem_;
    std::string category_;
};

}  // namespace velto
