#pragma once

#include <cstdint>
#include <cstring>

#include "veltoaudio/PcmBuffer.hpp"

namespace velto {

// Copies the first `frames` frames of `buffer` to `destination` as interleaved
// frames of `channels` channels: equal counts are copied, several channels
// are averaged into one, and otherwise channel c takes the buffer's channel
// c modulo its count (so mono is copied to every channel).
inline void copyAsInterleaved(const PcmBuffer& buffer, uint32_t frames, uint32_t channels, float* destination) {
    const uint32_t bufferChannels = buffer.channelCount();
    const bool interleaved = buffer.format().interleaved;
    const auto channelData = buffer.floatChannelData();
    if (frames == 0 || bufferChannels == 0) return;
    if (bufferChannels == channels && (interleaved || channels == 1)) {
        std::memcpy(destination, channelData[0], static_cast<size_t>(frames) * channels * sizeof(float));
        return;
    }
    auto sampleAt = [&](uint32_t frame, uint32_t channel) {
        return interleaved ? channelData[0][static_cast<size_t>(frame) * bufferChannels + channel]
                           : channelData[channel][frame];
    };
    for (uint32_t frame = 0; frame < frames; ++frame) {
        float* out = destination + static_cast<size_t>(frame) * channels;
        if (channels == 1 && bufferChannels > 1) {
            float sum = 0.0f;
            for (uint32_t channel = 0; channel < bufferChannels; ++channel) sum += sampleAt(frame, channel);
            out[0] = sum / static_cast<float>(bufferChannels);
        } else {
            for (uint32_t channel = 0; channel < channels; ++channel) out[channel] = sampleAt(frame, channel % bufferChannels);
        }
    }
}

}  // namespace velto
