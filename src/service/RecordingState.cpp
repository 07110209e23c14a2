#include "veltoaudio/RecordingState.hpp"

namespace velto {

const char* caseName(RecordingState state) {
    switch (state) {
        case RecordingState::idle: return "idle";
        case RecordingState::starting: return "starting";
        case RecordingState::recording: return "recording";
        case RecordingState::paused: return "paused";
        case RecordingState::stopping: return "stopping";
        case RecordingState::cancelling: return "cancelling";
        case RecordingState::error: return "error";
    }
    return "idle";
}

}  // namespace velto
