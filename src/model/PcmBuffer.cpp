#include "veltoaudio/PcmBuffer.hpp"

#include <cmath>
#include <new>
#include <utility>

#include "logging/NumberFormat.hpp"

namespace velto {

std::optional<PcmFormat> PcmFormat::make(double sampleRate, uint32_t channelCount, bool interleaved) {
    if (!std::isfinite(sampleRate) || sampleRate <= 0 || channelCount == 0) return std::nullopt;
    return PcmFormat{sampleRate, channelCount, interleaved};
}

std::optional<PcmFormat> PcmFormat::standard(double sampleRate, uint32_t channelCount) {
    return make(sampleRate, channelCount, false);
}

std::string PcmFormat::description() const {
    return "<PcmFormat: " + std::to_string(channelCount) + " ch, " + formatDouble(sampleRate) + " Hz, Float32" +
           (interleaved ? ", interleaved>" : ", non-interleaved>");
}

PcmBuffer::PcmBuffer(const PcmFormat& format, uint32_t frameCapacityFrames)
    : format_(format), frameCapacity_(frameCapacityFrames) {
    const std::size_t channels = format.channelCount;
    samples_.assign(std::size_t(frameCapacityFrames) * channels, 0.0f);
    if (format.interleaved) {
        channelPointers_.push_back(samples_.data());
    } else {
        for (std::size_t c = 0; c < channels; ++c) channelPointers_.push_back(samples_.data() + c * frameCapacityFrames);
    }
}

// Moving a vector keeps its heap block, so the moved pointers still point into the
// storage that now belongs to this buffer.
PcmBuffer::PcmBuffer(PcmBuffer&& other) noexcept
    : format_(other.format_),
      frameCapacity_(std::exchange(other.frameCapacity_, 0)),
      frameLength_(std::exchange(other.frameLength_, 0)),
      samples_(std::move(other.samples_)),
      channelPointers_(std::move(other.channelPointers_)) {
    other.samples_.clear();
    other.channelPointers_.clear();
}

PcmBuffer& PcmBuffer::operator=(PcmBuffer&& other) noexcept {
    if (this != &other) {
        format_ = other.format_;
        frameCapacity_ = std::exchange(other.frameCapacity_, 0);
        frameLength_ = std::exchange(other.frameLength_, 0);
        samples_ = std::move(other.samples_);
        channelPointers_ = std::move(other.channelPointers_);
        other.samples_.clear();
        other.channelPointers_.clear();
    }
    return *this;
}

std::shared_ptr<PcmBuffer> PcmBuffer::make(const PcmFormat& format, uint32_t frameCapacityFrames) {
    if (!PcmFormat::make(format.sampleRate, format.channelCount, format.interleaved)) return nullptr;
    try {
        return std::make_shared<PcmBuffer>(format, frameCapacityFrames);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace velto
