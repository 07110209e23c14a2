#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "dispatch/ThreadAnnotations.hpp"
#include "signal/AudioConverter.hpp"
#include "signal/AudioFile.hpp"
#include "veltoaudio/Error.hpp"
#include "model/EventSource.hpp"
#include "veltoaudio/EventStream.hpp"
#include "veltoaudio/PcmBuffer.hpp"

namespace velto {

// The end of the mixer's road: brings the bus's blocks to the output format,
// appends them to the file and hands the same buffers to the audio stream.
//
// Degradation policy: a block that cannot be converted or written is skipped. The
// first failed write is logged and reported through the failure handler, once,
// because only the mixer's owner can decide to end the recording; later ones are
// counted, and the count logged at the release.
//
// Threads: configure() and release() while no block is written; write() and
// flush() on the mixing thread; audioStream(), finishStream(), the handler and
// framesWritten() from any thread.
class MixOutput {
public:
    // Creates the output resampler when the rates differ. Throws AudioConverterError.
    // `fileFrameLimit`: the most frames the file may hold (see MixerInputs).
    void configure(std::shared_ptr<AudioFile> file, const PcmFormat& outputFormat, double mixingSampleRateHertz,
                   uint32_t busChannels, std::optional<int64_t> fileFrameLimit = std::nullopt);
    void release();

    // `frames` interleaved frames of the bus's channel count, at the mixing rate.
    void write(const float* busBlock, int64_t frames);
    // The output resampler's held-back tail, at the end of a run.
    void flush();

    // The blocks, each exactly once and in order, as the same buffers that were
    // written to the file; ends at finishStream().
    AudioBufferStream audioStream();
    void finishStream();
    void setWriteFailureHandler(std::function<void(ErrorPtr)> handler);
    // Called once, on the mixing thread, when the file has reached its frame limit.
    void setLimitReachedHandler(std::function<void()> handler);
    // Output-rate frames handed to the file (or, without one, to the stream).
    int64_t framesWritten() const { return framesWritten_.load(); }

private:
    // Cuts a block at the file's frame limit, then appends what is left.
    void deliver(std::shared_ptr<PcmBuffer> block);
    // Writes the block to the file and hands it to the stream.
    void append(std::shared_ptr<PcmBuffer> block);
    void reportLimitReached();

    std::shared_ptr<AudioFile> file_;
    std::optional<PcmFormat> outputFormat_;
    std::optional<PcmFormat> busFormat_;  // the block format before the resampler
    std::shared_ptr<AudioConverter> converter_;
    uint32_t busChannels_ = 1;
    bool writeFailureReported_ = false;
    int64_t writeFailuresAfterFirst_ = 0;  // not logged one by one; told at the release
    std::optional<int64_t> fileFrameLimit_;
    bool limitReached_ = false;
    std::atomic<int64_t> framesWritten_{0};

    Mutex streamLock_;
    std::optional<AudioBufferStream> audioStream_ VELTO_GUARDED_BY(streamLock_);
    std::optional<AudioBufferSource::Continuation> audioStreamContinuation_ VELTO_GUARDED_BY(streamLock_);
    std::function<void(ErrorPtr)> writeFailureHandler_ VELTO_GUARDED_BY(streamLock_);
    std::function<void()> limitReachedHandler_ VELTO_GUARDED_BY(streamLock_);
};

}  // namespace velto
