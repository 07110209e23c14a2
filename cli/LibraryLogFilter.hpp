#pragma once

#include <string_view>

#include "veltoaudio/Logging.hpp"

namespace velto::cli {

// The least severe library log level shown at each -v count (0: errors only).
LogLevel minimumLibraryLogLevel(int verbosity);

// Whether a library log line that passed the level reaches the user. Without -v the
// service's own failure lines are left out: every one of them is the error the
// command reports itself, as one line with advice, so they would say it twice.
bool showLibraryLogLine(int verbosity, LogLevel level, std::string_view category);

}  // namespace velto::cli
