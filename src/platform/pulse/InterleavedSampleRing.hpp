#pragma once
// A lock-free single-producer single-consumer ring of interleaved float frames, where a
// capture stream gathers the server's fragments until they make whole blocks. Storage
// is allocated once; neither side allocates, blocks or locks.
//
// Threads: write() from one producer thread; read(), readAvailable() and discard() from
// one consumer thread; availableFrames() from either. The positions are a SpscFifo.

#include <cstddef>
#include <cstdint>
#include <memory>

#include "realtime/SpscFifo.hpp"

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
    std::uint32_t availableFrames() const { return static_cast<std::uint32_t>(positions_.readyFrames()); }

    std::uint32_t channels() const { return channels_; }
    std::uint32_t capacityFrames() const { return static_cast<std::uint32_t>(positions_.capacityFrames()); }

private:
    std::size_t bytes(std::int64_t frames) const { return static_cast<std::size_t>(frames) * channels_ * sizeof(float); }
    void copyIn(const SpscFifo::Spans& spans, const float* interleaved);
    void copyOut(const SpscFifo::Spans& spans, float* interleaved) const;

    const std::uint32_t channels_;
    SpscFifo positions_;
    std::unique_ptr<float[]> samples_;
};

}  // namespace velto::pulse
