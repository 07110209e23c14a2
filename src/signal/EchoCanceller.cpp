#include "signal/EchoCanceller.hpp"

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
// An engaged filter removing less than 3 dB for this long has lost the echo, or the
// near end is talking over it: the residual is searched for the echo to tell which.
constexpr double kPoorRemovalRatio = 2.0;
constexpr int64_t kPoorRemovalFrames = 16 * EchoCanceller::kFrameFrames;
// A search gives up after this much system audio (the near end was talking), and
// the next one waits for this much more.
constexpr int64_t kSearchFrames = 3 * EchoCanceller::kSampleRateHertz / 2;
constexpr int64_t kSearchRestFrames = 2 * EchoCanceller::kSampleRateHertz;
// A trial filter is judged on the last quarter second of its replay.
constexpr int64_t kReplayTailFrames = 16 * EchoCanceller::kFrameFrames;
constexpr double kDcBlockerPole = 0.99;
// A reference quieter than this (about -80 dBFS RMS, a few steps of 16 bits) leaves
// no echo worth a filter.
constexpr double kSilentFrameEnergy = 1e-8 * EchoCanceller::kFrameFrames;

// One frame's fade from `from` to `to` into out (which may be either), so a switch makes no click.
void crossfade(const float* from, const float* to, float* out) noexcept {
    for (int64_t i = 0; i < EchoCanceller::kFrameFrames; ++i) {
        const float weight = static_cast<float>(i + 1) / static_cast<float>(EchoCanceller::kFrameFrames);
        out[i] = weight * to[i] + (1.0f - weight) * from[i];
    }
}

// A frame's sum of squares. (vec::measure with this constant count sets off a
// false -Waggressive-loop-optimizations in g++ 12.)
double frameEnergy(const float* frame) noexcept {
    double energy = 0;
    for (int64_t i = 0; i < EchoCanceller::kFrameFrames; ++i) energy += static_cast<double>(frame[i]) * frame[i];
    return energy;
}

// The filter starts kAlignmentMarginFrames before the echo, or at the newest history.
int64_t alignmentShiftFor(int64_t delayFrames) noexcept {
    return std::max<int64_t>(0, delayFrames - EchoCanceller::kAlignmentMarginFrames);
}

}  // namespace

std::unique_ptr<EchoCanceller> EchoCanceller::create(int64_t maximumBlockFrames) {
    return std::unique_ptr<EchoCanceller>(new EchoCanceller(std::max<int64_t>(maximumBlockFrames, 1)));
}

EchoCanceller::EchoCanceller(int64_t maximumBlockFrames)
    : maximumBlockFrames_(maximumBlockFrames),
      filter_(std::make_unique<EchoFilter>(kFrameFrames, kFilterFrames, static_cast<double>(kSampleRateHertz))),
      trialFilter_(std::make_unique<EchoFilter>(kFrameFrames, kFilterFrames, static_cast<double>(kSampleRateHertz))),
      estimator_(kMaximumDelayFrames),
      residualEstimator_(kMaximumDelayFrames),
      microphoneIn_(kBatchFrames + maximumBlockFrames),
      systemIn_(kBatchFrames + maximumBlockFrames),
      microphoneOut_(2 * kBatchFrames + maximumBlockFrames),
      systemOut_(2 * kBatchFrames + maximumBlockFrames),
      systemHistory_(static_cast<size_t>(kMaximumDelayFrames + kReplayFrames + kFrameFrames), 0.0f),
      microphoneHistory_(systemHistory_.size(), 0.0f) {
    microphoneOut_.pushSilence(kBatchFrames);
    systemOut_.pushSilence(kBatchFrames);
}

EchoCanceller::~EchoCanceller() = default;

