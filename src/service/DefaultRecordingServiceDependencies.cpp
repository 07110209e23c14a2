#include "microphone_recorder/AudioRecorder.hpp"
#include "platform/MacOSSessionManager.hpp"
#include "platform/PlatformServices.hpp"
#include "platform/SystemAudioPermissionManager.hpp"
#include "platform/TCCPermissionProvider.hpp"
#include "platform/pulse/PulseConnection.hpp"
#include "service/RecordingServiceDependencies.hpp"
#include "unified_recorder/RecordingFileLocation.hpp"
#include "unified_recorder/UnifiedAudioRecorder.hpp"
#include "veltoaudio/RecordingError.hpp"

namespace velto {

RecordingServiceDependencies defaultRecordingServiceDependencies(
    std::shared_ptr<MicrophonePreferencesStorage> microphoneStorage) {
    auto platformServices = platform::PlatformServices::pulse();
    auto discovery = platformServices.captureDeviceDiscovery;

    RecordingServiceDependencies dependencies;
    dependencies.makeUnifiedRecorder =
        [platformServices](const std::filesystem::path& fileURL,
                           const RecordingConfiguration& configuration) -> std::shared_ptr<AudioRecorderProtocol> {
        return UnifiedAudioRecorder::create(fileURL, configuration, platformServices);
    };
    dependencies.makeMicrophoneRecorder =
        [platformServices](const std::filesystem::path& fileURL, AudioFormat format,
                           const std::optional<MicrophoneDevice>& microphone) -> std::shared_ptr<AudioRecorderProtocol> {
        return AudioRecorder::create(fileURL, format, microphone, platformServices);
    };
    dependencies.generateRecordingFileURL = [](AudioFormat format) { return generateRecordingFileURL(format); };

    dependencies.sessionManager = MacOSSessionManager::create(discovery);
    dependencies.microphoneStorage = std::move(microphoneStorage);  // null: the service's default store
    dependencies.microphoneAuthorizationStatus = [discovery] { return discovery->authorizationStatus(); };
    dependencies.requestMicrophoneAccess = [discovery] { return discovery->requestAccess(); };
    dependencies.operatingSystemVersion = currentOperatingSystemVersion;
    dependencies.unreachableSoundServer = [connection = pulse::PulseConnection::shared()]() -> std::optional<std::string> {
        if (!pulse::isServerUnreachable(connection->ensureConnected())) return std::nullopt;
        return pulse::serverAddressTried();
    };

    auto tccPermissionProvider = std::make_shared<platform::TCCPermissionProvider>();
    dependencies.tccPermissionProvider = tccPermissionProvider;
    dependencies.systemAudioPermissionManager = std::make_shared<platform::SystemAudioPermissionManager>(
        tccPermissionProvider, platformServices.audioHardware, currentOperatingSystemVersion);
    dependencies.clock = Clock::system();
    return dependencies;
}

}  // namespace velto
