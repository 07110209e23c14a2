#pragma once

#include <string_view>

#include "veltoaudio/Logging.hpp"

namespace velto::cli {

// The least severe library log level shown at each -v count (0: errors only).
LogLevel minimumLibraryLogLevel(int verbosity);

// Whether a library log line that passed the level reaches the user. Without -v the
// critical lines are left out: the library logs at that level exactly the failures that
// end a start or a recording, and each of those reaches the command as the error it
// reports itself, as one line with advice. The service's other lines (refusals of a
// stop that came after the recording ended) are left out too. Other components' error
// lines, recoverable trouble the user may want to know about, stay.
bool showLibraryLogLine(int verbosity, LogLevel level, std::string_view category);

}  // namespace velto::cli
