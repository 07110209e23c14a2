#include "platform/pulse/PulseAudioHardware.hpp"

#include "dispatch/SerialQueue.hpp"
#include "logging/LoggerCompat.hpp"
#include "platform/Uuid.hpp"
#include "platform/pulse/PulseObjectIDs.hpp"
#include "platform/pulse/PulseSnapshotDetail.hpp"
#include "veltoaudio/Error.hpp"

#include <algorithm>
#include <limits>

namespace velto::pulse {
namespace {

using namespace platform;

LoggerCompat& logger() {
    static LoggerCompat instance{kLogSubsystem, "PulseAudioHardware"};
    return instance;
}

constexpr std::uint32_t kStringReferenceBytes = 8;  // a string property is a reference, like a CFStringRef
constexpr std::uint32_t kTapChannels = 2;            // taps are stereo mixdowns

}  // namespace

std::shared_ptr<PulseAudioHardware> PulseAudioHardware::create(std::shared_ptr<PulseConnection> connection,
                                                               std::shared_ptr<PulseStreamHandover> handover) {
    return std::make_shared<PulseAudioHardware>(std::move(connection), std::move(handover));
}

PulseAudioHardware::PulseAudioHardware(std::shared_ptr<PulseConnection> connection,
                                       std::shared_ptr<PulseStreamHandover> handover)
    : connection_(std::move(connection)), handover_(std::move(handover)) {}

PulseAudioHardware::~PulseAudioHardware() {
    std::map<AudioDeviceIOProcID, std::shared_ptr<IOProc>> procs;
    {
        MutexLock lock(mutex_);
        procs.swap(procs_);
    }
    for (auto& [id, proc] : procs) {
        if (proc->stream) proc->stream->close();
    }
}

OSStatus PulseAudioHardware::statusOf(int pulseError) const {
    switch (pulseError) {
        case PA_OK: return noErr;
        case PA_ERR_CONNECTIONREFUSED:
        case PA_ERR_CONNECTIONTERMINATED:
        case PA_ERR_TIMEOUT:
        case PA_ERR_KILLED:
        case PA_ERR_ACCESS: return kAudioHardwareNotRunningError;
        case PA_ERR_NOENTITY: return kAudioHardwareBadDeviceError;
        case PA_ERR_INVALID:
        case PA_ERR_NOTSUPPORTED: return kAudio_ParamError;
        default: return kAudioHardwareUnspecifiedError;
    }
}

OSStatus PulseAudioHardware::readSystemSnapshot(AudioSystemSnapshot& outSnapshot) {
    auto server = connection_->snapshot();
    if (!server) return statusOf(server.error);
    AudioSystemSnapshot snapshot;
    for (std::uint32_t index : server.value->sinkInputs) {
        snapshot.processes.push_back(makeObjectID(PulseObjectKind::sinkInput, index));
    }
    // Devices in index order: sinks, then sources.
    for (const auto& sink : server.value->sinks) {
        snapshot.devices.push_back({makeObjectID(PulseObjectKind::sink, sink.index), sink.name});
    }
    for (const auto& source : server.value->sources) {
        snapshot.devices.push_back({makeObjectID(PulseObjectKind::source, source.index), source.name});
    }
    // No default sink is a machine without outputs, not a failure: the lookups that need
    // one say so.
    if (const PulseSinkInfo* sink = server.value->defaultSink()) {
        snapshot.defaultSystemOutputDevice = makeObjectID(PulseObjectKind::sink, sink->index);
    }
    snapshot.platformDetail = std::make_shared<const PulseSnapshotDetail>(std::move(*server.value));
    outSnapshot = std::move(snapshot);
    return noErr;
}

OSStatus PulseAudioHardware::getPropertyDataSize(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                                 std::uint32_t& outDataSizeBytes) {
    if (object == kAudioObjectSystemObject) {
        switch (address.mSelector) {
            case kAudioHardwarePropertyProcessObjectList:
            case kAudioHardwarePropertyDevices: {
                std::vector<AudioObjectID> objects;
                if (const OSStatus status =
                        getObjectListProperty(object, address, std::numeric_limits<std::uint32_t>::max(), objects);
                    status != noErr) {
                    return status;
                }
                outDataSizeBytes = static_cast<std::uint32_t>(objects.size() * sizeof(AudioObjectID));
                return noErr;
            }
            case kAudioHardwarePropertyDefaultSystemOutputDevice:
                outDataSizeBytes = sizeof(AudioObjectID);
                return noErr;
            default: return kAudioHardwareUnknownPropertyError;
        }
    }
    if (objectIndex(object, PulseObjectKind::tap)) {
        MutexLock lock(mutex_);
        if (!taps_.contains(object)) return kAudioHardwareBadObjectError;
        if (address.mSelector == kAudioTapPropertyFormat) {
            outDataSizeBytes = sizeof(AudioStreamBasicDescription);
            return noErr;
        }
        if (address.mSelector == kAudioTapPropertyUID) {
            outDataSizeBytes = kStringReferenceBytes;
            return noErr;
        }
        return kAudioHardwareUnknownPropertyError;
    }
    if (address.mSelector != kAudioDevicePropertyDeviceUID) return kAudioHardwareUnknownPropertyError;
    std::optional<std::string> uid;
    if (const OSStatus status = getStringProperty(object, address, uid); status != noErr) return status;
    outDataSizeBytes = kStringReferenceBytes;
    return noErr;
}

OSStatus PulseAudioHardware::getObjectListProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                                   std::uint32_t dataSizeBytes, std::vector<AudioObjectID>& outObjects) {
    if (object != kAudioObjectSystemObject) return kAudioHardwareBadObjectError;
    if (address.mSelector != kAudioHardwarePropertyProcessObjectList &&
        address.mSelector != kAudioHardwarePropertyDevices) {
        return kAudioHardwareUnknownPropertyError;
    }
    AudioSystemSnapshot snapshot;
    if (const OSStatus status = readSystemSnapshot(snapshot); status != noErr) return status;
    std::vector<AudioObjectID> all = snapshot.processes;
    if (address.mSelector == kAudioHardwarePropertyDevices) {
        all.clear();
        for (const auto& device : snapshot.devices) all.push_back(device.id);
    }
    const std::size_t count = std::min<std::size_t>(all.size(), dataSizeBytes / sizeof(AudioObjectID));
    outObjects.assign(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(count));
    return noErr;
}

