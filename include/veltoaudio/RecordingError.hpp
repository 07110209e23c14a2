#pragma once

#include <cstdint>
#include <string>

#include "veltoaudio/Error.hpp"
#include "veltoaudio/Export.hpp"

namespace velto {

class RecordingError;
// Same case and same payload; wrapped errors compare by their descriptions.
VELTO_EXPORT bool operator==(const RecordingError& lhs, const RecordingError& rhs);

// The library's public error type: every failure the service detects itself,
// and the failures of capture and recording.
class VELTO_EXPORT RecordingError final : public Error {
public:
    enum class Code {
        sessionConfigurationFailed,
        recordingFailed,
        fileSystemError,
        systemAudioTapCreationFailed,
        systemAudioDeviceCreationFailed,
        systemAudioDeviceStartFailed,
        unknown,
        permissionDenied,
        recorderInitializationFailed,
        notRecording,
        invalidState,
        deviceNotFound,
        systemAudioPermissionRequired,
        systemAudioPermissionDenied,
        invalidSystemAudioConfiguration,
        systemAudioFormatNotSupported,
        separateTracksNeedBothSources,
        soundServerUnreachable,
        invalidMaximumDuration,
    };

    static RecordingError sessionConfigurationFailed(ErrorPtr error);
    static RecordingError recordingFailed(ErrorPtr error);
    static RecordingError fileSystemError(ErrorPtr error);
    static RecordingError systemAudioTapCreationFailed(int32_t status);
    static RecordingError systemAudioDeviceCreationFailed(int32_t status);
    static RecordingError systemAudioDeviceStartFailed(int32_t status);
    static RecordingError unknown(ErrorPtr error);
    static RecordingError permissionDenied();
    static RecordingError recorderInitializationFailed();
    static RecordingError notRecording();
    static RecordingError invalidState();
    static RecordingError deviceNotFound();
    static RecordingError systemAudioPermissionRequired();
    static RecordingError systemAudioPermissionDenied();
    static RecordingError invalidSystemAudioConfiguration();
    static RecordingError systemAudioFormatNotSupported();
    static RecordingError separateTracksNeedBothSources();
    static RecordingError invalidMaximumDuration();
    // No sound server answered at `serverAddress` (what was tried, e.g.
    // "unix:/run/user/1000/pulse/native"): nothing can be recorded or asked until one runs.
    static RecordingError soundServerUnreachable(std::string serverAddress);

    Code code() const noexcept { return code_; }
    // The platform status of the three system-audio failures; 0 for the others.
    int32_t status() const noexcept { return status_; }
    // The wrapped error of the four wrapping cases; null for the others.
    const ErrorPtr& underlyingError() const noexcept { return underlying_; }
    // The address tried, for soundServerUnreachable; empty for the others.
    const std::string& serverAddress() const noexcept { return serverAddress_; }

    friend bool operator==(const RecordingError& lhs, const RecordingError& rhs);

private:
    RecordingError(Code code, std::string description, std::string caseDescription, int32_t status,
                   ErrorPtr underlying);
    Code code_;
    int32_t status_;
    ErrorPtr underlying_;
    std::string serverAddress_;
};

// A platform status code as the descriptions show it: the decimal number, followed by
// what it means where that is known ("1937010544 'stop', sound server not running").
VELTO_EXPORT std::string describeStatusCode(int32_t status);

VELTO_EXPORT const char* caseName(RecordingError::Code code);

}  // namespace velto
