#pragma once

#include <cstdint>
#include <memory>

#include "signal/MixerInputs.hpp"
#include "signal/SourcePath.hpp"

namespace velto {

// Where the sources meet: lays them out (summed with their gains into one mono
// track, or side by side unscaled), limits every sample to ±0.98 and measures
// the block. Mixing thread only; configure() while no tick runs.
class MixBus {
public:
    static constexpr float kClipThreshold = 0.98f;

    explicit MixBus(int64_t bufferFrameCapacity);

    void configure(MixerTrackLayout layout);
    uint32_t channels() const { return layout_ == MixerTrackLayout::separate ? 2 : 1; }
    MixerTrackLayout layout() const { return layout_; }

    struct Measurement {
        float peakBeforeClipping = 0.0f;
        BlockLevel level;  // of the clipped block
    };
    // `system`/`microphone` are mono blocks of `frames` samples, null for a
    // source that is not in the mix. In the separate layout the gains do not
    // apply and an absent source's channel is silence.
    Measurement mix(const float* system, float systemGain, const float* microphone, float microphoneGain,
                    int64_t frames);

    // The last block, interleaved, channels() samples a frame.
    const float* output() const { return output_.get(); }

private:
    const int64_t bufferFrameCapacity_;
    MixerTrackLayout layout_ = MixerTrackLayout::mixed;
    std::unique_ptr<float[]> output_;  // room for two channels
    std::unique_ptr<float[]> silence_;
};

}  // namespace velto