OSStatus PulseAudioHardware::getObjectProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                               AudioObjectID& outObject) {
    if (object != kAudioObjectSystemObject) return kAudioHardwareBadObjectError;
    if (address.mSelector != kAudioHardwarePropertyDefaultSystemOutputDevice) return kAudioHardwareUnknownPropertyError;
    AudioSystemSnapshot snapshot;
    if (const OSStatus status = readSystemSnapshot(snapshot); status != noErr) return status;
    if (snapshot.defaultSystemOutputDevice == kAudioObjectUnknown) return kAudioHardwareBadDeviceError;
    outObject = snapshot.defaultSystemOutputDevice;
    return noErr;
}

OSStatus PulseAudioHardware::getStringProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                               std::optional<std::string>& outText) {
    if (objectIndex(object, PulseObjectKind::tap)) {
        if (address.mSelector != kAudioTapPropertyUID) return kAudioHardwareUnknownPropertyError;
        MutexLock lock(mutex_);
        const auto tap = taps_.find(object);
        if (tap == taps_.end()) return kAudioHardwareBadObjectError;
        outText = tap->second.uid;
        return noErr;
    }
    if (address.mSelector != kAudioDevicePropertyDeviceUID) return kAudioHardwareUnknownPropertyError;
    if (objectIndex(object, PulseObjectKind::aggregateDevice)) {
        MutexLock lock(mutex_);
        const auto device = aggregates_.find(object);
        if (device == aggregates_.end()) return kAudioHardwareBadObjectError;
        outText = device->second.description.string("uid");
        return noErr;
    }
    if (!objectIndex(object, PulseObjectKind::sink) && !objectIndex(object, PulseObjectKind::source)) {
        return kAudioHardwareBadObjectError;
    }
    AudioSystemSnapshot snapshot;
    if (const OSStatus status = readSystemSnapshot(snapshot); status != noErr) return status;
    auto uid = snapshot.uidOf(object);
    if (!uid) return kAudioHardwareBadObjectError;
    outText = std::move(uid);
    return noErr;
}

