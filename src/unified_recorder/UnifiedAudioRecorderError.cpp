#include "unified_recorder/UnifiedAudioRecorderError.hpp"

namespace velto {

namespace {
const char* descriptionOf(UnifiedAudioRecorderError::Code code) {
    using Code = UnifiedAudioRecorderError::Code;
    switch (code) {
        case Code::failedToCreateMixingFormat: return "Failed to create mixing format";
        case Code::systemAudioTapNotInitialized: return "System audio tap not initialized";
        case Code::missingMixerOrOutputFile: return "Missing mixer or output file";
        case Code::systemAudioRingBufferNotAvailable: return "System audio ring buffer not available";
    }
    return "Missing mixer or output file";
}
}  // namespace

UnifiedAudioRecorderError::UnifiedAudioRecorderError(Code code)
    : Error(descriptionOf(code), caseName(code)), code_(code) {}

const char* caseName(UnifiedAudioRecorderError::Code code) {
    using Code = UnifiedAudioRecorderError::Code;
    switch (code) {
        case Code::failedToCreateMixingFormat: return "failedToCreateMixingFormat";
        case Code::systemAudioTapNotInitialized: return "systemAudioTapNotInitialized";
        case Code::missingMixerOrOutputFile: return "missingMixerOrOutputFile";
        case Code::systemAudioRingBufferNotAvailable: return "systemAudioRingBufferNotAvailable";
    }
    return "missingMixerOrOutputFile";
}

}  // namespace velto
