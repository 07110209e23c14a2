#include "veltoaudio/RecordingError.hpp"

namespace velto {

namespace {
std::string underlyingText(const ErrorPtr& error) { return error ? error->errorDescription() : "Unknown error"; }
std::string underlyingCase(const ErrorPtr& error) { return error ? error->caseDescription() : "unknown"; }
}  // namespace

RecordingError::RecordingError(Code code, std::string description, std::string caseDescription, int32_t status,
                               ErrorPtr underlying)
    : Error(std::move(description), std::move(caseDescription)),
      code_(code),
      status_(status),
      underlying_(std::move(underlying)) {}

#define VELTO_WRAPPING_CASE(name, prefix)                                                              \
    RecordingError RecordingError::name(ErrorPtr error) {                                              \
        auto description = std::string(prefix) + underlyingText(error);                                \
        auto caseText = std::string(#name "(") + underlyingCase(error) + ")";                          \
        return RecordingError(Code::name, std::move(description), std::move(caseText), 0, std::move(error)); \
    }
#define VELTO_STATUS_CASE(name, prefix)                                                                      \
    RecordingError RecordingError::name(int32_t status) {                                                    \
        return RecordingError(Code::name, std::string(prefix) + std::to_string(status) + ").",               \
                              std::string(#name "(") + std::to_string(status) + ")", status, nullptr);       \
    }
#define VELTO_PLAIN_CASE(name, text) \
    RecordingError RecordingError::name() { return RecordingError(Code::name, text, #name, 0, nullptr); }

VELTO_WRAPPING_CASE(sessionConfigurationFailed, "Failed to configure audio session: ")
VELTO_WRAPPING_CASE(recordingFailed, "Recording failed: ")
VELTO_WRAPPING_CASE(fileSystemError, "File system error: ")
VELTO_STATUS_CASE(systemAudioTapCreationFailed, "Failed to create system audio tap (error: ")
VELTO_STATUS_CASE(systemAudioDeviceCreationFailed, "Failed to create system audio device (error: ")
VELTO_STATUS_CASE(systemAudioDeviceStartFailed, "Failed to start system audio device (error: ")
VELTO_WRAPPING_CASE(unknown, "Unknown error: ")
VELTO_PLAIN_CASE(permissionDenied, "Microphone permission is required to record audio.")
VELTO_PLAIN_CASE(recorderInitializationFailed, "Failed to initialize audio recorder")
VELTO_PLAIN_CASE(notRecording, "No active recording session.")
VELTO_PLAIN_CASE(invalidState, "Recording is already active or in invalid state.")
VELTO_PLAIN_CASE(deviceNotFound, "The specified microphone device was not found.")
VELTO_PLAIN_CASE(systemAudioPermissionRequired,
                 "System audio recording permission is required. Please grant permission and try again.")
VELTO_PLAIN_CASE(systemAudioPermissionDenied, "System audio recording permission was denied.")
VELTO_PLAIN_CASE(invalidSystemAudioConfiguration, "Invalid system audio configuration.")
VELTO_PLAIN_CASE(systemAudioFormatNotSupported, "The system audio format is not supported.")
VELTO_PLAIN_CASE(separateTracksNeedBothSources,
                 "Separate tracks need both sources: record the microphone and the system audio, or mix one track.")

#undef VELTO_WRAPPING_CASE
#undef VELTO_STATUS_CASE
#undef VELTO_PLAIN_CASE

bool operator==(const RecordingError& lhs, const RecordingError& rhs) {
    if (lhs.code_ != rhs.code_) return false;
    switch (lhs.code_) {
        case RecordingError::Code::systemAudioTapCreationFailed:
        case RecordingError::Code::systemAudioDeviceCreationFailed:
        case RecordingError::Code::systemAudioDeviceStartFailed:
            return lhs.status_ == rhs.status_;
        case RecordingError::Code::sessionConfigurationFailed:
        case RecordingError::Code::recordingFailed:
        case RecordingError::Code::fileSystemError:
        case RecordingError::Code::unknown:
            // Wrapped errors are equal when they read the same; types and codes are not compared.
            return underlyingText(lhs.underlying_) == underlyingText(rhs.underlying_);
        default:
            return true;
    }
}

const char* caseName(RecordingError::Code code) {
    switch (code) {
        case RecordingError::Code::sessionConfigurationFailed: return "sessionConfigurationFailed";
        case RecordingError::Code::recordingFailed: return "recordingFailed";
        case RecordingError::Code::fileSystemError: return "fileSystemError";
        case RecordingError::Code::systemAudioTapCreationFailed: return "systemAudioTapCreationFailed";
        case RecordingError::Code::systemAudioDeviceCreationFailed: return "systemAudioDeviceCreationFailed";
        case RecordingError::Code::systemAudioDeviceStartFailed: return "systemAudioDeviceStartFailed";
        case RecordingError::Code::unknown: return "unknown";
        case RecordingError::Code::permissionDenied: return "permissionDenied";
        case RecordingError::Code::recorderInitializationFailed: return "recorderInitializationFailed";
        case RecordingError::Code::notRecording: return "notRecording";
        case RecordingError::Code::invalidState: return "invalidState";
        case RecordingError::Code::deviceNotFound: return "deviceNotFound";
        case RecordingError::Code::systemAudioPermissionRequired: return "systemAudioPermissionRequired";
        case RecordingError::Code::systemAudioPermissionDenied: return "systemAudioPermissionDenied";
        case RecordingError::Code::invalidSystemAudioConfiguration: return "invalidSystemAudioConfiguration";
        case RecordingError::Code::systemAudioFormatNotSupported: return "systemAudioFormatNotSupported";
        case RecordingError::Code::separateTracksNeedBothSources: return "separateTracksNeedBothSources";
    }
    return "unknown";
}

}  // namespace velto
