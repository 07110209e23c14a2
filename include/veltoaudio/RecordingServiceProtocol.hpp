#pragma once

#include <optional>
#include <vector>

#include "veltoaudio/Export.hpp"
#include "veltoaudio/EventStream.hpp"
#include "veltoaudio/MicrophoneDevice.hpp"
#include "veltoaudio/PcmBuffer.hpp"
#include "veltoaudio/PermissionState.hpp"
#include "veltoaudio/RecordingConfiguration.hpp"
#include "veltoaudio/RecordingEvent.hpp"

namespace velto {

// The public contract of the recording service. A conforming type runs its operations
// one at a time; every member may be called from any thread and waits for its turn.
class VELTO_EXPORT RecordingServiceProtocol {
public:
    virtual ~RecordingServiceProtocol() = default;

    // True in starting, recording and paused.
    virtual bool isRecordingActive() = 0;
    virtual bool isRecording() = 0;
    virtual bool isPaused() = 0;
    // The current recording's buffers; absent when no recorder exists.
    virtual std::optional<AudioBufferStream> audioStream() = 0;

    // Throw RecordingError when the recording cannot start; a failure of the recording
    // itself ends the returned stream with the recorder's error.
    virtual EventStream<RecordingEvent> startRecording(const RecordingConfiguration& configuration) = 0;
    virtual EventStream<RecordingEvent> startRecording() = 0;
    virtual EventStream<RecordingEvent> restartRecording() = 0;

    // Return when done; never throw. A refused call is logged and ignored.
    virtual void stopRecording() noexcept = 0;
    virtual void cancelRecording() noexcept = 0;
    virtual void pauseRecording() noexcept = 0;
    virtual void resumeRecording() noexcept = 0;

    // Microphone access is authorised (system audio is not considered).
    virtual bool hasPermission() = 0;
    virtual bool requestSystemAudioPermission() = 0;
    virtual bool requestMicrophonePermission() = 0;
    // Throws RecordingError (soundServerUnreachable): with no sound server there is no answer.
    virtual PermissionStatus getPermissionStatus(const RecordingConfiguration& configuration) = 0;
    virtual std::vector<MicrophoneDevice> getAvailableMicrophones() = 0;
    virtual std::optional<MicrophoneDevice> getCurrentMicrophone() = 0;
    // Throws RecordingError (invalidState, deviceNotFound).
    virtual void setPreferredMicrophone(std::optional<MicrophoneDevice> device) = 0;
    virtual void clearPreferredMicrophone() = 0;
    virtual bool hasStoredMicrophonePreference() = 0;
};

}  // namespace velto
