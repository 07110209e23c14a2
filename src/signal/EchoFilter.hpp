#pragma once

#include <cstdint>
#include <vector>

#include "signal/RealFft.hpp"

namespace velto {

// A linear adaptive filter that learns how the reference (what the loudspeakers play)
// reaches the microphone, and takes that echo away: a multidelay frequency-domain
// filter (the filter split into block-long partitions, each adapted in the frequency
// domain, one or two of them constrained to their block per step). Two measures keep
// it from learning the near end:
//   - its step, per frequency, is the share of what it leaves that is still echo; that
//     share is estimated from how the residual's power follows the echo estimate's (the
//     near end does not follow the far end), so double talk slows it down by itself;
//   - two filters: the one that is heard (foreground) takes the adapting one's weights
//     only when they plainly leave less, and the adapting one is put back to the heard
//     one when it plainly leaves more (it was misled).
// Both signals lose their DC first (a one-pole blocker at 0.99), as an echo path
// carries none, and are pre-emphasised (speech's low frequencies would otherwise
// outweigh the rest in the block sums that steer the filter); the output is
// de-emphasised again.
//
// Works on blocks of blockFrames; the filter covers filterFrames (a multiple of
// blockFrames) of echo after the reference's newest sample. process() never allocates.
class EchoFilter {
public:
    EchoFilter(int64_t blockFrames, int64_t filterFrames, double sampleRateHertz);

    // Forgets everything learnt.
    void reset() noexcept;
    // One block: cancelled = microphone (without its DC) less the echo of the reference.
    void process(const float* reference, const float* microphone, float* cancelled) noexcept;

private:
    void accumulateEcho(const std::vector<float>& weights) noexcept;
    void adapt(const float* error, const float* echo, double sumReference, double sumError, double sumEcho) noexcept;
    void adjustPartitionShares() noexcept;
    void constrainPartition(int64_t partition) noexcept;
    float* partition(std::vector<float>& spectra, int64_t index) noexcept;
    const float* referenceSpectrum(int64_t blocksBack) const noexcept;

    const int64_t blockFrames_;
    const int64_t windowFrames_;  // two blocks: the FFT's size
    const int64_t bins_;
    const int64_t partitions_;
    const double spectrumFollow_;  // per block, for the residual's and echo estimate's power
    const double leakFollow_, leakFollowLimit_;
    RealFft fft_;
    std::vector<float> referenceWindow_;    // the last two blocks of reference
    std::vector<float> referenceSpectra_;   // one per partition, a ring; newest at referenceNewest_
    int64_t referenceNewest_ = 0;
    std::vector<float> adapting_;           // background weights, per partition
    std::vector<float> heard_;              // foreground weights
    std::vector<float> errorSpectrum_;      // the newest block's
    std::vector<float> referencePower_;     // smoothed, per bin
    std::vector<float> errorPowerAverage_;  // per bin, for the leak estimate
    std::vector<float> echoPowerAverage_;
    std::vector<float> stepPerBin_;
    std::vector<double> partitionShare_;
    std::vector<float> heardOutput_, adaptingOutput_, heardEcho_, adaptingEcho_, microphoneWithoutDc_;
    double leakCovariance_ = 0, echoVariance_ = 0;
    double sumAdaptation_ = 0;
    bool adapted_ = false;
    double differenceFast_ = 0, differenceSlow_ = 0, varianceFast_ = 0, varianceSlow_ = 0;
    int64_t constraintTurn_ = 0;
    // Each input's DC blocker and pre-emphasis state.
    struct InputConditioner {
        double dcInput = 0, dcOutput = 0;
        float previous = 0;
        void condition(const float* in, float* out, int64_t frames) noexcept;
    };
    InputConditioner referenceInput_, microphoneInput_;
    float previousOutput_ = 0;  // the de-emphasis's
};

}  // namespace velto
