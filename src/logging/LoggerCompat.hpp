#pragma once

#include <string>
#include <string_view>

#include "veltoaudio/Logging.hpp"

namespace velto {

// The one logging facility of the library. A message is built completely by the
// caller and published unchanged, with this logger's subsystem and category, to
// the process-wide sink (see veltoaudio/Logging.hpp). Any thread may log.
//
// Each component keeps one logger for the life of the process:
//   static LoggerCompat& logger() { static LoggerCompat l{kLogSubsystem, "AudioMixer"}; return l; }
class LoggerCompat {
public:
    LoggerCompat(std::string subsystem, std::string category);

    void debug(std::string_view message) const { log(LogLevel::debug, message); }
    void info(std::string_view message) const { log(LogLevel::info, message); }
    void error(std::string_view message) const { log(LogLevel::error, message); }
    void critical(std::string_view message) const { log(LogLevel::critical, message); }

    const std::string& subsystem() const { return subsystem_; }
    const std::string& category() const { return category_; }

private:
    void log(LogLevel level, std::string_view message) const;
    std::string subsystem_;
    std::string category_;
};

}  // namespace velto
