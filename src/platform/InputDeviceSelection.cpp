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

std::optional<AudioObjectID> audioDeviceID(AudioHardware& hardware, const std::string& uid, LoggerCompat& logger) {
    const AudioObjectPropertyAddress devicesAddress{kAudioHardwarePropertyDevices};
    std::uint32_t dataSizeBytes = 0;
    OSStatus status = hardware.getPropertyDataSize(kAudioObjectSystemObject, devicesAddress, dataSizeBytes);
    if (status != noErr) {
        logger.critical("Failed to get audio devices data size: OSStatus = " + describeStatusCode(status));
        return std::nullopt;
    }
    std::vector<AudioObjectID> devices;
    status = hardware.getObjectListProperty(kAudioObjectSystemObject, devicesAddress, dataSizeBytes, devices);
    if (status != noErr) {
        logger.critical("Failed to get audio devices: OSStatus = " + describeStatusCode(status));
        return std::nullopt;
    }
    const AudioObjectPropertyAddress uidAddress{kAudioDevicePropertyDeviceUID};
    for (AudioObjectID device : devices) {
        // A device that cannot describe itself is skipped, not fatal: it may be going away.
        std::uint32_t uidSizeBytes = 0;
        if (hardware.getPropertyDataSize(device, uidAddress, uidSizeBytes) != noErr) continue;
        std::optional<std::string> deviceUID;
        if (hardware.getStringProperty(device, uidAddress, deviceUID) != noErr || !deviceUID) continue;
        if (*deviceUID == uid) return device;
    }
    return std::nullopt;
}

std::optional<AudioObjectID> configureInputDevice(const MicrophoneDevice& device, CaptureDeviceDiscovery& discovery,
                                                  AudioHardware& hardware, AudioInputEngine& engine,
                                                  LoggerCompat& logger) {
    logger.info("🎙️ Configuring PulseAudio input device: '" + device.name + "' (ID: " + device.id + ")");
    const auto captureDevices = discoverAudioCaptureDevices(discovery);
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
    const auto deviceID = audioDeviceID(hardware, match->uniqueID, logger);
    if (!deviceID) {
        logger.critical("Could not get AudioDeviceID for device: " + device.name);
        return std::nullopt;
    }
    if (!engine.hasAudioUnit()) {
        logger.critical("Could not get AudioUnit from input node");
        return std::nullopt;
    }
    const OSStatus status = engine.setCurrentDevice(*deviceID);
    if (status != noErr) {
        logger.critical("Failed to set input device on AudioUnit: OSStatus = " + describeStatusCode(status));
        return std::nullopt;
    }
    logger.info("🎙️ Successfully configured PulseAudio input device: '" + device.name + "'");
    return deviceID;
}

}  // namespace velto::platform
