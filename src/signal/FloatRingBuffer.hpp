#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "dispatch/Clock.hpp"
#include "realtime/SpscFifo.hpp"

namespace velto {

// Fixed-capacity, multi-channel, non-interleaved ring of float samples: the
// hand-over point between one capture source and the mixer.
//
// Threads: exactly one producer thread calls write(); exactly one consumer
// thread calls read(). availableFrames(), snapshot(), channels() and
// capacityFrames() may be called from any thread. reset() may only be called
// once the producer has stopped and while the consumer is not reading.
//
// The ring never grows, never blocks, never locks and never overwrites unread
// frames: a write that does not fit is cut short (its oldest frames are kept),
// a read that asks for more than is stored gets the stored frames followed by
// zeros. The positions live in a lock-free SpscFifo; the producer only touches
// the free space and the consumer only the stored span it reports.
//
// With a delivery clock, every write is stamped with its time, so that the
// consumer can tell how much its producer has made by any moment (the fill
// between two deliveries grows at the source's rate, not in block-sized steps):
// that is what keeps a source with a clock of its own in step with the mixer.
class FloatRingBuffer {
public:
    // One write as the consumer sees it: everything written up to it, and when.
    struct Delivery {
        int64_t totalWrittenFrames;
        double atSeconds;
    };

    // The channel count with the fill level at one moment.
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
    // `lastFrameAgeSeconds`: how long before now the last frame was captured;
    // the write is stamped that much earlier. Allocates nothing; logs only on a
    // channel-count mismatch.
    int64_t write(std::span<const float* const> sources, int64_t frameCount, double lastFrameAgeSeconds = 0.0);

    // Consumer only. Every destination receives exactly `frameCount` samples:
    // the stored frames, then zeros. A channel-count mismatch leaves the
    // destinations untouched and consumes nothing.
    void read(std::span<float* const> destinations, int64_t frameCount);

    // Stamps every write from now on with `clock`'s time. Call before the
    // producer starts (or while it is stopped).
    void stampDeliveriesWith(std::shared_ptr<Clock> clock);
    // Any thread: the last stamped write; none before it or without a clock.
    std::optional<Delivery> lastDelivery() const;
    // Any thread: frames the consumer has read since creation or reset().
    int64_t totalReadFrames() const noexcept { return positions_.totalReadFrames(); }

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

    SpscFifo positions_;

    // The last delivery, published as a sequence lock: the producer makes the
    // sequence odd while it writes the pair, so a reader never mixes two writes.
    std::shared_ptr<Clock> deliveryClock_;
    std::atomic<uint64_t> deliverySequence_{0};
    std::atomic<int64_t> deliveredFrames_{0};
    std::atomic<double> deliveredAtSeconds_{0.0};
    std::atomic<bool> hasDelivery_{false};
};

}  // namespace velto
