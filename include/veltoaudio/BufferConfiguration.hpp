#pragma once

#include <cstdint>

namespace velto {

// Buffer sizes of a multi-source recording, in frames.
class BufferConfiguration {
public:
    static constexpr int64_t minimumRingBufferCapacity = 1024;
    static constexpr int64_t minimumJitterBufferFrames = 512;
    static constexpr int64_t minimumMixingBufferCapacity = 256;

    // Raises each argument to its minimum; no upper bound.
    BufferConfiguration(int64_t ringBufferCapacity, int64_t jitterBufferFrames, int64_t mixingBufferCapacity)
        : ringBufferCapacity_(ringBufferCapacity > minimumRingBufferCapacity ? ringBufferCapacity
                                                                             : minimumRingBufferCapacity),
          jitterBufferFrames_(jitterBufferFrames > minimumJitterBufferFrames ? jitterBufferFrames
                                                                             : minimumJitterBufferFrames),
          mixingBufferCapacity_(mixingBufferCapacity > minimumMixingBufferCapacity ? mixingBufferCapacity
                                                                                   : minimumMixingBufferCapacity) {}

    // 96000 / 3072 / 1024: two seconds of ring at 48 kHz, 64 ms of jitter reserve.
    static constexpr BufferConfiguration defaultConfiguration() { return BufferConfiguration(Raw{}, 96000, 3072, 1024); }

    constexpr int64_t ringBufferCapacity() const { return ringBufferCapacity_; }
    constexpr int64_t jitterBufferFrames() const { return jitterBufferFrames_; }
    constexpr int64_t mixingBufferCapacity() const { return mixingBufferCapacity_; }

private:
    struct Raw {};
    constexpr BufferConfiguration(Raw, int64_t ring, int64_t jitter, int64_t mixing)
        : ringBufferCapacity_(ring), jitterBufferFrames_(jitter), mixingBufferCapacity_(mixing) {}
    int64_t ringBufferCapacity_;
    int64_t jitterBufferFrames_;
    int64_t mixingBufferCapacity_;
};

}  // namespace velto
