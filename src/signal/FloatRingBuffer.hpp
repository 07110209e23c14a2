#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

namespace velto {

// Fixed-capacity, multi-channel, non-interleaved ring of float samples: the
// hand-over point between one capture source and the mixer.
//
// Threads: exactly one producer thread calls write(); exactly one consumer
// thread calls read(). availableFrames(), snapshot(), channels() and
// capacityFrames() may be called from any thread. reset() may only be called
// once the producer has stopped and while the consumer is not reading.
//
// The ring never grows, never blocks and never overwrites unread frames: a
// write that does not fit is cut short (its oldest frames are kept), a read
// that asks for more than is stored gets the stored frames followed by zeros.
// The mutex guards only the positions and the count; samples are copied
// outside it, which is safe because the producer only touches free space and
// the consumer only the stored span, both measured under the mutex.
class FloatRingBuffer {
public:
    // channels and framesAvailable read under one hold of the lock.
    struct Snapshot {
        int64_t channels;
        int64_t framesAvailable;
    };

    // Both arguments must be at least 1; anything else throws
    // std::invalid_argument (no caller of the library passes such values).
    static std::shared_ptr<FloatRingBuffer> create(int64_t channels, int64_t capacityFrames);

    FloatRingBuffer(int64_t channels, int64_t capacityFrames);
    ~FloatRingBuffer();
    FloatRingBuffer(const FloatRingBuffer&) = delete;
    FloatRingBuffer& operator=(const FloatRingBuffer&) = delete;

    // Producer only. `sources` holds one pointer per channel, each to
    // `frameCount` samples. Returns the frames stored (0 ... frameCount).
    // Allocates nothing; logs only on a channel-count mismatch.
    int64_t write(std::span<const float* const> sources, int64_t frameCount);

    // Consumer only. Every destination receives exactly `frameCount` samples:
    // the stored frames, then zeros. A channel-count mismatch leaves the
    // destinations untouched and consumes nothing.
    void read(std::span<float* const> destinations, int64_t frameCount);

    int64_t availableFrames() const;
    Snapshot snapshot() const;
    int64_t channels() const noexcept { return channels_; }
    int64_t capacityFrames() const noexcept { return capacityFrames_; }

    // Empties the ring and zeroes its storage.
    void reset();

private:
    const int64_t channels_;
    const int64_t capacityFrames_;
    std::vector<std::unique_ptr<float[]>> buffers_;  // one array per channel, allocated once

    mutable std::mutex lock_;
    int64_t writeIndex_ = 0;       // guarded by lock_; moved by the producer only
    int64_t readIndex_ = 0;        // guarded by lock_; moved by the consumer only
    int64_t framesAvailable_ = 0;  // guarded by lock_
};

}  // namespace velto