OSStatus PulseAudioHardware::getStreamDescriptionProperty(AudioObjectID object,
                                                          const AudioObjectPropertyAddress& address,
                                                          AudioStreamBasicDescription& outDescription) {
    if (!objectIndex(object, PulseObjectKind::tap)) return kAudioHardwareBadObjectError;
    if (address.mSelector != kAudioTapPropertyFormat) return kAudioHardwareUnknownPropertyError;
    MutexLock lock(mutex_);
    const auto tap = taps_.find(object);
    if (tap == taps_.end()) return kAudioHardwareBadObjectError;
    outDescription = AudioStreamBasicDescription::interleavedFloat32(tap->second.sampleRateHertz, kTapChannels);
    return noErr;
}

OSStatus PulseAudioHardware::createProcessTap(const TapDescription& description, AudioObjectID& outTapID) {
    return createProcessTap(description, readSnapshotForOperation(), outTapID);
}

OSStatus PulseAudioHardware::createProcessTap(const TapDescription& description, const AudioSystemSnapshot& system,
                                              AudioObjectID& outTapID) {
    const PulseServerSnapshot* server = PulseSnapshotDetail::in(system);
    // No answer: the read failed, or the snapshot was not read here.
    if (server == nullptr) return system.readStatus != noErr ? system.readStatus : kAudio_ParamError;
    const PulseSinkInfo* sink = server->defaultSink();
    if (sink == nullptr || sink->monitorSourceName.empty()) {
        logger().error("No default output to tap: the server has no default sink with a monitor");
        return kAudioHardwareBadDeviceError;
    }
    Tap tap{description.uuid.empty() ? makeRandomUUIDString() : description.uuid, sink->monitorSourceName,
            sink->sampleRateHertz};
    MutexLock lock(mutex_);
    outTapID = makeObjectID(PulseObjectKind::tap, nextTapIndex_++);
    taps_.emplace(outTapID, std::move(tap));
    return noErr;
}

OSStatus PulseAudioHardware::destroyProcessTap(AudioObjectID tapID) {
    MutexLock lock(mutex_);
    return taps_.erase(tapID) > 0 ? noErr : kAudioHardwareBadObjectError;
}

OSStatus PulseAudioHardware::createAggregateDevice(const PropertyDictionary& description, AudioObjectID& outDeviceID) {
    const auto uid = description.string("uid");
    const PropertyValue* taps = description.find("taps");
    if (!uid || uid->empty() || taps == nullptr || taps->list() == nullptr || taps->list()->empty()) {
        return kAudio_ParamError;
    }
    const auto tapUID = taps->list()->front().string("uid");
    if (!tapUID) return kAudio_ParamError;
    MutexLock lock(mutex_);
    for (const auto& [id, device] : aggregates_) {
        if (device.description.string("uid") == uid) return kAudioHardwareIllegalOperationError;
    }
    const auto tap = std::find_if(taps_.begin(), taps_.end(), [&](const auto& entry) { return entry.second.uid == *tapUID; });
    if (tap == taps_.end()) return kAudioHardwareBadObjectError;
    outDeviceID = makeObjectID(PulseObjectKind::aggregateDevice, nextAggregateIndex_++);
    aggregates_.emplace(outDeviceID, AggregateDevice{description, tap->first});
    return noErr;
}

