#include "veltoaudio/PcmBuffer.hpp"

#include <cmath>
#include <new>

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

std::shared_ptr<PcmBuffer> PcmBuffer::make(const PcmFormat& format, uint32_t frameCapacityFrames) {
    if (!PcmFormat::make(format.sampleRate, format.channelCount, format.interleaved)) return nullptr;
    try {
        return std::make_shared<PcmBuffer>(format, frameCapacityFrames);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

}  // namespace velto
