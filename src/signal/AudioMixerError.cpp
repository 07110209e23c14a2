#include "signal/AudioMixerError.hpp"

namespace velto {

AudioMixerError::AudioMixerError(Code code, std::string description, std::string caseDescription)
    : Error(std::move(description), std::move(caseDescription)), code_(code) {}

AudioMixerError AudioMixerError::failedToCreateMixingFormat() {
    return AudioMixerError(Code::failedToCreateMixingFormat, "Failed to create mixing format",
                           "failedToCreateMixingFormat");
}

AudioMixerError AudioMixerError::failedToCreateSystemAudioInputFormat() {
    return AudioMixerError(Code::failedToCreateSystemAudioInputFormat, "Failed to create system audio input format",
                           "failedToCreateSystemAudioInputFormat");
}

AudioMixerError AudioMixerError::failedToCreateMicrophoneInputFormat() {
    return AudioMixerError(Code::failedToCreateMicrophoneInputFormat, "Failed to create microphone input format",
                           "failedToCreateMicrophoneInputFormat");
}

const char* caseName(AudioMixerError::Code code) {
    switch (code) {
        case AudioMixerError::Code::failedToCreateMixingFormat: return "failedToCreateMixingFormat";
        case AudioMixerError::Code::failedToCreateSystemAudioInputFormat: return "failedToCreateSystemAudioInputFormat";
        case AudioMixerError::Code::failedToCreateMicrophoneInputFormat: return "failedToCreateMicrophoneInputFormat";
    }
    return "failedToCreateMixingFormat";
}

}  // namespace velto
