#include "platform/MacOSSessionManager.hpp"
#include "platform/PlatformServices.hpp"
#include "platform/SystemAudioPermissionManager.hpp"
#include "platform/TCCPermissionProvider.hpp"
#include "service/RecordingServiceDependencies.hpp"
#include "veltoaudio/RecordingError.hpp"

namespace velto {

RecordingServiceDependencies defaultRecordingServiceDependencies(
    std::shared_ptr<MicrophonePreferencesStorage> microphoneStorage) {
    auto platformServices = platform::PlatformServices::pulse();
    auto discovery = platformServices.captureDeviceDiscovery;

    RecordingServiceDependencies dependencies;
    // The recorders and the recordings folder are wired here once their components land;
    // until then a start fails cleanly through the recording's event stream.
    dependencies.makeUnifiedRecorder = [](const std::filesystem::path&,
                                          const RecordingConfiguration&) -> std::shared_ptr<AudioRecorderProtocol> {
        throw RecordingError::recorderInitializationFailed();
    };
    dependencies.makeMicrophoneRecorder =
        [](const std::filesystem::path&, AudioFormat,
           const std::optional<MicrophoneDevice>&) -> std::shared_ptr<AudioRecorderProtocol> {
        throw RecordingError::recorderInitializationFailed();
    };
    dependencies.generateRecordingFileURL = [](AudioFormat format) {
        return std::filesystem::temp_directory_path() / ("Recording." + fileExtension(format));
    };

    dependencies.sessionManager = MacOSSessionManager::create(discovery);
    dependencies.microphoneStorage = std::move(microphoneStorage);  // null: the service's default store
    dependencies.microphoneAuthorizationStatus = [discovery] { return discovery->authorizationStatus(); };
    dependencies.requestMicrophoneAccess = [discovery] { return discovery->requestAccess(); };
    dependencies.operatingSystemVersion = currentOperatingSystemVersion;

    auto tccPermissionProvider = std::make_shared<platform::TCCPermissionProvider>();
    dependencies.tccPermissionProvider = tccPermissionProvider;
    dependencies.systemAudioPermissionManager = std::make_shared<platform::SystemAudioPermissionManager>(
        tccPermissionProvider, platformServices.audioHardware, currentOperatingSystemVersion);
    dependencies.clock = Clock::system();
    return dependencies;
}

}  // namespace velto
