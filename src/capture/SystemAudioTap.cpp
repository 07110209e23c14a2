#include "capture/SystemAudioTap.hpp"

#include "logging/LogThinning.hpp"
#include "logging/LoggerCompat.hpp"
#include "logging/NumberFormat.hpp"
#include "platform/Uuid.hpp"
#include "veltoaudio/Logging.hpp"
#include "veltoaudio/RecordingError.hpp"

#include <algorithm>
#include <array>
#include <cstdio>

namespace velto {
namespace {

using namespace platform;

constexpr const char* kDeviceName = "Ondrel-SystemAudioTap";
constexpr std::size_t kMaximumSourceChannels = 32;

LoggerCompat& logger() {
    static LoggerCompat instance{kLogSubsystem, "SystemAudioTap"};
    return instance;
}

std::string hex(std::uint64_t value) {
    char text[24];
    std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

std::string describe(const AudioStreamBasicDescription& asbd) {
    return "SR: " + formatDouble(asbd.mSampleRate) + "Hz, Ch: " + std::to_string(asbd.mChannelsPerFrame) +
           ", Format: " + hex(asbd.mFormatID) + ", Flags: " + hex(asbd.mFormatFlags);
}

// A sampled line from the IO block: built only when debug lines are kept.
void logWrite(const char* layout, std::int64_t written, std::uint32_t frames, const FloatRingBuffer& ring) {
    logger().debug([&] {
        return std::string("SystemAudioTap (") + layout + ") wrote " + std::to_string(written) + "/" +
               std::to_string(frames) + " frames to ring buffer (available: " + std::to_string(ring.availableFrames()) +
               "/" + std::to_string(ring.capacityFrames()) + ")";
    });
}

// Logs the failed call and chooses the error from the operation's name.
RecordingError statusError(const std::string& operation, OSStatus status) {
    logger().critical(operation + " failed: " + describeStatusCode(status));
    if (operation.find("CreateProcessTap") != std::string::npos) return RecordingError::systemAudioTapCreationFailed(status);
    if (operation.find("CreateAggregateDevice") != std::string::npos) {
        return RecordingError::systemAudioDeviceCreationFailed(status);
    }
    if (operation.find("Start") != std::string::npos) return RecordingError::systemAudioDeviceStartFailed(status);
    return RecordingError::systemAudioTapCreationFailed(status);
}

}  // namespace

std::shared_ptr<SystemAudioTap> SystemAudioTap::create(std::int64_t channels, std::int64_t capacityFrames,
                                                       const PlatformServices& services) {
    return std::make_shared<SystemAudioTap>(channels, capacityFrames, services.audioHardware);
}

SystemAudioTap::SystemAudioTap(std::int64_t channels, std::int64_t capacityFrames, std::shared_ptr<AudioHardware> hardware)
    : ringBuffer_(FloatRingBuffer::create(channels, capacityFrames)), hardware_(std::move(hardware)) {
    scratch_.resize(static_cast<std::size_t>(std::min<std::int64_t>(channels, kMaximumSourceChannels)),
                    std::vector<float>(kMaximumInterleavedFrames, 0.0f));
    logger().debug("Created SystemAudioTap with " + std::to_string(channels) + " channels, " +
                   std::to_string(capacityFrames) + " frame capacity");
}

SystemAudioTap::~SystemAudioTap() {
    if (isCapturing_) stop();
    logger().debug("SystemAudioTap deallocated");
}

void SystemAudioTap::start() {
    if (isCapturing_) {
        logger().error("System audio tap already active");
        return;
    }
    start(hardware_->readSnapshotForOperation());
}

void SystemAudioTap::start(const AudioSystemSnapshot& system) {
    if (isCapturing_) {
        logger().error("System audio tap already active");
        return;
    }
    logger().info("Starting real PulseAudio system audio tap");
    try {
        if (system.readStatus != noErr) throw RecordingError::systemAudioTapCreationFailed(system.readStatus);
        createProcessTap(system);
        readTapFormat();
        createAggregateDevice(system);
        createIOBlock();
        startAggregateDevice();
    } catch (...) {
        logger().critical("Failed to start system audio tap: " + caseDescriptionOf(std::current_exception()));
        cleanup();
        throw;
    }
    isCapturing_ = true;
    logger().info("System audio tap started successfully");
    logger().info("Tap format: " + describe(asbd_));
}

void SystemAudioTap::flushCapturedAudio() {
    if (!isCapturing_ || !procID_) return;
    if (const OSStatus status = hardware_->deviceFlushCapturedInput(aggregateID_, *procID_); status != noErr) {
        logger().error("Could not fetch the system audio the device still held: status " + describeStatusCode(status));
    }
}

void SystemAudioTap::stop() {
    if (!isCapturing_) return;
    logger().info("Stopping system audio tap");
    cleanup();
    isCapturing_ = false;
    logger().debug("System audio tap stopped");
}

void SystemAudioTap::createProcessTap(const AudioSystemSnapshot& system) {
    logger().debug("Found " + std::to_string(system.processes.size()) + " audio processes for tapping");
    if (system.processes.empty()) {
        logger().error("No audio processes found for tapping - system audio capture may not work as expected");
    }
    auto description = TapDescription::stereoMixdownOfProcesses(system.processes);
    description.uuid = makeRandomUUIDString();
    description.muteBehavior = TapMuteBehavior::unmuted;
    description.name = kDeviceName;
    description.isPrivate = true;
    description.isExclusive = false;
    logger().debug("Creating process tap with UUID: " + description.uuid);
    const OSStatus status = hardware_->createProcessTap(description, system, tapID_);
    if (status != noErr) throw statusError("AudioHardwareCreateProcessTap", status);
    logger().info("Created process tap with ID: " + std::to_string(tapID_));
}

void SystemAudioTap::readTapFormat() {
    const AudioObjectPropertyAddress address{kAudioTapPropertyFormat};
    std::uint32_t dataSizeBytes = 0;
    OSStatus status = hardware_->getPropertyDataSize(tapID_, address, dataSizeBytes);
    if (status == noErr) status = hardware_->getStreamDescriptionProperty(tapID_, address, asbd_);
    if (status != noErr) throw RecordingError::systemAudioTapCreationFailed(status);
    logger().info("Retrieved tap format: SR=" + formatDouble(asbd_.mSampleRate) +
                  ", Channels=" + std::to_string(asbd_.mChannelsPerFrame) + ", Format=" + hex(asbd_.mFormatID));
}

std::string SystemAudioTap::readTapUID() {
    const AudioObjectPropertyAddress address{kAudioTapPropertyUID};
    std::uint32_t dataSizeBytes = 0;
    OSStatus status = hardware_->getPropertyDataSize(tapID_, address, dataSizeBytes);
    std::optional<std::string> uid;
    if (status == noErr) status = hardware_->getStringProperty(tapID_, address, uid);
    if (status != noErr) throw statusError("AudioObjectGetPropertyData (tap UUID)", status);
    return uid.value_or("");
}

void SystemAudioTap::createAggregateDevice(const AudioSystemSnapshot& system) {
    if (tapID_ == 0) throw RecordingError::invalidSystemAudioConfiguration();
    const auto outputUIDText = system.uidOf(system.defaultSystemOutputDevice);
    if (!outputUIDText) throw RecordingError::systemAudioTapCreationFailed(kAudioHardwareBadDeviceError);
    const std::string& outputUID = *outputUIDText;
    clockDeviceUID_ = outputUID;

    const std::string tapUID = readTapUID();

    const PropertyDictionary description{
        {"name", kDeviceName},
        {"uid", std::string(kIdentifierPrefix) + ".SystemAudioTap." + tapUID},
        {"master", outputUID},
        {"private", true},
        {"stacked", false},
        {"tapautostart", true},
        {"subdevices", PropertyValue::List{PropertyDictionary{{"uid", outputUID}}}},
        {"taps", PropertyValue::List{PropertyDictionary{{"drift", true}, {"uid", tapUID}}}},
    };

    logger().debug("Creating aggregate device with output UID: " + outputUID + ", tap UUID: " + tapUID);
    logger().debug("Aggregate device configuration:");
    for (const auto& [key, value] : description.entries()) logger().debug("  " + key + ": " + value.description());

    const OSStatus status = hardware_->createAggregateDevice(description, aggregateID_);
    if (status != noErr) throw statusError("AudioHardwareCreateAggregateDevice", status);
    logger().info("Created aggregate device with ID: " + std::to_string(aggregateID_));
    if (aggregateID_ == 0) {
        logger().critical("Aggregate device ID is 0 - creation may have failed silently");
        throw RecordingError::systemAudioDeviceCreationFailed(status);
    }
}

void SystemAudioTap::createIOBlock() {
    logger().debug("Creating IOProc for aggregate device ID: " + std::to_string(aggregateID_));
    std::weak_ptr<SystemAudioTap> weakSelf = weak_from_this();
    AudioDeviceIOProcID procID = 0;
    const OSStatus status = hardware_->createIOProcIDWithBlock(
        procID, aggregateID_, [weakSelf](const AudioBufferList& inputData, double lastFrameAgeSeconds) {
            if (auto self = weakSelf.lock()) self->handleInput(inputData, lastFrameAgeSeconds);
        });
    if (status != noErr) throw statusError("AudioDeviceCreateIOProcIDWithBlock", status);
    procID_ = procID;
    logger().debug("Installed IOProc on aggregate device with procID: " + hex(procID));
}

void SystemAudioTap::startAggregateDevice() {
    if (!procID_) throw RecordingError::invalidSystemAudioConfiguration();
    logger().debug("Starting aggregate device ID: " + std::to_string(aggregateID_) + " with procID: " + hex(*procID_));
    const OSStatus status = hardware_->deviceStart(aggregateID_, *procID_);
    if (status != noErr) throw statusError("AudioDeviceStart", status);
    logger().debug("Started aggregate device successfully");
}

void SystemAudioTap::cleanup() {
    // Statuses of the teardown calls are ignored on purpose: teardown must always complete.
    if (procID_) {
        hardware_->deviceStop(aggregateID_, *procID_);
        hardware_->destroyIOProcID(aggregateID_, *procID_);
        procID_.reset();
        logger().debug("Cleaned up IOProc");
    }
    if (aggregateID_ != 0) {
        hardware_->destroyAggregateDevice(aggregateID_);
        aggregateID_ = 0;
        logger().debug("Destroyed aggregate device");
    }
    if (tapID_ != 0) {
        hardware_->destroyProcessTap(tapID_);
        tapID_ = 0;
        logger().debug("Destroyed process tap");
    }
    ringBuffer_->reset();
}

void SystemAudioTap::handleInput(const AudioBufferList& bufferList, double lastFrameAgeSeconds) {
    // Degradation policy: nothing here fails outward. A malformed or oversized cycle is
    // written as nothing; the mixer reads silence for it.
    if (bufferList.mNumberBuffers == 0 || bufferList.mBuffers == nullptr) {
        if (oneIn(1000)) logger().error("SystemAudioTap IOProc called but no audio buffers available");
        return;
    }
    const std::uint32_t bufferCount = bufferList.mNumberBuffers;
    const AudioBuffer& first = bufferList.mBuffers[0];
    const std::uint32_t channels = first.mNumberChannels;
    const bool interleaved = bufferCount == 1 && channels >= 2;
    const std::uint32_t frames =
        interleaved ? first.mDataByteSize / (channels * static_cast<std::uint32_t>(sizeof(float)))
                    : first.mDataByteSize / static_cast<std::uint32_t>(sizeof(float));
    if (oneIn(2000)) {
        logger().debug([&] {
            return "SystemAudioTap buffer: " + std::to_string(frames) + " frames, " + std::to_string(channels) +
                   " channels, " + std::to_string(bufferCount) + " buffers";
        });
    }
    const auto ringChannels = static_cast<std::uint32_t>(ringBuffer_->channels());
    std::array<const float*, kMaximumSourceChannels> sources{};

    if (interleaved) {
        const std::uint32_t use = std::min({channels, ringChannels, static_cast<std::uint32_t>(scratch_.size())});
        if (first.mData == nullptr) return;
        if (frames > kMaximumInterleavedFrames) return;
        const auto* data = static_cast<const float*>(first.mData);
        for (std::uint32_t c = 0; c < use; ++c) {
            float* destination = scratch_[c].data();
            for (std::uint32_t f = 0; f < frames; ++f) destination[f] = data[static_cast<std::size_t>(f) * channels + c];
            sources[c] = destination;
        }
        const std::int64_t written =
            ringBuffer_->write(std::span<const float* const>(sources.data(), use), frames, lastFrameAgeSeconds);
        if (oneIn(2000)) logWrite("interleaved", written, frames, *ringBuffer_);
        return;
    }

    const std::uint32_t use =
        std::min({bufferCount, ringChannels, static_cast<std::uint32_t>(kMaximumSourceChannels)});
    for (std::uint32_t c = 0; c < use; ++c) {
        if (bufferList.mBuffers[c].mData == nullptr) return;
        sources[c] = static_cast<const float*>(bufferList.mBuffers[c].mData);
    }
    const std::int64_t written =
            ringBuffer_->write(std::span<const float* const>(sources.data(), use), frames, lastFrameAgeSeconds);
    if (oneIn(2000)) logWrite("non-interleaved", written, frames, *ringBuffer_);
}

}  // namespace velto
