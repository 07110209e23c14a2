#pragma once
// Everything the recording service reaches outside itself, as seams: the process's real
// collaborators come from defaultRecordingServiceDependencies(), tests script their own.

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>

#include "dispatch/Clock.hpp"
#include "platform/CaptureDeviceDiscovery.hpp"
#include "platform/OperatingSystemVersion.hpp"
#include "platform/SystemAudioPermissionManager.hpp"
#include "platform/TCCPermissionProviderProtocol.hpp"
#include "model/AudioRecorderProtocol.hpp"
#include "platform/AudioSessionManagerProtocol.hpp"
#include "veltoaudio/MicrophonePreferencesStorage.hpp"
#include "veltoaudio/RecordingConfiguration.hpp"

namespace velto {

struct RecordingServiceDependencies {
    // The multi-source recorder (used for every recording from 14.4 on). May throw.
    std::function<std::shared_ptr<AudioRecorderProtocol>(const std::filesystem::path& fileURL,
                                                         const RecordingConfiguration& configuration)>
        makeUnifiedRecorder;
    // The single-engine microphone recorder (older systems). May throw.
    std::function<std::shared_ptr<AudioRecorderProtocol>(const std::filesystem::path& fileURL, AudioFormat format,
                                                         const std::optional<MicrophoneDevice>& microphone)>
        makeMicrophoneRecorder;
    // A fresh output-file location for a format. May throw.
    std::function<std::filesystem::path(AudioFormat format)> generateRecordingFileURL;

    std::shared_ptr<AudioSessionManagerProtocol> sessionManager;
    // Null: the user's preferences under "selectedMicrophoneDeviceId".
    std::shared_ptr<MicrophonePreferencesStorage> microphoneStorage;

    // Microphone authorisation: the status, and the request (may ask the user; blocks).
    std::function<platform::AuthorizationStatus()> microphoneAuthorizationStatus;
    std::function<bool()> requestMicrophoneAccess;

    std::function<OperatingSystemVersion()> operatingSystemVersion;

    // The server address that was tried when no sound server answers; nothing when one
    // does (or when the seam is not set).
    std::function<std::optional<std::string>()> unreachableSoundServer;

    // The status query is made on the provider directly; requests go through the manager.
    std::shared_ptr<platform::TCCPermissionProviderProtocol> tccPermissionProvider;
    std::shared_ptr<platform::SystemAudioPermissionManager> systemAudioPermissionManager;

    // Bounds how long a stop or cancel waits for the recorder's last events to be relayed.
    std::shared_ptr<Clock> clock = Clock::system();
};

// The process's real collaborators (sound server, recorders, permission service), with
// `microphoneStorage` as given (null: the default store).
RecordingServiceDependencies defaultRecordingServiceDependencies(
    std::shared_ptr<MicrophonePreferencesStorage> microphoneStorage = nullptr);

}  // namespace velto
