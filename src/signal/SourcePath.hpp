#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "signal/AudioConverter.hpp"
#include "signal/AudioMixerError.hpp"
#include "signal/FloatRingBuffer.hpp"
#include "signal/MonoSampleFifo.hpp"
#include "veltoaudio/PcmBuffer.hpp"

namespace velto {

// Peak and RMS of one block, linear.
struct BlockLevel {
    float rms = 0.0f;
    float peak = 0.0f;
};

// One capture source's road to the bus: reads its ring, folds two channels to
// one, resamples to the mixing rate and lines the result up with the mixer's
// blocks, so that block() holds exactly the frames a tick asked for.
//
// Frame accounting is exact over any length of recording: after k mixing
// frames the source has given exactly floor(k × its rate ÷ mixing rate)
// frames. A resampled source is primed once with silence so that every block
// is full (a short resampler call never inserts silence mid-stream); every
// source is primed by the same amount so that they stay aligned.
//
// Threads: configure(), prepare() and release() run while no tick runs; every
// other call runs where the mixer's ticks run, one at a time.
class SourcePath {
public:
    // `label` names the source in log lines ("system audio", "microphone").
    SourcePath(std::string label, std::string conversionFailureMessage, AudioMixerError (*inputFormatFailure)(),
               int64_t bufferFrameCapacity);
    SourcePath(const SourcePath&) = delete;
    SourcePath& operator=(const SourcePath&) = delete;

    // Takes the source for a run at `mixingSampleRateHertz`; creates its resampler
    // when the rates differ. Throws AudioMixerError or AudioConverterError.
    void configure(const std::shared_ptr<FloatRingBuffer>& ring, double sampleRateHertz,
                   double mixingSampleRateHertz);
    // The silence this source's resampler needs in front (0 without one).
    int64_t primingFramesNeeded() const;
    // Resets the accounting and primes with `primingFrames` of silence. Allocates.
    void prepare(int64_t primingFrames);
    void release();

    std::shared_ptr<FloatRingBuffer> ring() const { return ring_.lock(); }
    bool isPresent() const { return !ring_.expired(); }
    double sampleRateHertz() const { return sampleRateHertz_; }

    // The most mixing frames this source can give now without reading into
    // `reserveFrames` of its ring's `availableFrames`; negative when the ring
    // holds less than the reserve.
    int64_t mixingFramesWithin(int64_t availableFrames, int64_t reserveFrames) const;

    // Fills block() with `frames` mixing-rate frames. Returns false when the ring
    // held too few: the block is silence and the source's timeline waits, so
    // nothing of it is skipped. While draining, reads only up to the drain's end
    // and pads what is missing with silence.
    bool process(FloatRingBuffer& ring, int64_t frames, bool draining = false);
    // Reads and drops everything the ring holds and starts a fresh timeline;
    // what the resampler and alignment already hold stays in line.
    void discardCaptured(FloatRingBuffer& ring);

    // The end of a recording: the drain takes what the ring holds now and nothing
    // that arrives later.
    void markDrainEnd(const FloatRingBuffer& ring);
    int64_t mixingFramesLeftToDrain() const;
    // Adds the resampler's held-back tail to the alignment queue.
    void flushResampler();
    int64_t alignedFramesLeft() const;
    // Fills block() from the alignment queue, zero-padded.
    void popAligned(int64_t frames);

    float* block() { return blockBuffer_.get(); }
    const float* block() const { return blockBuffer_.get(); }
    // Of the last block process() or popAligned() produced.
    BlockLevel lastBlockLevel() const { return lastBlockLevel_; }
    // Silence inserted because the resampler came up short after its priming;
    // stays 0 unless the resampler breaks its own hold-back bound.
    int64_t paddedSilenceFrames() const { return paddedSilenceFrames_; }

private:
    void convertBlock(int64_t needFrames, int64_t frames);
    void measure(int64_t frames);

    const std::string label_;
    const std::string conversionFailureMessage_;
    AudioMixerError (*const inputFormatFailure_)();
    const int64_t bufferFrameCapacity_;

    std::weak_ptr<FloatRingBuffer> ring_;
    double sampleRateHertz_ = 48000.0;
    double mixingSampleRateHertz_ = 48000.0;
    std::shared_ptr<AudioConverter> converter_;
    std::shared_ptr<PcmBuffer> conversionInput_;  // up to a block at the source rate, allocated at prepare
    MonoSampleFifo aligned_;                      // mixing-rate samples waiting to be mixed
    bool usesAlignment_ = false;
    int64_t mixingFramesAccounted_ = 0;  // mixing frames this source has been read for
    int64_t sourceFramesConsumed_ = 0;   // = floor(mixingFramesAccounted_ × rate ÷ mixing rate)
    int64_t drainEndSourceFrames_ = 0;   // where the final drain stops reading
    int64_t paddedSilenceFrames_ = 0;
    BlockLevel lastBlockLevel_;
    std::unique_ptr<float[]> blockBuffer_;  // mono, mixing rate
    std::unique_ptr<float[]> tempBuffer_;   // mono, source rate
    std::unique_ptr<float[]> leftBuffer_;
    std::unique_ptr<float[]> rightBuffer_;
};

}  // namespace velto