void EchoCanceller::process(float* microphone, float* system, int64_t frames) noexcept {
    for (int64_t done = 0; done < frames;) {
        // Blocks larger than promised are taken in promised-size pieces rather than overflowing.
        const int64_t piece = std::min(frames - done, maximumBlockFrames_);
        microphoneIn_.push(microphone + done, piece);
        systemIn_.push(system + done, piece);
        while (microphoneIn_.availableFrames() >= kBatchFrames)
            for (int64_t frame = 0; frame < kBatchFrames; frame += kFrameFrames) processFrame();
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
        microphoneHistory_[static_cast<size_t>(historyWriteIndex_)] = microphone[i];
        if (++historyWriteIndex_ == historySize) historyWriteIndex_ = 0;
    }
    const int64_t delayFrames = estimator_.delayFrames();
    if (delayFrames >= 0 && needsRealigning(delayFrames)) placeFilter(delayFrames);

    float reference[kFrameFrames];
    readHistory(systemHistory_, kFrameFrames + alignmentShiftFrames_, reference);

    const double systemEnergy = frameEnergy(system);
    const float* output = microphone;
    float cancelled[kFrameFrames];
    const bool filterRuns = filterShouldRun(reference);
    // A filtered microphone going back to the raw one takes one more frame of the
    // filter, to fade across: the filter takes the microphone's DC away, a step otherwise.
    const bool fadingOut = !filterRuns && engaged_ && lastOutputFiltered_;
    if (filterRuns || fadingOut) {
        filter_->process(reference, microphone, cancelled);
        reportedFilteredFrames_.fetch_add(kFrameFrames, std::memory_order_relaxed);
        const bool counted = measureRemoval(systemEnergy, microphone, cancelled);
        if (engaged_)
            watchForAMovedEcho(system, cancelled, counted);
        else if (counted)
            engaged_ = recentMicrophoneEnergy_ > kActiveFrameEnergy * 1e-2 && recentMicrophoneEnergy_ >= kEngageRatio * recentFilteredEnergy_;
    }
    if (engaged_ && (filterRuns || fadingOut)) {
        if (fadingOut)
            crossfade(cancelled, microphone, cancelled);
        else if (!lastOutputFiltered_)
            crossfade(microphone, cancelled, cancelled);
        output = cancelled;
        lastOutputFiltered_ = !fadingOut;
        reportedDelayFrames_.store(delayFrames, std::memory_order_relaxed);
    }

    processedFrames_ += kFrameFrames;
    reportedProcessedFrames_.store(processedFrames_, std::memory_order_relaxed);
    if (firstEchoFrame_ < 0 && delayFrames >= 0) firstEchoFrame_ = processedFrames_;
    if (firstEchoFrame_ >= 0 && processedFrames_ > firstEchoFrame_ + kConvergenceFrames) {
        if (systemEnergy > kActiveFrameEnergy) {
            microphoneEnergy_ += frameEnergy(microphone);
            outputEnergy_ += frameEnergy(output);
            if (microphoneEnergy_ > 0 && outputEnergy_ > 0)
                reportedSuppressionDb_.store(10.0 * std::log10(microphoneEnergy_ / outputEnergy_), std::memory_order_relaxed);
        }
    }
    microphoneOut_.push(output, kFrameFrames);
    systemOut_.push(system, kFrameFrames);
}

// The frame that starts framesBack before the newest sample's successor.
void EchoCanceller::readHistory(const std::vector<float>& history, int64_t framesBack, float* frame) const noexcept {
    const auto historySize = static_cast<int64_t>(history.size());
    int64_t readIndex = historyWriteIndex_ - framesBack;
    if (readIndex < 0) readIndex += historySize;
    for (int64_t i = 0; i < kFrameFrames; ++i) {
        frame[i] = history[static_cast<size_t>(readIndex)];
        if (++readIndex == historySize) readIndex = 0;
    }
}

void EchoCanceller::placeFilter(int64_t delayFrames) noexcept {
    if (engaged_) reportedEchoMoves_.fetch_add(1, std::memory_order_relaxed);
    alignmentShiftFrames_ = alignmentShiftFor(delayFrames);
    aligned_ = true;
    if (!engaged_) {
        restFrames_ = kRetryFrames;
        startProbing();
    }
    learnAfresh();
}

// What the filter learnt belongs to an old alignment or an old try: it starts over
// from the history, and is judged on its own output from now on.
void EchoCanceller::learnAfresh() noexcept {
    filter_->reset();
    watchAfresh();
    learnFromHistory(*filter_, alignmentShiftFrames_);
}

void EchoCanceller::watchAfresh() noexcept {
    recentMicrophoneEnergy_ = recentFilteredEnergy_ = 0;
    poorRemovalFrames_ = 0;
    searchedFrames_ = -1;
}

