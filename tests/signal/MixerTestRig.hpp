#pragma once

#include <array>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "dispatch/Clock.hpp"
#include "signal/AudioMixer.hpp"
#include "support/RecorderTestSupport.hpp"

// A mixer driven by hand: a manual clock, ticks called by the test, ring
// buffers written by the test as a capture source would.
namespace velto::testing {

struct MixerRig {
    explicit MixerRig(int64_t bufferFrameCapacity = 1024, int64_t jitterBufferFrames = 3072)
        : clock(std::make_shared<ManualClock>()),
          mixer(AudioMixer::create(bufferFrameCapacity, jitterBufferFrames, clock, MixingTicks::caller)) {}

    // Advances the clock by one timer period and runs one tick.
    void step(int ticks = 1) {
        for (int i = 0; i < ticks; ++i) {
            clock->advance(1.0 / 60.0);
            mixer->tick();
        }
    }

    std::shared_ptr<ManualClock> clock;
    std::shared_ptr<AudioMixer> mixer;
};

// The inputs of a mixing run with both sources.
inline MixerInputs dualInputs(std::shared_ptr<FloatRingBuffer> systemRing, double systemHertz, uint32_t systemChannels,
                              std::shared_ptr<FloatRingBuffer> microphoneRing, double microphoneHertz,
                              std::shared_ptr<AudioFile> file, const PcmFormat& outputFormat) {
    MixerInputs inputs;
    inputs.system = MixerSourceInput{std::move(systemRing), systemHertz, systemChannels, {}};
    inputs.microphone = MixerSourceInput{std::move(microphoneRing), microphoneHertz, 1, {}};
    inputs.outputFile = std::move(file);
    inputs.outputFormat = outputFormat;
    return inputs;
}

// One source: exactly one of the two rings is non-null.
inline MixerInputs singleInputs(std::shared_ptr<FloatRingBuffer> systemRing,
                                std::shared_ptr<FloatRingBuffer> microphoneRing, double hertz, uint32_t channels,
                                std::shared_ptr<AudioFile> file, const PcmFormat& outputFormat) {
    MixerInputs inputs;
    if (systemRing) inputs.system = MixerSourceInput{std::move(systemRing), hertz, channels, {}};
    if (microphoneRing) inputs.microphone = MixerSourceInput{std::move(microphoneRing), hertz, 1, {}};
    inputs.outputFile = std::move(file);
    inputs.outputFormat = outputFormat;
    return inputs;
}

// Writes `frames` frames of `value` on every channel; returns frames stored.
inline int64_t writeConstant(FloatRingBuffer& ring, float value, int64_t frames) {
    std::vector<float> samples(static_cast<size_t>(frames), value);
    std::vector<const float*> sources(static_cast<size_t>(ring.channels()), samples.data());
    return ring.write(sources, frames);
}

// Calls `frame` with each frame the stream has ready (its first sample; the others follow when interleaved).
inline void forEachFrame(AudioBufferStream& stream, const std::function<void(const float*)>& frame) {
    while (stream.waitFor(std::chrono::milliseconds(0))) {
        auto block = stream.next();
        if (!block) break;
        const auto& format = (*block)->format();
        const uint32_t step = format.interleaved ? format.channelCount : 1;
        for (uint32_t i = 0; i < (*block)->frameLength(); ++i) frame((*block)->floatChannelData()[0] + i * step);
    }
}

// The first channel of what the stream has ready.
inline std::vector<float> drainStream(AudioBufferStream& stream) {
    std::vector<float> samples;
    forEachFrame(stream, [&](const float* frame) { samples.push_back(*frame); });
    return samples;
}

// A private scratch folder, removed with everything in it (the name is only a hint).
struct ScratchFolder : TemporaryDirectory {
    explicit ScratchFolder(const std::string& = {}) {}
    std::filesystem::path file(const std::string& name) const { return path() / name; }
};

}  // namespace velto::testing
