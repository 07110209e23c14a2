#pragma once

#include <cstdint>
#include <memory>

namespace velto {

// A first-in first-out queue of mono float samples with a fixed capacity,
// allocated once. Lines up a source's resampled output with the mixer's
// fixed-size blocks. Not thread-safe: one owner thread.
class MonoSampleFifo {
public:
    explicit MonoSampleFifo(int64_t capacityFrames = 0);

    int64_t capacityFrames() const { return capacityFrames_; }
    int64_t availableFrames() const { return availableFrames_; }

    // Appends up to `count` samples; returns how many fitted.
    int64_t push(const float* samples, int64_t count);
    // Appends `count` zeros (as many as fit); returns how many fitted.
    int64_t pushSilence(int64_t count);
    // Moves up to `count` samples to `destination`; returns how many.
    int64_t pop(float* destination, int64_t count);

private:
    int64_t capacityFrames_;
    std::unique_ptr<float[]> samples_;
    int64_t readIndex_ = 0;
    int64_t availableFrames_ = 0;
};

}  // namespace velto