// A delay found in the residual is tried on a second filter over the recent past, and
// replaces the running one only if it plainly removes more: in loud double talk the
// residual can correlate at a wrong delay, and a filter placed there would remove nothing.
bool EchoCanceller::tryFilterAt(int64_t delayFrames) noexcept {
    const int64_t shiftFrames = alignmentShiftFor(delayFrames);
    trialFilter_->reset();
    const ReplayTail trial = learnFromHistory(*trialFilter_, shiftFrames);
    const bool removesTheEcho = trial.microphoneEnergy >= kEngageRatio * trial.filteredEnergy;
    const bool beatsTheRunningFilter = kEngageRatio * trial.filteredEnergy <= recentFilteredEnergy_;
    if (!removesTheEcho || !beatsTheRunningFilter) return false;
    std::swap(filter_, trialFilter_);
    alignmentShiftFrames_ = shiftFrames;
    reportedEchoMoves_.fetch_add(1, std::memory_order_relaxed);
    watchAfresh();
    return true;
}

// The echo has usually played for a second when the estimate finds it: the filter
// learns that second from the history (a burst of work once per placement) rather
// than converging only from now on. Its output is not used; the current frame's
// is the first that is.
EchoCanceller::ReplayTail EchoCanceller::learnFromHistory(EchoFilter& filter, int64_t shiftFrames) noexcept {
    const int64_t heardFrames = std::min(processedFrames_, kReplayFrames);
    const int64_t replayFrames = heardFrames / kFrameFrames * kFrameFrames;
    float reference[kFrameFrames], microphone[kFrameFrames], cancelled[kFrameFrames];
    ReplayTail tail;
    int64_t tailFrameCount = 0;
    for (int64_t back = replayFrames; back > 0; back -= kFrameFrames) {
        // The current frame is the history's newest; the replay ends just before it.
        readHistory(systemHistory_, kFrameFrames + back + shiftFrames, reference);
        readHistory(microphoneHistory_, kFrameFrames + back, microphone);
        filter.process(reference, microphone, cancelled);
        if (back > kReplayTailFrames) continue;
        tail.microphoneEnergy += frameEnergy(microphone);
        tail.filteredEnergy += frameEnergy(cancelled);
        ++tailFrameCount;
    }
    if (tailFrameCount > 0) {
        tail.microphoneEnergy /= static_cast<double>(tailFrameCount);
        tail.filteredEnergy /= static_cast<double>(tailFrameCount);
    }
    return tail;
}

bool EchoCanceller::filterShouldRun(const float* reference) noexcept {
    const double energy = frameEnergy(reference);
    silentReferenceFrames_ = energy > kSilentFrameEnergy ? 0 : silentReferenceFrames_ + kFrameFrames;
    // Silent over the filter's span and the frame before it (the filter's window holds one more),
    // the filter has no echo to take away and nothing stale to bring back later.
    const bool referenceHeard = silentReferenceFrames_ < kFilterFrames + 2 * kFrameFrames;
    if (engaged_) return referenceHeard;
    const bool active = energy > kActiveFrameEnergy;
    if (probing_) {
        if (active) probeActiveFrames_ += kFrameFrames;
        if (probeActiveFrames_ > kProbeFrames) {
            probing_ = false;
            restingActiveFrames_ = 0;
        }
    } else if (aligned_ && active) {
        restingActiveFrames_ += kFrameFrames;
        if (restingActiveFrames_ > restFrames_) {
            restFrames_ = std::min(2 * restFrames_, kLongestRestFrames);
            startProbing();
            learnAfresh();
        }
    }
    return probing_ && referenceHeard;
}

void EchoCanceller::startProbing() noexcept {
    probing_ = true;
    probeActiveFrames_ = 0;
}

// The estimate of a long echo's delay may swing between neighbouring envelope lags;
// a reset for each swing would throw away what the filter has learnt, every time. A
// filter already placed keeps its place while the echo's start stays inside its first
// quarter, half the margin in at least (the echo rises a little before its estimated
// start): the room's response after it then still fits.
bool EchoCanceller::needsRealigning(int64_t delayFrames) const noexcept {
    if (!aligned_) return true;
    const int64_t intoFilterFrames = delayFrames - alignmentShiftFrames_;
    // A filter already at the start of the history cannot move earlier: an echo
    // shorter than the margin is as covered as it can be.
    const bool tooEarly = intoFilterFrames < kAlignmentMarginFrames / 2 && alignmentShiftFrames_ > 0;
    return tooEarly || intoFilterFrames > kFilterFrames / 4;
}

