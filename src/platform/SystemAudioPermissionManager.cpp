#include "platform/SystemAudioPermissionManager.hpp"

#include "logging/LoggerCompat.hpp"
#include "platform/Uuid.hpp"
#include "veltoaudio/RecordingError.hpp"

namespace velto::platform {

namespace {
LoggerCompat& logger() {
    static LoggerCompat l{kLogSubsystem, "SystemAudioPermissionManager"};
    return l;
}
}  // namespace

SystemAudioPermissionManager::SystemAudioPermissionManager(
    std::shared_ptr<TCCPermissionProviderProtocol> tccPermissionProvider, std::shared_ptr<AudioHardware> audioHardware,
    std::function<OperatingSystemVersion()> operatingSystemVersion)
    : tccPermissionProvider_(std::move(tccPermissionProvider)),
      audioHardware_(std::move(audioHardware)),
      operatingSystemVersion_(operatingSystemVersion ? std::move(operatingSystemVersion)
                                                     : currentOperatingSystemVersion) {}

bool SystemAudioPermissionManager::requestPermission() {
    if (!operatingSystemVersion_().isAtLeast(14, 4, 0)) {
        logger().info("System audio recording not available on this system");
        return false;
    }
    try {
        // A refusal by the user is an answer: no fallback then.
        return tccPermissionProvider_->requestAudioCapturePermission();
    } catch (...) {
        logger().error("System audio permission request failed or unavailable (" + caseDescriptionOf(std::current_exception()) +
                       " - falling back to tap creation method");
    }
    return triggerPermissionDialog();
}

bool SystemAudioPermissionManager::triggerPermissionDialog() {
    try {
        // Creating a tap of every process is what makes the system ask the user.
        TapDescription description = TapDescription::stereoGlobalTapButExcludeProcesses({});
        description.uuid = makeRandomUUIDString();
        description.muteBehavior = TapMuteBehavior::unmuted;
        description.name = "Ondrel-PermissionRequest";
        description.isPrivate = true;
        description.isExclusive = true;

        AudioObjectID tapID = 0;
        OSStatus status = audioHardware_->createProcessTap(description, tapID);
        if (status == noErr) {
            audioHardware_->destroyProcessTap(tapID);
            logger().info("Permission dialog triggered and granted");
            return true;
        }
        if (status == kAudioHardwareNotRunningError || status == kAudioHardwareBadObjectError) {
            logger().critical("Permission dialog triggered but denied or system error: " + describeStatusCode(status));
            throw RecordingError::systemAudioPermissionDenied();
        }
        logger().critical("Failed to trigger permission dialog: " + describeStatusCode(status));
        throw RecordingError::systemAudioTapCreationFailed(status);
    } catch (...) {
        logger().critical("Permission request failed: " + caseDescriptionOf(std::current_exception()));
        return false;
    }
}

}  // namespace velto::platform
