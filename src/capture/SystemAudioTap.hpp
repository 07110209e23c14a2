#pragma once
// Captures what every process plays: a process tap over all audio processes (stereo
// mixdown), wrapped in a private aggregate device clocked by the default output device,
// with an IO block that writes each cycle's input into this object's ring buffer.
//
// Threads: create(), start(), stop() and destruction are called by the owner, one at a
// time; the object has no lock of its own. The IO block runs on the sound server's delivery
// thread (see AudioHardware) and touches only the ring buffer (and scratch storage that only it uses). The
// ring buffer is read by the mixer on its own queue.

#include "platform/PlatformServices.hpp"
#include "signal/FloatRingBuffer.hpp"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace velto {

class SystemAudioTap : public std::enable_shared_from_this<SystemAudioTap> {
public:
    // The most frames one interleaved IO cycle may carry; larger cycles are dropped whole.
    static constexpr std::uint32_t kMaximumInterleavedFrames = 2048;

    static std::shared_ptr<SystemAudioTap> create(std::int64_t channels, std::int64_t capacityFrames,
                                                  const platform::PlatformServices& services);

    SystemAudioTap(std::int64_t channels, std::int64_t capacityFrames, std::shared_ptr<platform::AudioHardware> hardware);
    ~SystemAudioTap();
    SystemAudioTap(const SystemAudioTap&) = delete;
    SystemAudioTap& operator=(const SystemAudioTap&) = delete;

    // Throws RecordingError; a failed start leaves no tap, device or IO block behind.
    // Reads the system once.
    void start();
    // The same within an operation that has read `system` already: every lookup reads it.
    void start(const platform::AudioSystemSnapshot& system);
    void stop();
    // Returns once the ring buffer holds everything captured until now (the device may
    // hold some back between cycles). Capture goes on; nothing happens when not capturing.
    void flushCapturedAudio();

    const std::shared_ptr<FloatRingBuffer>& ringBuffer() const { return ringBuffer_; }
    const platform::AudioStreamBasicDescription& asbd() const { return asbd_; }
    bool isCapturing() const { return isCapturing_; }
    platform::AudioObjectID tapID() const { return tapID_; }
    platform::AudioObjectID aggregateID() const { return aggregateID_; }
    // The output device that clocks the captured audio, as of the last start: a
    // restart on the same one keeps its drift estimate.
    const std::string& clockDeviceUID() const { return clockDeviceUID_; }

    // One IO cycle's input; runs on the platform's delivery thread (public so that tests can drive it).
    void handleInput(const platform::AudioBufferList& bufferList, double lastFrameAgeSeconds);

private:
    void createProcessTap(const platform::AudioSystemSnapshot& system);
    void readTapFormat();
    void createAggregateDevice(const platform::AudioSystemSnapshot& system);
    std::string readTapUID();
    void createIOBlock();
    void startAggregateDevice();
    void cleanup();

    std::shared_ptr<FloatRingBuffer> ringBuffer_;
    platform::AudioStreamBasicDescription asbd_{};
    platform::AudioObjectID tapID_ = 0;
    platform::AudioObjectID aggregateID_ = 0;
    std::string clockDeviceUID_;
    bool isCapturing_ = false;
    std::optional<platform::AudioDeviceIOProcID> procID_;

    std::shared_ptr<platform::AudioHardware> hardware_;
    // Deinterleaving space for the IO block, allocated once: ring channels × kMaximumInterleavedFrames.
    std::vector<std::vector<float>> scratch_;
};

}  // namespace velto
