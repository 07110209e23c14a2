#include "signal/EchoCanceller.hpp"

#include <speex/speex_echo.h>

#include <algorithm>
#include <cmath>

namespace velto {

namespace {
// Frames quieter than this (about -60 dBFS RMS) say nothing about the echo.
constexpr double kActiveFrameEnergy = 1e-6 * EchoCanceller::kFrameFrames;
// The filter is trusted once the microphone carries 6 dB more than what the filter
// leaves of it, over the last ~0.2 s of frames with system audio. Uncorrelated
// signals cannot get there; a real echo does within about a second.
constexpr double kEngageRatio = 4.0;
constexpr double kEngageFollow = 0.08;
constexpr double kDcBlockerPole = 0.99;

// Rounded to nearest inline: lround's library call per sample stood out in the frame's own work.
spx_int16_t toPcm16(float sample) noexcept {
    const float scaled = std::clamp(sample * 32767.0f, -32768.0f, 32767.0f);
    return static_cast<spx_int16_t>(scaled + (scaled < 0 ? -0.5f : 0.5f));
}
}  // namespace

std::unique_ptr<EchoCanceller> EchoCanceller::create(int64_t maximumBlockFrames) {
    return std::unique_ptr<EchoCanceller>(new EchoCanceller(std::max<int64_t>(maximumBlockFrames, 1)));
}

EchoCanceller::EchoCanceller(int64_t maximumBlockFrames)
    : maximumBlockFrames_(maximumBlockFrames),
      speex_(speex_echo_state_init(static_cast<int>(kFrameFrames), static_cast<int>(kFilterFrames))),
      estimator_(kMaximumDelayFrames),
      microphoneIn_(kFrameFrames + maximumBlockFrames),
      systemIn_(kFrameFrames + maximumBlockFrames),
      microphoneOut_(2 * kFrameFrames + maximumBlockFrames),
      systemOut_(2 * kFrameFrames + maximumBlockFrames),
      systemHistory_(static_cast<size_t>(kMaximumDelayFrames + kFrameFrames), 0.0f) {
    int rate = static_cast<int>(kSampleRateHertz);
    speex_echo_ctl(speex_, SPEEX_ECHO_SET_SAMPLING_RATE, &rate);
    microphoneOut_.pushSilence(kFrameFrames);
    systemOut_.pushSilence(kFrameFrames);
}

EchoCanceller::~EchoCanceller() { speex_echo_state_destroy(speex_); }

void EchoCanceller::process(float* microphone, float* system, int64_t frames) noexcept {
    for (int64_t done = 0; done < frames;) {
        // Blocks larger than promised are taken in promised-size pieces rather than overflowing.
        const int64_t piece = std::min(frames - done, maximumBlockFrames_);
        microphoneIn_.push(microphone + done, piece);
        systemIn_.push(system + done, piece);
        while (microphoneIn_.availableFrames() >= kFrameFrames) processFrame();
        microphoneOut_.pop(microphone + done, piece);
        systemOut_.pop(system + done, piece);
        done += piece;
    }
}

void EchoCanceller::processFrame() noexcept {
    float microphone[kFrameFrames];
    float system[kFrameFrames];
    microphoneIn_.pop(microphone, kFrameFrames);
    systemIn_.pop(system, kFrameFrames);

    estimator_.process(system, microphone, kFrameFrames);
    const auto historySize = static_cast<int64_t>(systemHistory_.size());
    for (int64_t i = 0; i < kFrameFrames; ++i) {
        systemHistory_[static_cast<size_t>(historyWriteIndex_)] = system[i];
        if (++historyWriteIndex_ == historySize) historyWriteIndex_ = 0;
    }
    const int64_t delayFrames = estimator_.delayFrames();
    if (delayFrames >= 0 && needsRealigning(delayFrames)) {
        // What the filter learnt belongs to the old alignment (a reset keeps
        // speex's power estimates, which is why the filter runs before the first estimate).
        speex_echo_state_reset(speex_);
        alignmentShiftFrames_ = std::max<int64_t>(0, delayFrames - kAlignmentMarginFrames);
        aligned_ = true;
    }

    const float* output = microphone;
    float cancelled[kFrameFrames];
    {
        spx_int16_t reference[kFrameFrames], recorded[kFrameFrames], result[kFrameFrames];
        // The newest frame sits at the history's last kFrameFrames; the aligned one lies shift earlier.
        int64_t readIndex = (historyWriteIndex_ - kFrameFrames - alignmentShiftFrames_ + 2 * historySize) % historySize;
        for (int64_t i = 0; i < kFrameFrames; ++i) {
            reference[i] = toPcm16(systemHistory_[static_cast<size_t>(readIndex)]);
            if (++readIndex == historySize) readIndex = 0;
            recorded[i] = toPcm16(microphone[i]);
        }
        speex_echo_cancellation(speex_, recorded, reference, result);
        for (int64_t i = 0; i < kFrameFrames; ++i) cancelled[i] = static_cast<float>(result[i]) / 32767.0f;
        if (!engaged_) engage(system, microphone, cancelled);
        if (engaged_) {
            output = cancelled;
            reportedDelayFrames_.store(delayFrames, std::memory_order_relaxed);
        }
    }

    processedFrames_ += kFrameFrames;
    if (firstEchoFrame_ < 0 && delayFrames >= 0) firstEchoFrame_ = processedFrames_;
    if (firstEchoFrame_ >= 0 && processedFrames_ > firstEchoFrame_ + kConvergenceFrames) {
        double systemEnergy = 0, inEnergy = 0, outEnergy = 0;
        for (int64_t i = 0; i < kFrameFrames; ++i) {
            systemEnergy += static_cast<double>(system[i]) * system[i];
            inEnergy += static_cast<double>(microphone[i]) * microphone[i];
            outEnergy += static_cast<double>(output[i]) * output[i];
        }
        if (systemEnergy > kActiveFrameEnergy) {
            microphoneEnergy_ += inEnergy;
            outputEnergy_ += outEnergy;
            if (microphoneEnergy_ > 0 && outputEnergy_ > 0)
                reportedSuppressionDb_.store(10.0 * std::log10(microphoneEnergy_ / outputEnergy_), std::memory_order_relaxed);
        }
    }
    microphoneOut_.push(output, kFrameFrames);
    systemOut_.push(system, kFrameFrames);
}

// The estimate of a long echo's delay may swing between neighbouring envelope lags;
// a reset for each swing would throw away what the filter has learnt, every time. A
// filter already placed keeps its place while the echo's start stays inside its first
// quarter, half the margin in at least (the echo rises a little before its estimated
// start): the room's response after it then still fits.
bool EchoCanceller::needsRealigning(int64_t delayFrames) const noexcept {
    if (!aligned_) return true;
    const int64_t intoFilterFrames = delayFrames - alignmentShiftFrames_;
    return intoFilterFrames < kAlignmentMarginFrames / 2 || intoFilterFrames > kFilterFrames / 4;
}

void EchoCanceller::engage(const float* system, const float* microphone, float* cancelled) noexcept {
    double systemEnergy = 0, inEnergy = 0, outEnergy = 0;
    for (int64_t i = 0; i < kFrameFrames; ++i) {
        systemEnergy += static_cast<double>(system[i]) * system[i];
        // The filter takes the microphone's DC away by itself: compared with the DC
        // left in, an offset would pass for a removed echo.
        const double withoutDc = microphone[i] - dcBlockerInput_ + kDcBlockerPole * dcBlockerOutput_;
        dcBlockerInput_ = microphone[i];
        dcBlockerOutput_ = withoutDc;
        inEnergy += withoutDc * withoutDc;
        outEnergy += static_cast<double>(cancelled[i]) * cancelled[i];
    }
    // Only an echo the delay estimate has seen counts.
    if (systemEnergy <= kActiveFrameEnergy || estimator_.delayFrames() < 0) return;
    recentMicrophoneEnergy_ += kEngageFollow * (inEnergy - recentMicrophoneEnergy_);
    recentFilteredEnergy_ += kEngageFollow * (outEnergy - recentFilteredEnergy_);
    if (recentMicrophoneEnergy_ <= kActiveFrameEnergy * 1e-2 || recentMicrophoneEnergy_ < kEngageRatio * recentFilteredEnergy_) return;
    engaged_ = true;
    // A one-frame fade (16 ms) from the microphone to the filtered signal, so the switch makes no click.
    for (int64_t i = 0; i < kFrameFrames; ++i) {
        const float weight = static_cast<float>(i + 1) / static_cast<float>(kFrameFrames);
        cancelled[i] = weight * cancelled[i] + (1.0f - weight) * microphone[i];
    }
}

int64_t EchoCanceller::drain(float* microphone, float* system, int64_t maxFrames) noexcept {
    if (drainRemainingFrames_ < 0) {
        drainRemainingFrames_ = microphoneOut_.availableFrames() + microphoneIn_.availableFrames();
        if (microphoneIn_.availableFrames() > 0) {
            // The last partial frame is completed with silence; only its real part is given back.
            const int64_t missing = kFrameFrames - microphoneIn_.availableFrames();
            microphoneIn_.pushSilence(missing);
            systemIn_.pushSilence(missing);
            processFrame();
        }
    }
    const int64_t frames = std::min(std::max<int64_t>(maxFrames, 0), drainRemainingFrames_);
    microphoneOut_.pop(microphone, frames);
    systemOut_.pop(system, frames);
    drainRemainingFrames_ -= frames;
    return frames;
}

EchoCanceller::Report EchoCanceller::report() const {
    Report report;
    const int64_t delayFrames = reportedDelayFrames_.load(std::memory_order_relaxed);
    report.echoDelayMs = delayFrames < 0 ? -1 : delayFrames * 1000 / kSampleRateHertz;
    report.suppressionDb = reportedSuppressionDb_.load(std::memory_order_relaxed);
    return report;
}

}  // namespace velto
