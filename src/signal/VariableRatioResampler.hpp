#pragma once

#include <cstdint>
#include <memory>

namespace velto {

// Resamples a mono stream by a ratio close to 1 that may change with every
// block: the fine stage that keeps a capture source in step with the mixer's
// clock, after the fixed-rate converter has brought it to the mixing rate.
//
// A 16-tap windowed-sinc interpolator whose kernel is read from a table of 256
// fractional delays, linearly interpolated between them. At a step of exactly
// one input frame per output frame and no fractional position it passes the
// input through unchanged, delayed by kDelayFrames; any other step moves the
// position smoothly, one output frame at a time, so a change of ratio never
// makes a step or a click.
//
// `step` is input frames per output frame (1 + the correction); every length is
// a number of mono frames. Allocates only at construction. One thread at a time.
class VariableRatioResampler {
public:
    static constexpr int kTaps = 16;
    static constexpr int kPhases = 256;
    // Output frame n is the input around frame n + kDelayFrames.
    static constexpr int64_t kDelayFrames = kTaps / 2 - 1;
    // Steps outside 1 ± this are clamped: far beyond any clock's error.
    static constexpr double kLargestCorrection = 0.01;

    // Holds what `maximumOutputFrames` output frames can need at the largest step.
    explicit VariableRatioResampler(int64_t maximumOutputFrames);
    ~VariableRatioResampler() = default;
    VariableRatioResampler(const VariableRatioResampler&) = delete;
    VariableRatioResampler& operator=(const VariableRatioResampler&) = delete;
    VariableRatioResampler(VariableRatioResampler&&) = delete;
    VariableRatioResampler& operator=(VariableRatioResampler&&) = delete;

    // Input frames still to be pushed before process() can make `outputFrames`.
    int64_t inputFramesNeeded(int64_t outputFrames, double step) const;
    // Output frames that what is buffered, and `moreInputFrames` pushed after it, can make.
    int64_t outputFramesAfterPushing(int64_t moreInputFrames, double step) const;
    // Output frames whose making takes in all of `moreInputFrames` pushed after
    // what is buffered (0 for none).
    int64_t outputFramesToTakeIn(int64_t moreInputFrames, double step) const;
    // Output frames until the last of what is buffered, and `moreInputFrames`
    // after it, has come out (the stage holds kDelayFrames and more behind).
    int64_t outputFramesToEmpty(int64_t moreInputFrames, double step) const;
    int64_t bufferedFrames() const { return bufferedFrames_; }
    // The most input frames push() takes at once.
    int64_t inputCapacityFrames() const { return capacityFrames_ - bufferedFrames_; }

    // Appends up to `frames` input frames; returns how many fitted.
    int64_t push(const float* input, int64_t frames);
    // Appends up to `frames` frames of silence after the end of the input (to
    // bring out what the stage holds back), which outputFramesToEmpty() does not count.
    int64_t pushSilence(int64_t frames);
    // Makes exactly `outputFrames` frames; where the buffered input runs out
    // (only if fewer than inputFramesNeeded() were pushed) the rest is silence.
    // Returns the output frames made from input.
    int64_t process(float* output, int64_t outputFrames, double step);
    // Forgets the input and the position.
    void reset();

private:
    static double clampStep(double step);

    const int64_t capacityFrames_;
    std::unique_ptr<float[]> input_;
    std::unique_ptr<float[]> kernels_;  // (kPhases + 1) × kTaps, phase-major
    int64_t bufferedFrames_ = 0;
    int64_t silentTailFrames_ = 0;  // of bufferedFrames_, the silence pushed after the input
    double position_ = 0.0;  // of the next output frame, in input frames from input_[0]
};

}  // namespace velto
