#pragma once

#include <functional>
#include <string_view>

#include "veltoaudio/Export.hpp"

namespace velto {

// The library's reverse-DNS identifier prefix: log subsystem, queue labels and
// device UIDs start with it.
inline constexpr const char* kIdentifierPrefix = "io.veltoaudio";
inline constexpr const char* kLogSubsystem = "io.veltoaudio.Ondrel";

enum class LogLevel { debug, info, error, critical };

VELTO_EXPORT const char* caseName(LogLevel level);

// Receives every message the library logs, fully built; the sink must write the
// text unchanged. Called from any thread, including audio threads for sampled
// lines, so it should be quick.
using LogSink = std::function<void(LogLevel level, std::string_view subsystem, std::string_view category,
                                   std::string_view message)>;

// Replaces the process-wide sink; an empty function restores the default, which
// writes to standard error. Thread-safe.
VELTO_EXPORT void setLogSink(LogSink sink);
// Messages below this level are dropped before they reach the sink (default:
// info, like a system log that keeps debug lines only when asked to).
VELTO_EXPORT void setMinimumLogLevel(LogLevel level);
VELTO_EXPORT LogLevel minimumLogLevel();

}  // namespace velto
