#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "veltoaudio/Export.hpp"

namespace velto {

template <class T>
class EventStream;

// The format of a block of 32-bit float samples.
struct VELTO_EXPORT PcmFormat {
    double sampleRate = 0;      // hertz
    uint32_t channelCount = 0;
    bool interleaved = false;

    // None for a rate that is not finite and positive, or for zero channels.
    static std::optional<PcmFormat> make(double sampleRate, uint32_t channelCount, bool interleaved);
    // The platform's standard format: non-interleaved.
    static std::optional<PcmFormat> standard(double sampleRate, uint32_t channelCount);

    // e.g. "<PcmFormat: 2 ch, 48000.0 Hz, Float32, non-interleaved>"
    std::string description() const;
    friend bool operator==(const PcmFormat&, const PcmFormat&) = default;
};

// A block of 32-bit float samples with a format, a frame capacity and a frame
// length: the unit that flows on the audio streams and into the output file.
// Not thread-safe; a buffer handed to a stream is not written again.
//
// Move-only: the channel pointers point into the buffer's own storage, so a copy
// would either share it behind the original's back or dangle once the original
// goes. Blocks are shared through std::shared_ptr instead. A moved-from buffer
// holds no frames and no channel pointers.
class VELTO_EXPORT PcmBuffer {
public:
    // Null when the format is invalid or the storage cannot be allocated.
    static std::shared_ptr<PcmBuffer> make(const PcmFormat& format, uint32_t frameCapacityFrames);

    PcmBuffer(const PcmFormat& format, uint32_t frameCapacityFrames);
    PcmBuffer(const PcmBuffer&) = delete;
    PcmBuffer& operator=(const PcmBuffer&) = delete;
    PcmBuffer(PcmBuffer&& other) noexcept;
    PcmBuffer& operator=(PcmBuffer&& other) noexcept;
    ~PcmBuffer() = default;

    const PcmFormat& format() const { return format_; }
    uint32_t channelCount() const { return format_.channelCount; }
    uint32_t frameCapacity() const { return frameCapacity_; }
    uint32_t frameLength() const { return frameLength_; }
    // Clamped to the capacity.
    void setFrameLength(uint32_t frames) { frameLength_ = frames < frameCapacity_ ? frames : frameCapacity_; }

    // Non-interleaved: one pointer per channel. Interleaved: one pointer to the
    // interleaved samples (channelCount samples per frame).
    std::span<float* const> floatChannelData() { return channelPointers_; }
    std::span<const float* const> floatChannelData() const {
        return {const_cast<const float* const*>(channelPointers_.data()), channelPointers_.size()};
    }

private:
    PcmFormat format_;
    uint32_t frameCapacity_;
    uint32_t frameLength_ = 0;
    std::vector<float> samples_;
    std::vector<float*> channelPointers_;
};

using AudioBufferStream = EventStream<std::shared_ptr<PcmBuffer>>;

}  // namespace velto
