#include "capture/MicrophoneCapture.hpp"

#include "logging/LogThinning.hpp"
#include "logging/LoggerCompat.hpp"
#include "logging/NumberFormat.hpp"
#include "model/AudioEngineRecorderError.hpp"
#include "platform/InputDeviceSelection.hpp"

#include <array>
#include <string>

namespace velto {
namespace {

using namespace platform;

constexpr std::uint32_t kInputBus = 0;
// Ring buffers hold one or two channels; this bounds the pointer array the tap keeps on its stack.
constexpr std::size_t kMaximumRingChannels = 32;

LoggerCompat& logger() {
    static LoggerCompat instance{kLogSubsystem, "MicrophoneCapture"};
    return instance;
}

std::string describe(const std::optional<PcmFormat>& format) { return format ? format->description() : "unknown"; }

}  // namespace

std::shared_ptr<MicrophoneCapture> MicrophoneCapture::create(std::int64_t channels, std::int64_t capacityFrames,
                                                             const PlatformServices& services) {
    return std::make_shared<MicrophoneCapture>(channels, capacityFrames, services);
}

MicrophoneCapture::MicrophoneCapture(std::int64_t channels, std::int64_t capacityFrames,
                                     const PlatformServices& services)
    : audioEngine_(services.audioEngineFactory->makeEngine()),
      hardware_(services.audioHardware),
      discovery_(services.captureDeviceDiscovery) {
    ringBuffer_ = FloatRingBuffer::create(channels, capacityFrames);
    logger().debug("Created MicrophoneCapture with " + std::to_string(channels) + " channels, " +
                   std::to_string(capacityFrames) + " frame capacity");
}

MicrophoneCapture::~MicrophoneCapture() {
    if (isCapturing_) stop();
    logger().debug("MicrophoneCapture deallocated");
}

void MicrophoneCapture::configureInputDevice(const MicrophoneDevice& device) {
    configureInputDevice(device, hardware_->readSnapshotForOperation());
}

void MicrophoneCapture::configureInputDevice(const MicrophoneDevice& device, const AudioSystemSnapshot& system) {
    const auto deviceID = platform::configureInputDevice(device, system, *discovery_, *audioEngine_, logger());
    if (!deviceID) throw AudioEngineRecorderError::unknownError();
    selectedMicrophone_ = device;
    selectedMicrophoneID_ = *deviceID;
}

void MicrophoneCapture::start(std::uint32_t bufferSizeFrames) {
    if (isCapturing_) {
        logger().error("Microphone capture already active");
        return;
    }
    start(bufferSizeFrames, hardware_->readSnapshotForOperation());
}

void MicrophoneCapture::start(std::uint32_t bufferSizeFrames, const AudioSystemSnapshot& system) {
    if (isCapturing_) {
        logger().error("Microphone capture already active");
        return;
    }
    logger().info("Starting microphone capture with system default input device");
    try {
        setupEngine(bufferSizeFrames, system);
        audioEngine_->start();
    } catch (...) {
        cleanup();
        throw;
    }
    isCapturing_ = true;
    if (selectedMicrophone_) {
        clockDeviceUID_ = selectedMicrophone_->id;
    } else {
        const auto defaultDevice = discovery_->defaultAudioDevice(system);
        clockDeviceUID_ = defaultDevice ? defaultDevice->uniqueID : std::string();
    }
    logger().info("Microphone capture started with format: " + describe(inputFormat_));
}

void MicrophoneCapture::flushCapturedAudio() {
    if (isCapturing_ && audioEngine_->isRunning()) audioEngine_->flushCapturedInput();
}

void MicrophoneCapture::stop() {
    if (!isCapturing_) return;
    logger().info("Stopping microphone capture");
    cleanup();
    isCapturing_ = false;
    logger().debug("Microphone capture stopped");
}

void MicrophoneCapture::setupEngine(std::uint32_t bufferSizeFrames, const AudioSystemSnapshot& system) {
    logger().info("Creating fresh PulseAudio input engine for isolated microphone capture");
    if (audioEngine_->isRunning()) audioEngine_->stop();
    audioEngine_->reset();
    // The reset engine has forgotten its device: select the remembered one again.
    if (selectedMicrophone_) configureInputDevice(*selectedMicrophone_, system);
    audioEngine_->removeTap(kInputBus);

    const PcmFormat hardwareFormat = audioEngine_->inputFormat(kInputBus, system);
    logger().info("Hardware input format: " + hardwareFormat.description());

    std::weak_ptr<MicrophoneCapture> weakSelf = weak_from_this();
    audioEngine_->installTap(kInputBus, bufferSizeFrames, hardwareFormat, [weakSelf](const PcmBuffer& buffer,
                                                                                     double lastFrameAgeSeconds) {
        if (auto self = weakSelf.lock()) self->handleTapBuffer(buffer, lastFrameAgeSeconds);
    });
    inputFormat_ = audioEngine_->outputFormat(kInputBus);

    logger().info("Installed audio tap with buffer size: " + std::to_string(bufferSizeFrames));
    logger().info("Hardware format: " + hardwareFormat.description());
    logger().info("Tap format: " + describe(inputFormat_));
    if (inputFormat_) {
        if (hardwareFormat.sampleRate != inputFormat_->sampleRate) {
            logger().error("Sample rate mismatch detected! Hardware: " + formatDouble(hardwareFormat.sampleRate) +
                           "Hz, Tap: " + formatDouble(inputFormat_->sampleRate) + "Hz");
        } else {
            logger().info("✅ Sample rates match: " + formatDouble(hardwareFormat.sampleRate) + "Hz");
        }
    }
}

void MicrophoneCapture::cleanup() {
    // The tap goes first, so no block runs while the engine stops and the ring is reset.
    audioEngine_->removeTap(kInputBus);
    if (audioEngine_->isRunning()) audioEngine_->stop();
    ringBuffer_->reset();
    logger().debug("Cleanup completed");
}

void MicrophoneCapture::handleTapBuffer(const PcmBuffer& buffer, double lastFrameAgeSeconds) {
    const auto channelData = buffer.floatChannelData();
    const std::uint32_t inputChannels = buffer.channelCount();
    const std::uint32_t frames = buffer.frameLength();
    if (channelData.empty() || frames == 0 || inputChannels == 0) return;
    // Only one pointer per channel can be handed on; interleaved multi-channel blocks carry one
    // pointer for all channels and count as having no per-channel data.
    if (channelData.size() < inputChannels) return;

    const auto ringChannels = static_cast<std::size_t>(ringBuffer_->channels());
    if (ringChannels > kMaximumRingChannels) return;
    std::array<const float*, kMaximumRingChannels> sources{};
    for (std::size_t c = 0; c < ringChannels; ++c) {
        sources[c] = c < inputChannels ? channelData[c] : channelData[inputChannels - 1];
    }
    if (oneIn(2000)) {
        logger().debug([&] {
            return "Channel mapping: input " + std::to_string(inputChannels) + " channels, ring buffer expects " +
                   std::to_string(ringChannels) + " channels, created " + std::to_string(ringChannels) +
                   " source pointers";
        });
    }
    const std::int64_t written =
        ringBuffer_->write(std::span<const float* const>(sources.data(), ringChannels), frames, lastFrameAgeSeconds);
    // A full ring means the mixer has stalled; every block would overrun from then on, so
    // the line is sampled like the other callback lines rather than written per block.
    if (written < static_cast<std::int64_t>(frames) && oneIn(100)) {
        logger().error([&] {
            return "Ring buffer overrun: wrote " + std::to_string(written) + "/" + std::to_string(frames) +
                   " frames, buffer channels: " + std::to_string(ringChannels) + ", available space: " +
                   std::to_string(ringBuffer_->availableFrames()) + "/" +
                   std::to_string(ringBuffer_->capacityFrames());
        });
    }
}

}  // namespace velto
