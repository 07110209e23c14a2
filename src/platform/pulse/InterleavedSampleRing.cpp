#include "platform/pulse/InterleavedSampleRing.hpp"

#include <algorithm>
#include <cstring>

namespace velto::pulse {

InterleavedSampleRing::InterleavedSampleRing(std::uint32_t channels, std::uint32_t capacityFrames)
    : channels_(channels),
      positions_(capacityFrames),
      samples_(std::make_unique<float[]>(static_cast<std::size_t>(channels) * capacityFrames)) {}

void InterleavedSampleRing::copyIn(const SpscFifo::Spans& spans, const float* interleaved) {
    std::memcpy(samples_.get() + static_cast<std::size_t>(spans.firstStart) * channels_, interleaved,
                bytes(spans.firstFrames));
    std::memcpy(samples_.get(), interleaved + static_cast<std::size_t>(spans.firstFrames) * channels_,
                bytes(spans.secondFrames));
}

void InterleavedSampleRing::copyOut(const SpscFifo::Spans& spans, float* interleaved) const {
    std::memcpy(interleaved, samples_.get() + static_cast<std::size_t>(spans.firstStart) * channels_,
                bytes(spans.firstFrames));
    std::memcpy(interleaved + static_cast<std::size_t>(spans.firstFrames) * channels_, samples_.get(),
                bytes(spans.secondFrames));
}

std::uint32_t InterleavedSampleRing::write(const float* interleaved, std::uint32_t frames) {
    const SpscFifo::Spans free = positions_.prepareToWrite(frames);
    if (free.totalFrames() == 0) return 0;
    copyIn(free, interleaved);
    positions_.finishedWrite(free.totalFrames());
    return static_cast<std::uint32_t>(free.totalFrames());
}

bool InterleavedSampleRing::read(float* interleaved, std::uint32_t frames) {
    const SpscFifo::Spans stored = positions_.prepareToRead(frames);
    if (stored.totalFrames() < frames) return false;
    if (frames == 0) return true;
    copyOut(stored, interleaved);
    positions_.finishedRead(stored.totalFrames());
    return true;
}

std::uint32_t InterleavedSampleRing::readAvailable(float* interleaved, std::uint32_t maximumFrames) {
    const SpscFifo::Spans stored = positions_.prepareToRead(maximumFrames);
    if (stored.totalFrames() == 0) return 0;
    copyOut(stored, interleaved);
    positions_.finishedRead(stored.totalFrames());
    return static_cast<std::uint32_t>(stored.totalFrames());
}

std::uint32_t InterleavedSampleRing::discard(std::uint32_t frames) {
    const std::int64_t count = positions_.prepareToRead(frames).totalFrames();
    positions_.finishedRead(count);
    return static_cast<std::uint32_t>(count);
}

}  // namespace velto::pulse
