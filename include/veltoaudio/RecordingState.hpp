#pragma once

#include "veltoaudio/Export.hpp"

namespace velto {

// Where the recording service is in its session lifecycle.
enum class RecordingState { idle, starting, recording, paused, stopping, cancelling, error };

// The case name ("idle", "paused", ...), as it appears in log lines.
VELTO_EXPORT const char* caseName(RecordingState state);

}  // namespace velto
