#include "platform/fake/FakeAudioHardware.hpp"


namespace velto::platform {
namespace {

std::string selectorText(AudioObjectPropertySelector selector) {
    std::string text(4, ' ');
    for (int i = 0; i < 4; ++i) text[i] = static_cast<char>((selector >> (24 - 8 * i)) & 0xff);
    return text;
}

}  // namespace

void FakeAudioHardware::setStatus(const std::string& operation, OSStatus status) {
    std::lock_guard lock(mutex_);
    statuses[operation] = status;
}

std::string FakeAudioHardware::sizeKey(AudioObjectPropertySelector selector) { return "size:" + selectorText(selector); }
std::string FakeAudioHardware::dataKey(AudioObjectPropertySelector selector) { return "data:" + selectorText(selector); }

std::vector<std::string> FakeAudioHardware::calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
}

void FakeAudioHardware::clearCalls() {
    std::lock_guard lock(mutex_);
    calls_.clear();
}

std::optional<TapDescription> FakeAudioHardware::lastTapDescription() const {
    std::lock_guard lock(mutex_);
    return lastTap_;
}

std::optional<PropertyDictionary> FakeAudioHardware::lastAggregateDescription() const {
    std::lock_guard lock(mutex_);
    return lastAggregate_;
}


bool FakeAudioHardware::hasIOBlock() const {
    std::lock_guard lock(mutex_);
    return ioBlock_ != nullptr;
}

bool FakeAudioHardware::deliverInput(const AudioBufferList& input) {
    std::lock_guard delivering(deliveryMutex_);
    std::shared_ptr<AudioDeviceIOBlock> block;
    {
        std::lock_guard lock(mutex_);
        block = ioBlock_;
    }
    if (!block) return false;
    (*block)(input, 0.0);
    return true;
}

void FakeAudioHardware::holdBackInput(std::vector<float> interleaved, std::uint32_t channels) {
    std::lock_guard lock(mutex_);
    heldBackInput_ = std::move(interleaved);
    heldBackChannels_ = channels;
}

OSStatus FakeAudioHardware::deviceFlushCapturedInput(AudioObjectID deviceID, AudioDeviceIOProcID procID) {
    std::vector<float> held;
    std::uint32_t channels = 0;
    {
        std::lock_guard lock(mutex_);
        record("deviceFlushCapturedInput(" + std::to_string(deviceID) + "," + std::to_string(procID) + ")");
        held.swap(heldBackInput_);
        channels = heldBackChannels_;
    }
    if (!held.empty() && channels > 0) {
        AudioBuffer buffer{channels, static_cast<std::uint32_t>(held.size() * sizeof(float)), held.data()};
        deliverInput(AudioBufferList{1, &buffer});
    }
    return noErr;
}

OSStatus FakeAudioHardware::statusFor(const std::string& operation) const {
    const auto it = statuses.find(operation);
    return it == statuses.end() ? noErr : it->second;
}

void FakeAudioHardware::record(std::string call) { calls_.push_back(std::move(call)); }

const FakeAudioHardware::Device* FakeAudioHardware::findDevice(AudioObjectID id) const {
    for (const auto& device : devices) {
        if (device.id == id) return &device;
    }
    return nullptr;
}

OSStatus FakeAudioHardware::getPropertyDataSize(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                                std::uint32_t& outDataSizeBytes) {
    std::lock_guard lock(mutex_);
    record("getPropertyDataSize(" + std::to_string(object) + "," + selectorText(address.mSelector) + ")");
    if (const OSStatus status = statusFor(sizeKey(address.mSelector)); status != noErr) return status;
    switch (address.mSelector) {
        case kAudioHardwarePropertyProcessObjectList:
            outDataSizeBytes = static_cast<std::uint32_t>(processes.size() * sizeof(AudioObjectID));
            return noErr;
        case kAudioHardwarePropertyDevices:
            outDataSizeBytes = static_cast<std::uint32_t>(devices.size() * sizeof(AudioObjectID));
            return noErr;
        case kAudioDevicePropertyDeviceUID: {
            const Device* device = findDevice(object);
            if (device == nullptr) return kAudioHardwareBadObjectError;
            if (device->uidSizeStatus != noErr) return device->uidSizeStatus;
            outDataSizeBytes = 8;
            return noErr;
        }
        case kAudioTapPropertyUID:
            outDataSizeBytes = 8;
            return noErr;
        case kAudioTapPropertyFormat:
            outDataSizeBytes = sizeof(AudioStreamBasicDescription);
            return noErr;
        default:
            outDataSizeBytes = sizeof(AudioObjectID);
            return noErr;
    }
}

