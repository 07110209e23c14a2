#include "LibraryLogFilter.hpp"

namespace velto::cli {

LogLevel minimumLibraryLogLevel(int verbosity) {
    if (verbosity <= 0) return LogLevel::error;
    if (verbosity == 1) return LogLevel::info;
    return LogLevel::debug;
}

bool showLibraryLogLine(int verbosity, LogLevel level, std::string_view category) {
    if (level < minimumLibraryLogLevel(verbosity)) return false;
    if (verbosity > 0) return true;
    return level != LogLevel::critical && category != "RecordingService";
}

}  // namespace velto::cli
