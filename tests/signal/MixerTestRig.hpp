#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <functional>
#include <memory>
#include <numbers>
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

// A capture source on a clock of its own: it produces `rate × (1 + skew)` frames per
// second of the mixer's clock, delivered in bursts whose writes are stamped (once the ring
// stamps) at the moment they happen. Its signal is a sine of the true time, silence
// without a tone, so that a source kept in step comes out as the same sine in the mixer's time.
struct SimulatedSource {
    SimulatedSource(double rateHertz, double skew, int64_t channels, int64_t burstFrames, double toneHertz = 0)
        : rate(rateHertz), skew(skew), burst(burstFrames), tone(toneHertz),
          ring(FloatRingBuffer::create(channels, 96000)), samples(static_cast<size_t>(burstFrames)),
          pointers(static_cast<size_t>(channels), samples.data()) {}

    double nextBurstSeconds(double startSeconds) const {
        return startSeconds + static_cast<double>(produced + burst) / (rate * (1 + skew));
    }
    void deliver() {
        // A phasor turned sample by sample from the burst's exact phase: a sine call per
        // sample would be most of an eight-hour simulation's time.
        const double step = 2 * std::numbers::pi * tone / (rate * (1 + skew));
        const double stepCosine = std::cos(step), stepSine = std::sin(step);
        double cosine = std::cos(step * static_cast<double>(produced)), sine = std::sin(step * static_cast<double>(produced));
        for (int64_t i = 0; tone > 0 && i < burst; ++i) {
            samples[static_cast<size_t>(i)] = static_cast<float>(kAmplitude * sine);
            const double next = sine * stepCosine + cosine * stepSine;
            cosine = cosine * stepCosine - sine * stepSine;
            sine = next;
        }
        overrunFrames += burst - ring->write(pointers, burst);
        produced += burst;
        highestFill = std::max(highestFill, ring->availableFrames());
    }

    static constexpr double kAmplitude = 0.4;
    double rate, skew;
    int64_t burst;
    double tone;
    std::shared_ptr<FloatRingBuffer> ring;
    std::vector<float> samples;
    std::vector<const float*> pointers;
    int64_t produced = 0, overrunFrames = 0, highestFill = 0;
};

// Delivers each source's bursts and runs each of the mixer's ticks in the order of
// their times, each at its own time, for `seconds` from `start`; `afterTick` follows every tick.
inline void runSources(MixerRig& rig, const std::vector<SimulatedSource*>& sources, double start, double seconds,
                       const std::function<void()>& afterTick) {
    for (double nextTick = start + 1.0 / 60.0; nextTick < start + seconds;) {
        SimulatedSource* due = nullptr;
        for (auto* source : sources) {
            const double at = source->nextBurstSeconds(start);
            if (at <= nextTick && (!due || at < due->nextBurstSeconds(start))) due = source;
        }
        if (due) {
            rig.clock->set(due->nextBurstSeconds(start));
            due->deliver();
            continue;
        }
        rig.clock->set(nextTick);
        rig.mixer->tick();
        afterTick();
        nextTick += 1.0 / 60.0;
    }
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

// A microphone at 16 kHz into a 16 kHz WAV file and the live stream: no conversion
// anywhere, so frames map one to one.
struct DirectPath {
    DirectPath() : ring(FloatRingBuffer::create(1, 96000)) {
        file = AudioFile::openForWriting(folder.path() / "mix.wav", makeAudioSettings(AudioFormat::wav));
        stream = rig.mixer->audioStream();
        rig.mixer->start(singleInputs(nullptr, ring, 16000, 1, file, file->processingFormat()));
    }
    // Captures `frames` of `value`, lets their time pass and ticks once.
    std::vector<float> mix(float value, int64_t frames) {
        writeConstant(*ring, value, frames);
        rig.clock->advance(static_cast<double>(frames) / 16000.0);
        rig.mixer->tick();
        return drainStream(stream);
    }
    MixerRig rig;
    TemporaryDirectory folder;
    std::shared_ptr<FloatRingBuffer> ring;
    std::shared_ptr<AudioFile> file;
    AudioBufferStream stream;
};

}  // namespace velto::testing
