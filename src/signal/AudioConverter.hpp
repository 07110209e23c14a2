#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "signal/AudioConverterError.hpp"
#include "veltoaudio/PcmBuffer.hpp"

struct soxr;

namespace velto {

// Converts PCM buffers of one format into another: sample rate (libsoxr at its
// very-high quality), channel count (several channels average to mono, mono is
// copied to every channel) and layout (interleaved or not). Resampling state
// carries from call to call, so the buffers of one live stream come out as one
// continuous signal.
//
// No audio is ever lost: input the resampler has taken but not yet turned into
// output, and output beyond a call's capacity, come out in later calls. A call
// may return fewer frames than its capacity (the resampler's filter and block
// size hold some back, most at the start); over a stream the output averages
// exactly input frames × r_out ÷ r_in.
//
// Threads: one caller at a time; holds no lock. Creation may happen on any thread.
class AudioConverter {
public:
    // Throws AudioConverterError::failedToCreateConverter for channel counts it
    // cannot map (neither equal nor either of them mono) or a resampler that
    // cannot be built.
    static std::shared_ptr<AudioConverter> create(const PcmFormat& input, const PcmFormat& output);

    // Returns a new buffer in outputFormat(). Its frame capacity is what the
    // stream is due so far: floor(total input × r_out ÷ r_in) minus the frames
    // already returned — for a first call, floor(n × r_out ÷ r_in); its frame
    // length is what the resampler could give, up to that capacity.
    // Throws AudioConverterError (failedToCreateBuffer, conversionFailed). After
    // a failure the converter stays usable.
    std::shared_ptr<PcmBuffer> convert(const PcmBuffer& input);

    // Ends the stream: returns, in outputFormat(), every frame the resampler
    // still holds (its filter delay and the tail of its last block) and any
    // output not yet handed out, up to what the stream is due in total. Without
    // this, a stream that ends loses its last tens of milliseconds, which the
    // resampler keeps until more input pushes them out — and at the end of a
    // recording no more input comes. After flush() the converter takes no more
    // input (convert() throws conversionFailed); a second flush() returns an
    // empty buffer. Throws AudioConverterError like convert().
    std::shared_ptr<PcmBuffer> flush();

    const PcmFormat& inputFormat() const { return inputFormat_; }
    const PcmFormat& outputFormat() const { return outputFormat_; }

    // The most output frames the resampler can be behind what is due at any
    // moment of a stream (0 without resampling). A consumer that needs full
    // blocks primes itself with this much silence once, up front, instead of
    // inserting silence whenever a call comes out short. Measured once, on
    // first use, with a private resampler of the same settings.
    int64_t maximumHeldBackFrames() const;

    ~AudioConverter();
    AudioConverter(const AudioConverter&) = delete;
    AudioConverter& operator=(const AudioConverter&) = delete;

    struct Private;
    AudioConverter(const Private&, const PcmFormat& input, const PcmFormat& output, uint32_t workChannels,
                   soxr* resampler);

private:
    void mapIntoWork(const PcmBuffer& input, uint32_t frames);
    void resampleWork(uint32_t frames);
    void deliver(const float* work, uint32_t frames, PcmBuffer& output) const;
    void reservePending(size_t freeFrames);

    const PcmFormat inputFormat_;
    const PcmFormat outputFormat_;
    // Channels the resampler works on: the smaller side when mono is involved,
    // so folding happens before resampling and spreading after it.
    const uint32_t workChannels_;
    soxr* const resampler_;  // null when the rates are equal

    std::vector<float> work_;     // interleaved input of the current call, workChannels_ wide
    std::vector<float> pending_;  // interleaved resampled frames not yet returned
    size_t pendingFrames_ = 0;
    int64_t inputFramesTotal_ = 0;
    int64_t outputFramesDelivered_ = 0;
    bool flushed_ = false;
    mutable std::optional<int64_t> maximumHeldBackFrames_;
};

}  // namespace velto
