#pragma once

#include "veltoaudio/Error.hpp"

namespace velto {

// Failures of AudioMixer's start: a format it needs cannot be made.
class AudioMixerError final : public Error {
public:
    enum class Code { failedToCreateMixingFormat, failedToCreateSystemAudioInputFormat, failedToCreateMicrophoneInputFormat };

    static AudioMixerError failedToCreateMixingFormat();
    static AudioMixerError failedToCreateSystemAudioInputFormat();
    static AudioMixerError failedToCreateMicrophoneInputFormat();

    Code code() const noexcept { return code_; }

private:
    AudioMixerError(Code code, std::string description, std::string caseDescription);
    Code code_;
};

const char* caseName(AudioMixerError::Code code);

}  // namespace velto
