#include "platform/InputDeviceSelection.hpp"

#include "platform/OperatingSystemVersion.hpp"
#include "veltoaudio/RecordingError.hpp"

#include <string>

namespace velto::platform {

std::vector<CaptureDeviceType> audioCaptureDeviceTypes() {
    if (currentOperatingSystemVersion() >= OperatingSystemVersion{14, 0, 0}) {
        return {CaptureDeviceType::microphone, CaptureDeviceType::external};
    }
    return {CaptureDeviceType::builtInMicrophone};
}

std::vector<CaptureDevice> discoverAudioCaptureDevices(CaptureDeviceDiscovery& discovery) {
    const auto types = audioCaptureDeviceTypes();
    return discovery.devices(types);
}

std::optional<AudioObjectID> configureInputDevice(const MicrophoneDevice& device, const AudioSystemSnapshot& system,
                                                  CaptureDeviceDiscovery& discovery, AudioInputEngine& engine,
                                                  LoggerCompat& logger) {
    logger.info("🎙️ Configuring PulseAudio input device: '" + device.name + "' (ID: " + device.id + ")");
    if (system.readStatus != noErr) {
        logger.critical("Failed to get audio devices: OSStatus = " + describeStatusCode(system.readStatus));
        return std::nullopt;
    }
    const auto types = audioCaptureDeviceTypes();
    const auto captureDevices = discovery.devices(types, system);
    const CaptureDevice* match = nullptr;
    for (const auto& candidate : captureDevices) {
        if (candidate.uniqueID == device.id) {
            match = &candidate;
            break;
        }
    }
    if (match == nullptr) {
        logger.critical("Could not find AVCaptureDevice for microphone ID: " + device.id);
        return std::nullopt;
    }
    const auto deviceID = system.deviceWithUID(match->uniqueID);
    if (!deviceID) {
        logger.critical("Could not get AudioDeviceID for device: " + device.name);
        return std::nullopt;
    }
    if (!engine.hasAudioUnit()) {
        logger.critical("Could not get AudioUnit from input node");
        return std::nullopt;
    }
    const OSStatus status = engine.setCurrentDevice(*deviceID, system);
    if (status != noErr) {
        logger.critical("Failed to set input device on AudioUnit: OSStatus = " + describeStatusCode(status));
        return std::nullopt;
    }
    logger.info("🎙️ Successfully configured PulseAudio input device: '" + device.name + "'");
    return deviceID;
}

}  // namespace velto::platform