OSStatus FakeAudioHardware::getObjectListProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                                  std::uint32_t dataSizeBytes, std::vector<AudioObjectID>& outObjects) {
    std::lock_guard lock(mutex_);
    record("getObjectListProperty(" + std::to_string(object) + "," + selectorText(address.mSelector) + ")");
    if (const OSStatus status = statusFor(dataKey(address.mSelector)); status != noErr) return status;
    std::vector<AudioObjectID> all;
    if (address.mSelector == kAudioHardwarePropertyProcessObjectList) {
        all = processes;
    } else if (address.mSelector == kAudioHardwarePropertyDevices) {
        for (const auto& device : devices) all.push_back(device.id);
    } else {
        return kAudioHardwareUnknownPropertyError;
    }
    const std::size_t count = std::min<std::size_t>(all.size(), dataSizeBytes / sizeof(AudioObjectID));
    outObjects.assign(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(count));
    return noErr;
}

OSStatus FakeAudioHardware::getObjectProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                              AudioObjectID& outObject) {
    std::lock_guard lock(mutex_);
    record("getObjectProperty(" + std::to_string(object) + "," + selectorText(address.mSelector) + ")");
    if (const OSStatus status = statusFor(dataKey(address.mSelector)); status != noErr) return status;
    if (address.mSelector != kAudioHardwarePropertyDefaultSystemOutputDevice) return kAudioHardwareUnknownPropertyError;
    outObject = defaultOutputDevice;
    return noErr;
}

OSStatus FakeAudioHardware::getStringProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                              std::optional<std::string>& outText) {
    std::lock_guard lock(mutex_);
    record("getStringProperty(" + std::to_string(object) + "," + selectorText(address.mSelector) + ")");
    if (const OSStatus status = statusFor(dataKey(address.mSelector)); status != noErr) return status;
    if (address.mSelector == kAudioTapPropertyUID) {
        outText = tapUID;
        return noErr;
    }
    if (address.mSelector == kAudioDevicePropertyDeviceUID) {
        const Device* device = findDevice(object);
        if (device == nullptr) return kAudioHardwareBadObjectError;
        if (device->uidDataStatus != noErr) return device->uidDataStatus;
        outText = device->uid;
        return noErr;
    }
    return kAudioHardwareUnknownPropertyError;
}

OSStatus FakeAudioHardware::getStreamDescriptionProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                                         AudioStreamBasicDescription& outDescription) {
    std::lock_guard lock(mutex_);
    record("getStreamDescriptionProperty(" + std::to_string(object) + "," + selectorText(address.mSelector) + ")");
    if (const OSStatus status = statusFor(dataKey(address.mSelector)); status != noErr) return status;
    outDescription = tapFormat;
    return noErr;
}

OSStatus FakeAudioHardware::createProcessTap(const TapDescription& description, AudioObjectID& outTapID) {
    std::lock_guard lock(mutex_);
    record("createProcessTap");
    lastTap_ = description;
    if (const OSStatus status = statusFor("createProcessTap"); status != noErr) return status;
    outTapID = nextTapID;
    return noErr;
}

OSStatus FakeAudioHardware::destroyProcessTap(AudioObjectID tapID) {
    std::lock_guard lock(mutex_);
    record("destroyProcessTap(" + std::to_string(tapID) + ")");
    return statusFor("destroyProcessTap");
}

OSStatus FakeAudioHardware::createAggregateDevice(const PropertyDictionary& description, AudioObjectID& outDeviceID) {
    std::lock_guard lock(mutex_);
    record("createAggregateDevice");
    lastAggregate_ = description;
    if (const OSStatus status = statusFor("createAggregateDevice"); status != noErr) return status;
    outDeviceID = nextAggregateID;
    return noErr;
}

OSStatus FakeAudioHardware::destroyAggregateDevice(AudioObjectID deviceID) {
    std::lock_guard lock(mutex_);
    record("destroyAggregateDevice(" + std::to_string(deviceID) + ")");
    return statusFor("destroyAggregateDevice");
}

OSStatus FakeAudioHardware::createIOProcIDWithBlock(AudioDeviceIOProcID& outProcID, AudioObjectID deviceID,
                                                    AudioDeviceIOBlock block) {
    std::lock_guard lock(mutex_);
    record("createIOProcIDWithBlock(" + std::to_string(deviceID) + ")");
    if (const OSStatus status = statusFor("createIOProcIDWithBlock"); status != noErr) return status;
    outProcID = nextProcID_++;
    ioBlock_ = std::make_shared<AudioDeviceIOBlock>(std::move(block));
    return noErr;
}

OSStatus FakeAudioHardware::deviceStart(AudioObjectID deviceID, AudioDeviceIOProcID) {
    std::lock_guard lock(mutex_);
    record("deviceStart(" + std::to_string(deviceID) + ")");
    return statusFor("deviceStart");
}

OSStatus FakeAudioHardware::deviceStop(AudioObjectID deviceID, AudioDeviceIOProcID) {
    std::lock_guard lock(mutex_);
    record("deviceStop(" + std::to_string(deviceID) + ")");
    return statusFor("deviceStop");
}

OSStatus FakeAudioHardware::destroyIOProcID(AudioObjectID deviceID, AudioDeviceIOProcID) {
    std::lock_guard delivering(deliveryMutex_);
    std::lock_guard lock(mutex_);
    record("destroyIOProcID(" + std::to_string(deviceID) + ")");
    ioBlock_.reset();
    return statusFor("destroyIOProcID");
}

}  // namespace velto::platform
