#pragma once

#include <cstdint>
#include <memory>

#include "realtime/SpscFifo.hpp"

namespace velto {

// A first-in first-out queue of mono float samples with a fixed capacity,
// allocated once. Lines up a source's resampled output with the mixer's
// fixed-size blocks.
//
// Threads: one thread may push while another pops (the positions are a lock-free
// SpscFifo); the mixer uses it from its own queue only. Assignment replaces the
// whole queue and needs neither side in use.
class MonoSampleFifo {
public:
    explicit MonoSampleFifo(int64_t capacityFrames = 0);

    int64_t capacityFrames() const { return positions_.capacityFrames(); }
    int64_t availableFrames() const { return positions_.readyFrames(); }

    // Appends up to `count` samples; returns how many fitted.
    int64_t push(const float* samples, int64_t count);
    // Appends `count` zeros (as many as fit); returns how many fitted.
    int64_t pushSilence(int64_t count);
    // Moves up to `count` samples to `destination`; returns how many.
    int64_t pop(float* destination, int64_t count);

private:
    SpscFifo positions_;
    std::unique_ptr<float[]> samples_;
};

}  // namespace velto
