#include "signal/EchoDelayEstimator.hpp"

#include <algorithm>
#include <cmath>

namespace velto {

namespace {
// Correlation memory of about 4 s: long enough to ride over pauses in speech,
// short enough to follow a device change.
constexpr double kForget = 1.0 - 1.0 / 2000.0;
// The envelopes' slow mean is removed so that loudness, not its level, correlates.
constexpr double kMeanFollow = 1.0 / 50.0;
// Below this correlation the microphone is taken to hear no loudspeaker (headphones).
constexpr double kMinimumConfidence = 0.35;
// A new delay must win this many decisions in a row (one per 10 ms) before it is
// reported, so that one lucky peak does not make the echo filter start over.
constexpr int64_t kVotesToSwitch = 50;
// Steps up to this many envelope blocks (16 ms) from the delay reported keep it.
constexpr int64_t kStickyBlocks = 8;
// The first delay is taken sooner: until then the filter covers only short echoes.
constexpr int64_t kVotesToLock = 10;
// Half a second of envelopes before any decision.
constexpr int64_t kWarmUpEnvelopes = 250;
}  // namespace

EchoDelayEstimator::EchoDelayEstimator(int64_t maximumDelayFrames)
    : lagCount_(std::max<int64_t>(1, maximumDelayFrames / kEnvelopeBlockFrames + 1)),
      systemHistory_(static_cast<size_t>(lagCount_), 0.0f),
      crossSum_(static_cast<size_t>(lagCount_), 0.0),
      systemEnergySum_(static_cast<size_t>(lagCount_), 0.0) {}

void EchoDelayEstimator::process(const float* system, const float* microphone, int64_t frames) noexcept {
    for (int64_t i = 0; i < frames; ++i) {
        systemAccumulator_ += std::fabs(system[i]);
        microphoneAccumulator_ += std::fabs(microphone[i]);
        if (++accumulatedFrames_ == kEnvelopeBlockFrames) {
            processEnvelopePair(static_cast<float>(systemAccumulator_ / kEnvelopeBlockFrames),
                                static_cast<float>(microphoneAccumulator_ / kEnvelopeBlockFrames));
            systemAccumulator_ = microphoneAccumulator_ = 0;
            accumulatedFrames_ = 0;
            if (envelopesSeen_ % 5 == 0) decide();
        }
    }
}

void EchoDelayEstimator::restart(int64_t delayFrames) noexcept {
    std::fill(crossSum_.begin(), crossSum_.end(), 0.0);
    std::fill(systemEnergySum_.begin(), systemEnergySum_.end(), 0.0);
    microphoneEnergySum_ = 0;
    envelopesSeen_ = 0;
    delayFrames_ = delayFrames;
    confidence_ = 0;
    candidateLag_ = -1;
    candidateVotes_ = 0;
}

void EchoDelayEstimator::processEnvelopePair(float system, float microphone) noexcept {
    systemMean_ += kMeanFollow * (system - systemMean_);
    microphoneMean_ += kMeanFollow * (microphone - microphoneMean_);
    historyIndex_ = (historyIndex_ + 1) % lagCount_;
    systemHistory_[static_cast<size_t>(historyIndex_)] = static_cast<float>(system - systemMean_);
    const double y = microphone - microphoneMean_;
    microphoneEnergySum_ = kForget * microphoneEnergySum_ + y * y;
    int64_t index = historyIndex_;
    for (int64_t lag = 0; lag < lagCount_; ++lag) {
        const double x = systemHistory_[static_cast<size_t>(index)];
        crossSum_[static_cast<size_t>(lag)] = kForget * crossSum_[static_cast<size_t>(lag)] + x * y;
        systemEnergySum_[static_cast<size_t>(lag)] = kForget * systemEnergySum_[static_cast<size_t>(lag)] + x * x;
        index = index == 0 ? lagCount_ - 1 : index - 1;
    }
    ++envelopesSeen_;
}

void EchoDelayEstimator::decide() noexcept {
    if (envelopesSeen_ < kWarmUpEnvelopes) return;
    // The best normalised correlation cross / sqrt(energy), compared squared: no root or
    // division per lag, only for the winner.
    int64_t bestLag = -1;
    double bestCross = 0, bestEnergy = 1;
    for (int64_t lag = 0; lag < lagCount_; ++lag) {
        const double energy = systemEnergySum_[static_cast<size_t>(lag)] * microphoneEnergySum_;
        const double cross = crossSum_[static_cast<size_t>(lag)];
        if (energy <= 1e-30 || cross <= 0) continue;
        if (cross * cross * bestEnergy > bestCross * bestCross * energy) {
            bestCross = cross;
            bestEnergy = energy;
            bestLag = lag;
        }
    }
    const double best = bestLag < 0 ? 0 : bestCross / std::sqrt(bestEnergy);
    if (bestLag < 0 || best < kMinimumConfidence) {
        candidateVotes_ = 0;
        if (delayFrames_ < 0) confidence_ = best;
        return;
    }
    const int64_t bestFrames = bestLag * kEnvelopeBlockFrames;
    if (bestFrames == delayFrames_) {
        confidence_ = best;
        candidateVotes_ = 0;
        return;
    }
    // A speech envelope's correlation peak is some 10 ms wide, and its top wanders
    // across it; the echo filter covers that much either side of the delay, so a step
    // within it is not worth a restart.
    if (delayFrames_ >= 0 && std::abs(bestFrames - delayFrames_) <= kStickyBlocks * kEnvelopeBlockFrames) {
        confidence_ = best;
        return;
    }
    if (candidateLag_ >= 0 && std::abs(bestLag - candidateLag_) <= 1) {
        if (++candidateVotes_ >= (delayFrames_ < 0 ? kVotesToLock : kVotesToSwitch)) {
            delayFrames_ = bestFrames;
            confidence_ = best;
            candidateVotes_ = 0;
        }
    } else {
        candidateLag_ = bestLag;
        candidateVotes_ = 1;
    }
}

}  // namespace velto
