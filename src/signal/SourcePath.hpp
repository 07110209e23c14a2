#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "signal/AudioConverter.hpp"
#include "signal/AudioMixerError.hpp"
#include "signal/DriftController.hpp"
#include "signal/FloatRingBuffer.hpp"
#include "signal/MonoSampleFifo.hpp"
#include "signal/VariableRatioResampler.hpp"
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
// A steered source then goes through a fine resampler whose ratio a drift
// controller sets every tick, so that the source's own clock, however far it is
// from the mixer's, neither fills nor empties its ring: the source stays in step
// with the mixing clock and with the other source. Unsteered, the path's frame
// accounting is exact over any length of recording: after k mixing frames the
// source has given exactly floor(k × its rate ÷ mixing rate) frames. A resampled source is primed once with silence so that every block
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
    ~SourcePath() = default;
    SourcePath(const SourcePath&) = delete;
    SourcePath& operator=(const SourcePath&) = delete;
    SourcePath(SourcePath&&) = delete;
    SourcePath& operator=(SourcePath&&) = delete;

    // Takes the source for a run at `mixingSampleRateHertz`; creates its resampler
    // when the rates differ. Throws AudioMixerError or AudioConverterError.
    void configure(const std::shared_ptr<FloatRingBuffer>& ring, double sampleRateHertz,
                   double mixingSampleRateHertz);
    // Steers this run's source onto the mixing clock (before prepare()), starting
    // from `carriedSkew`, an earlier run's estimate for the same device.
    void steer(std::optional<double> carriedSkew);
    bool isSteered() const { return drift_ != nullptr; }
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

    // After a tick: lets the drift controller see the ring and set the next
    // blocks' ratio. Until `holdFromNow` first comes true (the mixer has caught
    // up with its clock) the fill is still settling and is not held.
    void followClock(double nowSeconds, const FloatRingBuffer& ring, bool holdFromNow);
    // Reads this steered source at `leader`'s ratio rather than its own, for two sources
    // on one clock that must not move against each other (the echo canceller's); its
    // controller keeps watching. nullptr: steered on its own again, from where it is.
    // `leader` is followed after its own followClock(), so it must be called first.
    void followRatioOf(const SourcePath* leader);
    bool isFollowing() const { return leader_ != nullptr; }
    const DriftController* driftController() const { return drift_.get(); }
    // The source's estimated skew against the mixing clock; none unsteered.
    std::optional<double> estimatedSkew() const;
    bool skewOutOfRange() const { return drift_ && drift_->skewOutOfRange(); }

    // The end of a recording: the drain takes what the ring holds now and nothing
    // that arrives later.
    void markDrainEnd(const FloatRingBuffer& ring);
    int64_t mixingFramesLeftToDrain() const;
    // Adds the resampler's held-back tail to the alignment queue.
    void flushResampler();
    // Mixing frames until what the resamplers and the alignment hold has come out.
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
    // Fills `destination` with `frames` frames at the mixing rate from the ring
    // (before the fine resampler); false, leaving it untouched, on a shortfall.
    bool readConverted(FloatRingBuffer& ring, int64_t frames, bool draining, float* destination);
    void convertBlock(int64_t needFrames, int64_t frames, float* destination);
    // Mixing frames (after the fine resampler) that `nominalFrames` before it make.
    int64_t steeredFrames(int64_t nominalFrames) const;
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
    // Steering (the controller only for a steered run).
    std::unique_ptr<DriftController> drift_;
    VariableRatioResampler fine_;
    std::unique_ptr<float[]> nominalBuffer_;  // mono, mixing rate, before the fine resampler
    double step_ = 1.0;                       // fine resampler input frames per output frame
    const SourcePath* leader_ = nullptr;      // whose ratio this source follows, if any
    bool holdingFill_ = false;
};

}  // namespace velto
