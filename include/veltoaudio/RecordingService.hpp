#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

#include "veltoaudio/Export.hpp"
#include "veltoaudio/MicrophonePreferencesStorage.hpp"
#include "veltoaudio/RecordingServiceProtocol.hpp"
#include "veltoaudio/RecordingState.hpp"

namespace velto {

class RecordingServiceCore;
struct RecordingServiceAssembly;

// The library's façade: checks permissions, picks a microphone, records one session at
// a time and relays the recorder's events to the caller.
//
// Threads: every member may be called from any thread. Operations run one at a time;
// an operation that waits on the recorder (stop, cancel, pause, resume) lets the event
// forwarding of the running recording go on meanwhile, so a stopped recording delivers
// `finished` to the caller before its event stream ends.
// Lifetime: the service may be destroyed while a recording runs; the recording is then
// cancelled and its event stream ends. Do not destroy it while another thread is inside
// one of its operations.
class VELTO_EXPORT RecordingService final : public RecordingServiceProtocol {
public:
    // A null storage selects the default: the user's preferences, key "selectedMicrophoneDeviceId".
    explicit RecordingService(std::shared_ptr<MicrophonePreferencesStorage> microphoneStorage);
    ~RecordingService() override;
    RecordingService(const RecordingService&) = delete;
    RecordingService& operator=(const RecordingService&) = delete;

    bool isRecordingActive() override;
    bool isRecording() override;
    bool isPaused() override;
    std::optional<AudioBufferStream> audioStream() override;
    RecordingState recordingState();

    EventStream<RecordingEvent> startRecording(const RecordingConfiguration& configuration) override;
    // FLAC, microphone only, the resolved microphone, the default buffer sizes.
    EventStream<RecordingEvent> startRecording() override;
    // Records into `outputFile` instead of a fresh file in the recordings folder.
    EventStream<RecordingEvent> startRecording(const RecordingConfiguration& configuration,
                                               const std::filesystem::path& outputFile);
    EventStream<RecordingEvent> restartRecording() override;

    void stopRecording() noexcept override;
    void cancelRecording() noexcept override;
    void pauseRecording() noexcept override;
    void resumeRecording() noexcept override;

    bool hasPermission() override;
    bool requestSystemAudioPermission() override;
    bool requestMicrophonePermission() override;
    PermissionStatus getPermissionStatus(const RecordingConfiguration& configuration) override;
    std::vector<MicrophoneDevice> getAvailableMicrophones() override;
    std::optional<MicrophoneDevice> getCurrentMicrophone() override;
    void setPreferredMicrophone(std::optional<MicrophoneDevice> device) override;
    void clearPreferredMicrophone() override;
    bool hasStoredMicrophonePreference() override;

private:
    friend struct RecordingServiceAssembly;
    // Tagged, so that RecordingService(nullptr) still means the default storage.
    struct FromCore {};
    VELTO_HIDDEN RecordingService(FromCore, std::shared_ptr<RecordingServiceCore> core);

    // Shared so that the forwarding task and the stream's termination handler can hold
    // it weakly and do nothing once the service is gone.
    std::shared_ptr<RecordingServiceCore> core_;
};

}  // namespace velto
