#pragma once
// Below both the microphone capture and the microphone recorder, which raise it.

#include "veltoaudio/Error.hpp"

namespace velto {

// Failures of the microphone recorder. `unknownError` is also what the microphone
// capture raises when it cannot point its engine at the chosen input device.
class AudioEngineRecorderError final : public Error {
public:
    enum class Code {
        alreadyInProgress,
        failedToStart,
        failedToCreateFile,
        failedToCreateConverter,
        permissionDenied,
        recordingFailed,
        emptyFile,
        fileNotFound,
        unknownError,
    };

    static AudioEngineRecorderError alreadyInProgress() { return AudioEngineRecorderError(Code::alreadyInProgress); }
    static AudioEngineRecorderError failedToStart() { return AudioEngineRecorderError(Code::failedToStart); }
    static AudioEngineRecorderError failedToCreateFile() { return AudioEngineRecorderError(Code::failedToCreateFile); }
    static AudioEngineRecorderError failedToCreateConverter() {
        return AudioEngineRecorderError(Code::failedToCreateConverter);
    }
    static AudioEngineRecorderError permissionDenied() { return AudioEngineRecorderError(Code::permissionDenied); }
    static AudioEngineRecorderError recordingFailed() { return AudioEngineRecorderError(Code::recordingFailed); }
    static AudioEngineRecorderError emptyFile() { return AudioEngineRecorderError(Code::emptyFile); }
    static AudioEngineRecorderError fileNotFound() { return AudioEngineRecorderError(Code::fileNotFound); }
    static AudioEngineRecorderError unknownError() { return AudioEngineRecorderError(Code::unknownError); }

    Code code() const noexcept { return code_; }

    friend bool operator==(const AudioEngineRecorderError& lhs, const AudioEngineRecorderError& rhs) {
        return lhs.code_ == rhs.code_;
    }

private:
    explicit AudioEngineRecorderError(Code code);
    Code code_;
};

const char* caseName(AudioEngineRecorderError::Code code);

}  // namespace velto
