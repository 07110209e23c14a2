#pragma once
// Records one microphone into this object's ring buffer through an audio engine of its
// own, optionally pointed at a chosen device. Each tapped block is handed straight to the
// ring buffer, the input's channels mapped onto the ring's.
//
// Threads: create(), configureInputDevice(), start(), stop() and destruction are called
// by the owner, one at a time; the object has no lock of its own. The tap block runs on
// the engine's delivery thread and touches only the ring buffer, which the mixer reads
// on its own queue.

#include "platform/PlatformServices.hpp"
#include "signal/FloatRingBuffer.hpp"
#include "veltoaudio/MicrophoneDevice.hpp"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace velto {

class MicrophoneCapture : public std::enable_shared_from_this<MicrophoneCapture> {
public:
    static std::shared_ptr<MicrophoneCapture> create(std::int64_t channels, std::int64_t capacityFrames,
                                                     const platform::PlatformServices& services);

    MicrophoneCapture(std::int64_t channels, std::int64_t capacityFrames, const platform::PlatformServices& services);
    ~MicrophoneCapture();
    MicrophoneCapture(const MicrophoneCapture&) = delete;
    MicrophoneCapture& operator=(const MicrophoneCapture&) = delete;

    // Throws AudioEngineRecorderError::unknownError when the device cannot be selected;
    // the earlier selection then stays. Reads the system once.
    void configureInputDevice(const MicrophoneDevice& device);
    // Throws the engine's PlatformError (or the device selection's error); a failed start
    // leaves no tap installed and an empty ring buffer. Reads the system once.
    void start(std::uint32_t bufferSizeFrames);
    // The same within an operation that has read `system` already: every lookup reads it.
    void configureInputDevice(const MicrophoneDevice& device, const platform::AudioSystemSnapshot& system);
    void start(std::uint32_t bufferSizeFrames, const platform::AudioSystemSnapshot& system);
    void stop();
    // Returns once the ring buffer holds everything captured until now (the engine may
    // hold some back between deliveries). Capture goes on; nothing happens when not capturing.
    void flushCapturedAudio();

    const std::shared_ptr<FloatRingBuffer>& ringBuffer() const { return ringBuffer_; }
    const std::optional<PcmFormat>& inputFormat() const { return inputFormat_; }
    bool isCapturing() const { return isCapturing_; }
    const std::optional<MicrophoneDevice>& selectedMicrophone() const { return selectedMicrophone_; }
    std::optional<platform::AudioObjectID> selectedMicrophoneID() const { return selectedMicrophoneID_; }
    // The device whose clock the captured audio runs on, as of the last start
    // (empty when it could not be told): a restart on the same one keeps its drift estimate.
    const std::string& clockDeviceUID() const { return clockDeviceUID_; }

    // One tapped block; runs on the engine's delivery thread (public so that tests can drive it).
    void handleTapBuffer(const PcmBuffer& buffer, double lastFrameAgeSeconds);

private:
    void setupEngine(std::uint32_t bufferSizeFrames, const platform::AudioSystemSnapshot& system);
    void cleanup();

    std::shared_ptr<FloatRingBuffer> ringBuffer_;
    bool isCapturing_ = false;
    std::optional<PcmFormat> inputFormat_;
    std::shared_ptr<platform::AudioInputEngine> audioEngine_;
    std::optional<MicrophoneDevice> selectedMicrophone_;
    std::optional<platform::AudioObjectID> selectedMicrophoneID_;
    std::string clockDeviceUID_;

    std::shared_ptr<platform::AudioHardware> hardware_;
    std::shared_ptr<platform::CaptureDeviceDiscovery> discovery_;
};

}  // namespace velto