// Follows how much the filter removes, over frames with system audio once the delay
// estimate has seen an echo; says whether this frame counted.
bool EchoCanceller::measureRemoval(double systemEnergy, const float* microphone, const float* cancelled) noexcept {
    double inEnergy = 0;
    for (int64_t i = 0; i < kFrameFrames; ++i) {
        // The filter takes the microphone's DC away by itself: compared with the DC
        // left in, an offset would pass for a removed echo.
        const double withoutDc = microphone[i] - dcBlockerInput_ + kDcBlockerPole * dcBlockerOutput_;
        dcBlockerInput_ = microphone[i];
        dcBlockerOutput_ = withoutDc;
        inEnergy += withoutDc * withoutDc;
    }
    if (systemEnergy <= kActiveFrameEnergy || estimator_.delayFrames() < 0) return false;
    recentMicrophoneEnergy_ += kEngageFollow * (inEnergy - recentMicrophoneEnergy_);
    recentFilteredEnergy_ += kEngageFollow * (frameEnergy(cancelled) - recentFilteredEnergy_);
    return true;
}

// An echo path can change under a running recording (a device's latency moves after
// an underrun): the filter then removes nothing until it is placed on the new delay.
void EchoCanceller::watchForAMovedEcho(const float* system, const float* cancelled, bool counted) noexcept {
    if (counted) {
        const bool poor = recentMicrophoneEnergy_ < kPoorRemovalRatio * recentFilteredEnergy_;
        poorRemovalFrames_ = poor ? poorRemovalFrames_ + kFrameFrames : 0;
        searchRestFrames_ = std::max<int64_t>(0, searchRestFrames_ - kFrameFrames);
    }
    if (searchedFrames_ < 0) {
        if (poorRemovalFrames_ < kPoorRemovalFrames || searchRestFrames_ > 0) return;
        residualEstimator_.restart(-1);
        searchedFrames_ = 0;
    }
    residualEstimator_.process(system, cancelled, kFrameFrames);
    if (counted) searchedFrames_ += kFrameFrames;
    const int64_t movedToFrames = residualEstimator_.delayFrames();
    if (movedToFrames >= 0 && needsRealigning(movedToFrames) && tryFilterAt(movedToFrames)) {
        // The estimate on the microphone starts afresh from the new delay, or it would
        // pull the filter back to the old one.
        estimator_.restart(movedToFrames);
    } else if (movedToFrames >= 0 || searchedFrames_ > kSearchFrames) {
        // An echo left where the filter already sits is the filter's to follow: the
        // near end talking over it disturbs the filter, and a filter placed anew on
        // a second of double talk would do worse. A delay whose trial failed, or
        // nothing found: the near end talks.
        searchedFrames_ = -1;
        searchRestFrames_ = kSearchRestFrames;
    }
}

int64_t EchoCanceller::drain(float* microphone, float* system, int64_t maxFrames) noexcept {
    if (drainRemainingFrames_ < 0) {
        drainRemainingFrames_ = microphoneOut_.availableFrames() + microphoneIn_.availableFrames();
        // The last partial frame is completed with silence; only its real part is given back.
        const int64_t missing = (kFrameFrames - microphoneIn_.availableFrames() % kFrameFrames) % kFrameFrames;
        microphoneIn_.pushSilence(missing);
        systemIn_.pushSilence(missing);
        while (microphoneIn_.availableFrames() > 0) processFrame();
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
    report.filteredSeconds = static_cast<double>(reportedFilteredFrames_.load(std::memory_order_relaxed)) / kSampleRateHertz;
    report.processedSeconds = static_cast<double>(reportedProcessedFrames_.load(std::memory_order_relaxed)) / kSampleRateHertz;
    report.echoMoves = reportedEchoMoves_.load(std::memory_order_relaxed);
    return report;
}

}  // namespace velto
