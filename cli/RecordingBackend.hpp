#pragma once

#include <filesystem>
#include <optional>
#include <vector>

#include "veltoaudio/EventStream.hpp"
#include "veltoaudio/MicrophoneDevice.hpp"
#include "veltoaudio/PermissionState.hpp"
#include "veltoaudio/RecordingConfiguration.hpp"
#include "veltoaudio/RecordingEvent.hpp"

namespace velto::cli {

// The part of the recording service the commands use. The program passes the library's
// RecordingService through ServiceBackend; the tests pass a scripted stand-in.
//
// Threads: like the service, every member may be called from any thread; the record
// command reads events on the main thread while stop and cancel run on its control thread.
class RecordingBackend {
public:
    virtual ~RecordingBackend() = default;

    // Throws the library's RecordingError when the recording cannot start. Without
    // `outputFile` the library chooses the file in its recordings folder.
    virtual EventStream<RecordingEvent> startRecording(const RecordingConfiguration& configuration,
                                                       const std::optional<std::filesystem::path>& outputFile) = 0;
    // Block until the recorder has acted; never throw.
    virtual void stopRecording() = 0;
    virtual void cancelRecording() = 0;
    // Block until the recorder has acted; never throw (a refused call is ignored).
    virtual void pauseRecording() = 0;
    virtual void resumeRecording() = 0;

    virtual std::vector<MicrophoneDevice> availableMicrophones() = 0;
    virtual std::optional<MicrophoneDevice> currentMicrophone() = 0;
    virtual bool hasStoredMicrophonePreference() = 0;
    // Throws RecordingError (deviceNotFound, invalidState).
    virtual void setPreferredMicrophone(const MicrophoneDevice& device) = 0;
    virtual void clearPreferredMicrophone() = 0;
    virtual PermissionStatus permissionStatus(const RecordingConfiguration& configuration) = 0;
};

}  // namespace velto::cli
