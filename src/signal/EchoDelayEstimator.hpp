#pragma once

#include <cstdint>
#include <vector>

namespace velto {

// Estimates how far the loudspeaker echo in the microphone lags the system
// audio, by correlating the two signals' short-term envelopes. Envelopes are
// blind to the room's colouring and cheap (one value per 2 ms), so the search
// covers half a second for a few thousand multiply-adds per 10 ms. The result
// lets an echo filter of modest length sit on the echo instead of spending
// most of its taps (and its convergence time) on the empty delay before it.
// Allocates at construction only. Not thread-safe: one owner thread.
class EchoDelayEstimator {
public:
    static constexpr int64_t kEnvelopeBlockFrames = 32;  // 2 ms at 16 kHz

    explicit EchoDelayEstimator(int64_t maximumDelayFrames);

    // Feeds equal lengths of the system audio and of the microphone, sample-aligned.
    void process(const float* system, const float* microphone, int64_t frames) noexcept;

    // The echo delay in frames, or -1 while no echo has shown itself clearly.
    int64_t delayFrames() const { return delayFrames_; }
    // Normalised correlation of the envelopes at that delay (0..1).
    double confidence() const { return confidence_; }

    // Forgets the correlation gathered so far, so that an echo that has moved is found
    // again from fresh evidence alone, in about the warm-up time. Reports delayFrames
    // (-1: none) until that evidence says otherwise. Never allocates.
    void restart(int64_t delayFrames) noexcept;

private:
    void processEnvelopePair(float system, float microphone) noexcept;
    void decide() noexcept;

    int64_t lagCount_;
    std::vector<float> systemHistory_;  // high-passed system envelopes, a ring of lagCount_
    int64_t historyIndex_ = 0;
    std::vector<double> crossSum_;
    std::vector<double> systemEnergySum_;
    double microphoneEnergySum_ = 0;
    double systemMean_ = 0;
    double microphoneMean_ = 0;
    double systemAccumulator_ = 0;
    double microphoneAccumulator_ = 0;
    int64_t accumulatedFrames_ = 0;
    int64_t envelopesSeen_ = 0;
    int64_t delayFrames_ = -1;
    double confidence_ = 0;
    int64_t candidateLag_ = -1;
    int64_t candidateVotes_ = 0;
};

}  // namespace velto
