#include "platform/pulse/InterleavedSampleRing.hpp"

#include <algorithm>
#include <cstring>

namespace velto::pulse {

InterleavedSampleRing::InterleavedSampleRing(std::uint32_t channels, std::uint32_t capacityFrames)
    : channels_(channels),
      capacityFrames_(capacityFrames),
      samples_(std::make_unique<float[]>(static_cast<std::size_t>(channels) * capacityFrames)) {}

std::uint32_t InterleavedSampleRing::write(const float* interleaved, std::uint32_t frames) {
    const std::uint64_t written = writtenFrames_.load(std::memory_order_relaxed);
    const std::uint64_t read = readFrames_.load(std::memory_order_acquire);
    const auto freeFrames = static_cast<std::uint32_t>(capacityFrames_ - (written - read));
    const std::uint32_t count = std::min(frames, freeFrames);
    const auto start = static_cast<std::uint32_t>(written % capacityFrames_);
    const std::uint32_t firstRun = std::min(count, capacityFrames_ - start);
    std::memcpy(samples_.get() + static_cast<std::size_t>(start) * channels_, interleaved,
                static_cast<std::size_t>(firstRun) * channels_ * sizeof(float));
    if (count > firstRun) {
        std::memcpy(samples_.get(), interleaved + static_cast<std::size_t>(firstRun) * channels_,
                    static_cast<std::size_t>(count - firstRun) * channels_ * sizeof(float));
    }
    writtenFrames_.store(written + count, std::memory_order_release);
    return count;
}

bool InterleavedSampleRing::read(float* interleaved, std::uint32_t frames) {
    const std::uint64_t read = readFrames_.load(std::memory_order_relaxed);
    const std::uint64_t written = writtenFrames_.load(std::memory_order_acquire);
    if (written - read < frames) return false;
    const auto start = static_cast<std::uint32_t>(read % capacityFrames_);
    const std::uint32_t firstRun = std::min(frames, capacityFrames_ - start);
    std::memcpy(interleaved, samples_.get() + static_cast<std::size_t>(start) * channels_,
                static_cast<std::size_t>(firstRun) * channels_ * sizeof(float));
    if (frames > firstRun) {
        std::memcpy(interleaved + static_cast<std::size_t>(firstRun) * channels_, samples_.get(),
                    static_cast<std::size_t>(frames - firstRun) * channels_ * sizeof(float));
    }
    readFrames_.store(read + frames, std::memory_order_release);
    return true;
}

std::uint32_t InterleavedSampleRing::readAvailable(float* interleaved, std::uint32_t maximumFrames) {
    const std::uint32_t frames = std::min(availableFrames(), maximumFrames);
    return frames > 0 && read(interleaved, frames) ? frames : 0;
}

std::uint32_t InterleavedSampleRing::discard(std::uint32_t frames) {
    const std::uint64_t read = readFrames_.load(std::memory_order_relaxed);
    const std::uint64_t written = writtenFrames_.load(std::memory_order_acquire);
    const auto count = static_cast<std::uint32_t>(std::min<std::uint64_t>(frames, written - read));
    readFrames_.store(read + count, std::memory_order_release);
    return count;
}

std::uint32_t InterleavedSampleRing::availableFrames() const {
    const std::uint64_t read = readFrames_.load(std::memory_order_acquire);
    const std::uint64_t written = writtenFrames_.load(std::memory_order_acquire);
    return static_cast<std::uint32_t>(written - read);
}

}  // namespace velto::pulse
