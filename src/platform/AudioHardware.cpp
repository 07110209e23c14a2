#include "platform/AudioHardware.hpp"

namespace velto::platform {
namespace {

OSStatus readList(AudioHardware& hardware, AudioObjectPropertySelector selector, std::vector<AudioObjectID>& out) {
    const AudioObjectPropertyAddress address{selector};
    std::uint32_t dataSizeBytes = 0;
    if (const OSStatus status = hardware.getPropertyDataSize(kAudioObjectSystemObject, address, dataSizeBytes);
        status != noErr) {
        return status;
    }
    out.clear();
    if (dataSizeBytes < sizeof(AudioObjectID)) return noErr;
    return hardware.getObjectListProperty(kAudioObjectSystemObject, address, dataSizeBytes, out);
}

}  // namespace

OSStatus AudioHardware::readSystemSnapshot(AudioSystemSnapshot& outSnapshot) {
    AudioSystemSnapshot snapshot;
    if (const OSStatus status = readList(*this, kAudioHardwarePropertyProcessObjectList, snapshot.processes);
        status != noErr) {
        return status;
    }
    std::vector<AudioObjectID> devices;
    if (const OSStatus status = readList(*this, kAudioHardwarePropertyDevices, devices); status != noErr) return status;
    const AudioObjectPropertyAddress uidAddress{kAudioDevicePropertyDeviceUID};
    for (AudioObjectID device : devices) {
        std::uint32_t uidSizeBytes = 0;
        if (getPropertyDataSize(device, uidAddress, uidSizeBytes) != noErr) continue;
        std::optional<std::string> uid;
        if (getStringProperty(device, uidAddress, uid) != noErr || !uid) continue;
        snapshot.devices.push_back({device, std::move(*uid)});
    }
    const AudioObjectPropertyAddress outputAddress{kAudioHardwarePropertyDefaultSystemOutputDevice};
    if (const OSStatus status =
            getObjectProperty(kAudioObjectSystemObject, outputAddress, snapshot.defaultSystemOutputDevice);
        status != noErr) {
        return status;
    }
    outSnapshot = std::move(snapshot);
    return noErr;
}

AudioSystemSnapshot AudioHardware::readSnapshotForOperation() {
    AudioSystemSnapshot snapshot;
    if (const OSStatus status = readSystemSnapshot(snapshot); status != noErr) {
        snapshot = AudioSystemSnapshot{};
        snapshot.readStatus = status;
    }
    return snapshot;
}

}  // namespace velto::platform
