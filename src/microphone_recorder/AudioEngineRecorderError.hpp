#pragma once
// Header-only: the microphone capture raises unknownError without linking the recorder.

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

inline const char* caseName(AudioEngineRecorderError::Code code);

namespace detail {
inline const char* descriptionOf(AudioEngineRecorderError::Code code) {
    using Code = AudioEngineRecorderError::Code;
    switch (code) {
        case Code::alreadyInProgress: return "Recording already in progress";
        case Code::failedToStart: return "Failed to start recording";
        case Code::failedToCreateFile: return "Failed to create audio file";
        case Code::failedToCreateConverter: return "Failed to create audio format converter";
        case Code::permissionDenied: return "Audio recording permission denied";
        case Code::recordingFailed: return "Recording failed";
        case Code::emptyFile: return "Recording file is empty";
        case Code::fileNotFound: return "Recording file not found";
        case Code::unknownError: return "Unknown recording error occurred";
    }
    return "Unknown recording error occurred";
}
}  // namespace detail

inline AudioEngineRecorderError::AudioEngineRecorderError(Code code)
    : Error(detail::descriptionOf(code), caseName(code)), code_(code) {}

inline const char* caseName(AudioEngineRecorderError::Code code) {
    using Code = AudioEngineRecorderError::Code;
    switch (code) {
        case Code::alreadyInProgress: return "alreadyInProgress";
        case Code::failedToStart: return "failedToStart";
        case Code::failedToCreateFile: return "failedToCreateFile";
        case Code::failedToCreateConverter: return "failedToCreateConverter";
        case Code::permissionDenied: return "permissionDenied";
        case Code::recordingFailed: return "recordingFailed";
        case Code::emptyFile: return "emptyFile";
        case Code::fileNotFound: return "fileNotFound";
        case Code::unknownError: return "unknownError";
    }
    return "unknownError";
}

}  // namespace velto
