#pragma once

#include <memory>

#include "RecordingBackend.hpp"
#include "veltoaudio/RecordingService.hpp"

namespace velto::cli {

// The commands' view of the library's RecordingService, with the default preference
// store (the microphone chosen with `velto microphone set` persists between runs).
class ServiceBackend final : public RecordingBackend {
public:
    ServiceBackend();

    EventStream<RecordingEvent> startRecording(const RecordingConfiguration& configuration,
                                               const std::optional<std::filesystem::path>& outputFile) override;
    void stopRecording() override;
    void cancelRecording() override;
    void pauseRecording() override;
    void resumeRecording() override;
    std::vector<MicrophoneDevice> availableMicrophones() override;
    std::optional<MicrophoneDevice> currentMicrophone() override;
    bool hasStoredMicrophonePreference() override;
    void setPreferredMicrophone(const MicrophoneDevice& device) override;
    void clearPreferredMicrophone() override;
    PermissionStatus permissionStatus(const RecordingConfiguration& configuration) override;

private:
    std::unique_ptr<RecordingService> service_;
};

}  // namespace velto::cli
