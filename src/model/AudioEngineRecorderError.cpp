#include "model/AudioEngineRecorderError.hpp"

namespace velto {

namespace {

const char* descriptionOf(AudioEngineRecorderError::Code code) {
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

}  // namespace

AudioEngineRecorderError::AudioEngineRecorderError(Code code)
    : Error(descriptionOf(code), caseName(code)), code_(code) {}

const char* caseName(AudioEngineRecorderError::Code code) {
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
