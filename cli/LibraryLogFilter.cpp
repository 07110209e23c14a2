#include "LibraryLogFilter.hpp"

namespace velto::cli {

LogLevel minimumLibraryLogLevel(int verbosity) {
    if (verbosity <= 0) return LogLevel::error;
    if (verbosity == 1) return LogLevel::info;
    return LogLevel::debug;
}

bool showLibraryLogLine(int verbosity, LogLevel level, std::string_view category) {
    if (level < minimumLibraryLogLevel(verbosity)) return false;
    return verbosity > 0 || category != "RecordingService";
}

}  // namespace velto::cli
