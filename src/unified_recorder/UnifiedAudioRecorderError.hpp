#pragma once

#include "veltoaudio/Error.hpp"

namespace velto {

// Failures of the multi-source recorder's own set-up.
class UnifiedAudioRecorderError final : public Error {
public:
    enum class Code {
        failedToCreateMixingFormat,
        systemAudioTapNotInitialized,
        missingMixerOrOutputFile,
        systemAudioRingBufferNotAvailable,
    };

    static UnifiedAudioRecorderError failedToCreateMixingFormat() {
        return UnifiedAudioRecorderError(Code::failedToCreateMixingFormat);
    }
    static UnifiedAudioRecorderError systemAudioTapNotInitialized() {
        return UnifiedAudioRecorderError(Code::systemAudioTapNotInitialized);
    }
    static UnifiedAudioRecorderError missingMixerOrOutputFile() {
        return UnifiedAudioRecorderError(Code::missingMixerOrOutputFile);
    }
    static UnifiedAudioRecorderError systemAudioRingBufferNotAvailable() {
        return UnifiedAudioRecorderError(Code::systemAudioRingBufferNotAvailable);
    }

    Code code() const noexcept { return code_; }
    friend bool operator==(const UnifiedAudioRecorderError& lhs, const UnifiedAudioRecorderError& rhs) {
        return lhs.code_ == rhs.code_;
    }

private:
    explicit UnifiedAudioRecorderError(Code code);
    Code code_;
};

const char* caseName(UnifiedAudioRecorderError::Code code);

}  // namespace velto
