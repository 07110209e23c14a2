#pragma once
// The positions of a lock-free single-producer single-consumer queue of fixed capacity.
// It holds no data: its owner keeps the storage (one array per channel, interleaved
// frames, whatever fits) and asks this type where to copy. A request that crosses the
// end of the storage comes back as two spans, the second starting at index 0.
//
// Threads:
//   - producer (exactly one thread at a time): prepareToWrite(), finishedWrite();
//   - consumer (exactly one thread at a time): prepareToRead(), finishedRead();
//   - any thread: readyFrames(), freeFrames(), capacityFrames();
//   - reset(), moves: only while neither side is in use.
// Neither side blocks, allocates or locks. finishedWrite() publishes the frames copied
// before it (release), prepareToRead() sees them (acquire), and the same the other way
// for the space a read gives back, so the copies themselves need no lock.
//
// Positions are frame counts that only grow; their difference is the fill level. At 64
// bits they do not wrap in the life of any recording.

#include <algorithm>
#include <atomic>
#include <cstdint>

namespace velto {

class SpscFifo {
public:
    // Where to copy: `firstFrames` from `firstStart`, then `secondFrames` from index 0.
    struct Spans {
        std::int64_t firstStart = 0;
        std::int64_t firstFrames = 0;
        std::int64_t secondFrames = 0;
        std::int64_t totalFrames() const noexcept { return firstFrames + secondFrames; }
    };

    // A capacity below 0 counts as 0: such a queue never holds anything.
    explicit SpscFifo(std::int64_t capacityFrames) noexcept : capacityFrames_(std::max<std::int64_t>(capacityFrames, 0)) {}
    ~SpscFifo() = default;
    SpscFifo(const SpscFifo&) = delete;
    SpscFifo& operator=(const SpscFifo&) = delete;
    // Moving carries the positions over; neither side of either queue may be in use.
    SpscFifo(SpscFifo&& other) noexcept
        : capacityFrames_(other.capacityFrames_), written_(other.written_.load()), read_(other.read_.load()) {}
    SpscFifo& operator=(SpscFifo&& other) noexcept {
        capacityFrames_ = other.capacityFrames_;
        written_.store(other.written_.load());
        read_.store(other.read_.load());
        return *this;
    }

    std::int64_t capacityFrames() const noexcept { return capacityFrames_; }

    std::int64_t readyFrames() const noexcept {
        // Read position first: the write position can only have grown since, so the
        // difference never exceeds what was stored at some moment.
        const std::uint64_t read = read_.load(std::memory_order_acquire);
        const std::uint64_t written = written_.load(std::memory_order_acquire);
        return static_cast<std::int64_t>(written - read);
    }

    std::int64_t freeFrames() const noexcept { return capacityFrames_ - readyFrames(); }

    // Frames ever made readable, and ever read, since creation or reset(): the
    // producer's and the consumer's own positions, readable from any thread.
    std::int64_t totalWrittenFrames() const noexcept {
        return static_cast<std::int64_t>(written_.load(std::memory_order_acquire));
    }
    std::int64_t totalReadFrames() const noexcept { return static_cast<std::int64_t>(read_.load(std::memory_order_acquire)); }

    // Producer: the free space for up to `wantedFrames` frames (fewer when less is free).
    Spans prepareToWrite(std::int64_t wantedFrames) const noexcept {
        const std::uint64_t written = written_.load(std::memory_order_relaxed);
        const std::uint64_t read = read_.load(std::memory_order_acquire);
        const auto freeFrames = capacityFrames_ - static_cast<std::int64_t>(written - read);
        return spansAt(written, std::clamp<std::int64_t>(wantedFrames, 0, freeFrames));
    }

    // Producer: makes `frames` frames (at most what prepareToWrite() offered) readable.
    void finishedWrite(std::int64_t frames) noexcept {
        if (frames <= 0) return;
        written_.store(written_.load(std::memory_order_relaxed) + static_cast<std::uint64_t>(frames),
                       std::memory_order_release);
    }

    // Consumer: the stored frames, the oldest first, up to `wantedFrames`.
    Spans prepareToRead(std::int64_t wantedFrames) const noexcept {
        const std::uint64_t read = read_.load(std::memory_order_relaxed);
        const std::uint64_t written = written_.load(std::memory_order_acquire);
        return spansAt(read, std::clamp<std::int64_t>(wantedFrames, 0, static_cast<std::int64_t>(written - read)));
    }

    // Consumer: gives `frames` frames (at most what prepareToRead() offered) back as space.
    void finishedRead(std::int64_t frames) noexcept {
        if (frames <= 0) return;
        read_.store(read_.load(std::memory_order_relaxed) + static_cast<std::uint64_t>(frames),
                    std::memory_order_release);
    }

    void reset() noexcept {
        written_.store(0);
        read_.store(0);
    }

private:
    Spans spansAt(std::uint64_t position, std::int64_t frames) const noexcept {
        if (frames <= 0) return {};
        const auto start = static_cast<std::int64_t>(position % static_cast<std::uint64_t>(capacityFrames_));
        const std::int64_t firstFrames = std::min(frames, capacityFrames_ - start);
        return Spans{start, firstFrames, frames - firstFrames};
    }

    std::int64_t capacityFrames_;
    std::atomic<std::uint64_t> written_{0};  // moved by the producer only
    std::atomic<std::uint64_t> read_{0};     // moved by the consumer only
};

}  // namespace velto
