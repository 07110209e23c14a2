#include "veltoaudio/RecordingError.hpp"

namespace velto {

namespace {
std::string underlyingText(const ErrorPtr& error) { return error ? error->errorDescription() : "Unknown error"; }
std::string underlyingCase(const ErrorPtr& error) { return error ? error->caseDescription() : "unknown"; }

constexpr int32_t fourCharCode(const char (&code)[5]) {
    return static_cast<int32_t>((static_cast<uint32_t>(static_cast<unsigned char>(code[0])) << 24) |
                                (static_cast<uint32_t>(static_cast<unsigned char>(code[1])) << 16) |
                                (static_cast<uint32_t>(static_cast<unsigned char>(code[2])) << 8) |
                                static_cast<uint32_t>(static_cast<unsigned char>(code[3])));
}

// The status codes the audio layer reports, in words.
const char* statusMeaning(int32_t status) {
    switch (status) {
        case -50: return "invalid parameter";
        case fourCharCode("stop"): return "sound server not running";
        case fourCharCode("what"): return "unspecified error";
        case fourCharCode("who?"): return "unknown property";
        case fourCharCode("!obj"): return "no such object";
        case fourCharCode("!dev"): return "no such device";
        case fourCharCode("nope"): return "operation not allowed";
        default: return nullptr;
    }
}

// Four printable characters: the code was made from them, and they say more than digits.
std::string fourCharacters(int32_t status) {
    const auto bits = static_cast<uint32_t>(status);
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const char c = static_cast<char>((bits >> shift) & 0xFF);
        if (c < 0x20 || c > 0x7E) return {};
        text += c;
    }
    return "'" + text + "'";
}
}  // namespace

std::string describeStatusCode(int32_t status) {
    std::string text = std::to_string(status);
    const std::string characters = fourCharacters(status);
    if (!characters.empty()) text += " " + characters;
    if (const char* meaning = statusMeaning(status)) text += std::string(", ") + meaning;
    return text;
}

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
        return RecordingError(Code::name, std::string(prefix) + describeStatusCode(status) + ").",           \
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
VELTO_PLAIN_CASE(invalidMaximumDuration, "The maximum duration must be a finite number of seconds above zero.")

RecordingError RecordingError::soundServerUnreachable(std::string serverAddress) {
    RecordingError error(Code::soundServerUnreachable,
                         "No sound server could be reached at " + serverAddress +
                             ". Start PulseAudio or PipeWire, or set PULSE_SERVER to the address of a running server.",
                         "soundServerUnreachable(" + serverAddress + ")", 0, nullptr);
    error.serverAddress_ = std::move(serverAddress);
    return error;
}

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
        case RecordingError::Code::soundServerUnreachable:
            return lhs.serverAddress_ == rhs.serverAddress_;
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
        case RecordingError::Code::soundServerUnreachable: return "soundServerUnreachable";
        case RecordingError::Code::invalidMaximumDuration: return "invalidMaximumDuration";
    }
    return "unknown";
}

}  // namespace velto
