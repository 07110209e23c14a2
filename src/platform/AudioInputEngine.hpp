#pragma once
// The audio-engine input the recorders use (the AVAudioEngine input-node subset): the
// input's formats, device selection, one tap on bus 0, start and stop.
//
// Threads: the control methods are called by the engine's owner, one at a time. The tap
// block runs on the engine's own delivery thread, never on the caller's; removeTap() and
// stop() return only once no tap block is running any more.

#include "platform/AudioSystemSnapshot.hpp"
#include "platform/CoreAudioTypes.hpp"
#include "veltoaudio/PcmBuffer.hpp"

#include <cstdint>
#include <functional>
#include <memory>

namespace velto::platform {

// Receives one block of about the requested frame count; the buffer is valid only during the call.
// `lastFrameAgeSeconds` as for AudioDeviceIOBlock: how long before the call the block's last frame was captured.
using AudioInputTapBlock = std::function<void(const PcmBuffer& buffer, double lastFrameAgeSeconds)>;

class AudioInputEngine {
public:
    virtual ~AudioInputEngine() = default;

    // The hardware side of the input: the source's own rate and channel count, 32-bit float.
    // A format with 0 channels and rate 0 means that no input device could be reached.
    virtual PcmFormat inputFormat(std::uint32_t bus) = 0;
    // The same within an operation that has read `system`: an engine whose device is known
    // to a server (PulseAudio) reads the format from the snapshot. An audio unit answers
    // from the process itself and needs nothing of it.
    virtual PcmFormat inputFormat(std::uint32_t bus, const AudioSystemSnapshot& /*system*/) {
        return inputFormat(bus);
    }
    // The format the tap delivers when it is installed with the input format.
    virtual PcmFormat outputFormat(std::uint32_t bus) = 0;

    // Whether the input node has an audio unit whose current device can be set.
    virtual bool hasAudioUnit() = 0;
    // kAudioOutputUnitProperty_CurrentDevice: the device the next start records from.
    virtual OSStatus setCurrentDevice(AudioObjectID deviceID) = 0;
    // The same for a device found in `system`: an engine that records by name (PulseAudio)
    // takes the name from there.
    virtual OSStatus setCurrentDevice(AudioObjectID deviceID, const AudioSystemSnapshot& /*system*/) {
        return setCurrentDevice(deviceID);
    }

    virtual void installTap(std::uint32_t bus, std::uint32_t bufferSizeFrames, const PcmFormat& format,
                            AudioInputTapBlock block) = 0;
    virtual void removeTap(std::uint32_t bus) = 0;

    // Throws a PlatformError when the input cannot be started.
    virtual void start() = 0;
    virtual void stop() = 0;
    // Returns once the tap has been handed everything the input had captured when this was
    // called; the input keeps running. Called before a stop, a pause or a resume, so that
    // the change falls where it was asked for. An input that taps each cycle as it captures
    // has nothing to do.
    virtual void flushCapturedInput() {}
    // Forgets the negotiated stream; the selected device stays.
    virtual void reset() = 0;
    virtual bool isRunning() = 0;
};

class AudioEngineFactory {
public:
    virtual ~AudioEngineFactory() = default;
    // A new engine, independent of every other engine in the process.
    virtual std::shared_ptr<AudioInputEngine> makeEngine() = 0;
};

}  // namespace velto::platform
