#pragma once
// What a capture ring still held when its mixer stopped for a restart: the mixer never
// reads its jitter reserve, so without this the file would lose that much audio (64 ms
// with the default sizes) at every configuration change. The restart takes it out of the
// old ring and puts it at the front of the new one, so the new mixer writes it first.
//
// Threads: used on the recorder's work queue only, in the hand-over windows where it is
// the ring's only consumer (old mixer stopped) or only producer (new capture not started).

#include <cstdint>
#include <vector>

#include "signal/FloatRingBuffer.hpp"

namespace velto {

class CarriedOverAudio {
public:
    // Takes every frame the ring holds. The ring's mixer must be stopped; its producer
    // may still be writing (those later frames stay behind).
    static CarriedOverAudio takeFrom(FloatRingBuffer& ring, double sampleRateHertz);

    // Writes the frames into a ring whose producer has not started; answers how many fit.
    // Nothing is written when the channel counts differ.
    int64_t prefill(FloatRingBuffer& ring) const;

    double sampleRateHertz() const { return sampleRateHertz_; }
    int64_t frames() const { return frames_; }

private:
    double sampleRateHertz_ = 0;
    int64_t frames_ = 0;
    std::vector<std::vector<float>> channels_;
};

}  // namespace velto