OSStatus PulseAudioHardware::destroyAggregateDevice(AudioObjectID deviceID) {
    std::vector<std::unique_ptr<PulseCaptureStream>> orphans;
    {
        MutexLock lock(mutex_);
        if (aggregates_.erase(deviceID) == 0) return kAudioHardwareBadObjectError;
        for (auto it = procs_.begin(); it != procs_.end();) {
            if (it->second->deviceID == deviceID) {
                orphans.push_back(std::move(it->second->stream));
                it = procs_.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (auto& stream : orphans) {
        if (stream) stream->close();
    }
    return noErr;
}

OSStatus PulseAudioHardware::createIOProcIDWithBlock(AudioDeviceIOProcID& outProcID, AudioObjectID deviceID,
                                                     AudioDeviceIOBlock block) {
    if (!block) return kAudio_ParamError;
    MutexLock lock(mutex_);
    if (!aggregates_.contains(deviceID)) return kAudioHardwareBadObjectError;
    auto proc = std::make_shared<IOProc>();
    proc->deviceID = deviceID;
    proc->block = std::make_shared<AudioDeviceIOBlock>(std::move(block));
    outProcID = nextProcID_++;
    procs_.emplace(outProcID, std::move(proc));
    return noErr;
}

OSStatus PulseAudioHardware::deviceStart(AudioObjectID deviceID, AudioDeviceIOProcID procID) {
    std::shared_ptr<IOProc> proc;
    PulseCaptureStreamOptions options;
    {
        MutexLock lock(mutex_);
        const auto found = procs_.find(procID);
        if (found == procs_.end() || found->second->deviceID != deviceID) return kAudioHardwareBadObjectError;
        proc = found->second;
        if (proc->stream) return noErr;
        const auto device = aggregates_.find(deviceID);
        if (device == aggregates_.end()) return kAudioHardwareBadObjectError;
        const auto tap = taps_.find(device->second.tapID);
        if (tap == taps_.end()) return kAudioHardwareBadObjectError;
        options.sourceName = tap->second.monitorSourceName;
        options.sampleRateHertz = tap->second.sampleRateHertz;
        options.channels = kTapChannels;
        options.blockFrames = kIOBlockFrames;
        options.streamName = "VeltoAudio system audio";
    }
    // The block runs where the stream delivers, on the main-loop thread: that thread gives
    // what the interface promises (one block at a time, in order, none after deviceStop
    // returns), and a hop onto another thread would cost two context switches per block.
    auto block = proc->block;
    const std::uint32_t channels = options.channels;
    const PulseCaptureStream::Delivery delivery = [block, channels](const float* interleaved, std::uint32_t frames,
                                                                     double lastFrameAgeSeconds) {
        AudioBuffer buffer{channels, frames * channels * static_cast<std::uint32_t>(sizeof(float)),
                           const_cast<float*>(interleaved)};
        const AudioBufferList list{1, &buffer};
        (*block)(list, lastFrameAgeSeconds);
    };
    std::unique_ptr<PulseCaptureStream> stream = handover_ ? handover_->adopt(options, delivery) : nullptr;
    try {
        if (!stream) stream = PulseCaptureStream::open(connection_, options, delivery);
    } catch (const PlatformError& error) {
        logger().error("Could not start capturing the output: " + error.errorDescription());
        return statusOf(static_cast<int>(error.code()));
    }
    MutexLock lock(mutex_);
    if (proc->stream) return noErr;  // started by a concurrent call; ours closes with `stream`
    proc->stream = std::move(stream);
    return noErr;
}

OSStatus PulseAudioHardware::deviceStop(AudioObjectID deviceID, AudioDeviceIOProcID procID) {
    std::unique_ptr<PulseCaptureStream> stream;
    {
        MutexLock lock(mutex_);
        const auto found = procs_.find(procID);
        if (found == procs_.end() || found->second->deviceID != deviceID) return kAudioHardwareBadObjectError;
        stream = std::move(found->second->stream);
    }
    releaseStream(handover_, std::move(stream));
    return noErr;
}

OSStatus PulseAudioHardware::deviceFlushCapturedInput(AudioObjectID deviceID, AudioDeviceIOProcID procID) {
    PulseCaptureStream* stream = nullptr;
    {
        MutexLock lock(mutex_);
        const auto found = procs_.find(procID);
        if (found == procs_.end() || found->second->deviceID != deviceID) return kAudioHardwareBadObjectError;
        stream = found->second->stream.get();
    }
    // Not under the hardware lock: the catch-up may wait for up to a fragment, and other
    // hardware calls need not wait with it. The proc's owner starts, flushes and stops it
    // one at a time, so the stream stays open meanwhile.
    if (stream != nullptr) stream->deliverCapturedSoFar();
    return noErr;
}

OSStatus PulseAudioHardware::destroyIOProcID(AudioObjectID deviceID, AudioDeviceIOProcID procID) {
    std::shared_ptr<IOProc> proc;
    std::unique_ptr<PulseCaptureStream> stream;
    {
        MutexLock lock(mutex_);
        const auto found = procs_.find(procID);
        if (found == procs_.end() || found->second->deviceID != deviceID) return kAudioHardwareBadObjectError;
        proc = found->second;
        stream = std::move(proc->stream);
        procs_.erase(found);
    }
    releaseStream(handover_, std::move(stream));
    return noErr;
}

}  // namespace velto::pulse
