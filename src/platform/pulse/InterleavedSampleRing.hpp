#pragma once
// A lock-free single-producer single-consumer ring of interleaved float frames, where a
// capture stream gathers the server's fragments until they make whole blocks. Storage
// is allocated once; neither side allocates, blocks or locks.
//
// Threads: write() from one producer thread, read() from one consumer thread;
// availableFrames() from either.

#include <atomic>
#include <cstdint>
#include <memory>

namespace velto::pulse {

class InterleavedSampleRing {
public:
    InterleavedSampleRing(std::uint32_t channels, std::uint32_t capacityFrames);

    // Stores as many of `frames` frames as fit (the oldest first); answers how many.
    std::uint32_t write(const float* interleaved, std::uint32_t frames);
    // Takes exactly `frames` frames when that many are stored; otherwise takes nothing and answers false.
    bool read(float* interleaved, std::uint32_t frames);
    // Takes what is stored, at most `maximumFrames`; answers how many frames it took.
    std::uint32_t readAvailable(float* interleaved, std::uint32_t maximumFrames);
    // Consumer only: throws away up to `frames` of the oldest frames; answers how many.
    std::uint32_t discard(std::uint32_t frames);
    std::uint32_t availableFrames() const;

    std::uint32_t channels() const { return channels_; }
    std::uint32_t capacityFrames() const { return capacityFrames_; }

private:
    const std::uint32_t channels_;
    const std::uint32_t capacityFrames_;
    std::unique_ptr<float[]> samples_;
    // Frame counters that only grow; their difference is the fill level.
    std::atomic<std::uint64_t> writtenFrames_{0};  // moved by the producer only
    std::atomic<std::uint64_t> readFrames_{0};     // moved by the consumer only
};

}  // namespace velto::pulse
