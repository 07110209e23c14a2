#include "signal/AudioMixer.hpp"

#include <algorithm>
#include <cmath>
#include <string>

#include "logging/LogThinning.hpp"
#include "logging/LoggerCompat.hpp"
#include "logging/NumberFormat.hpp"
#include "signal/ClockPairing.hpp"

namespace velto {

struct AudioMixer::Private {};

namespace {

constexpr double kTicksPerSecond = 60.0;
constexpr double kMixingIntervalSeconds = 1.0 / kTicksPerSecond;
constexpr int64_t kMinimumJitterBufferFrames = 512;
constexpr int64_t kMinimumBlockFrames = 64;
constexpr float kLevelFloor = 0.000001f;

LoggerCompat& logger() {
    static LoggerCompat instance{kLogSubsystem, "AudioMixer"};
    return instance;
}

AudioLevels decibels(BlockLevel level) {
    return {20.0f * std::log10(std::max(level.rms, kLevelFloor)), 20.0f * std::log10(std::max(level.peak, kLevelFloor))};
}

}  // namespace

std::shared_ptr<AudioMixer> AudioMixer::create(int64_t bufferFrameCapacity, int64_t jitterBufferFrames,
                                               std::shared_ptr<Clock> clock, MixingTicks ticks) {
    return std::make_shared<AudioMixer>(Private{}, bufferFrameCapacity, jitterBufferFrames,
                                        clock ? std::move(clock) : Clock::system(), ticks);
}

AudioMixer::AudioMixer(const Private&, int64_t bufferFrameCapacity, int64_t jitterBufferFrames,
                       std::shared_ptr<Clock> clock, MixingTicks ticks)
    : bufferFrameCapacity_(bufferFrameCapacity),
      jitterBufferFrames_(std::max(jitterBufferFrames, kMinimumJitterBufferFrames)),
      clock_(std::move(clock)),
      ticks_(ticks),
      mixingQueue_(SerialQueue::create(std::string(kIdentifierPrefix) + ".AudioMixer.mixing",
                                       QualityOfService::userInteractive, clock_)),
      pacer_(bufferFrameCapacity),
      system_("system audio", "System audio conversion failed: ", AudioMixerError::failedToCreateSystemAudioInputFormat,
              bufferFrameCapacity),
      microphone_("microphone", "Microphone audio conversion failed: ",
                  AudioMixerError::failedToCreateMicrophoneInputFormat, bufferFrameCapacity),
      bus_(bufferFrameCapacity) {
    logger().debug("Allocated mixing buffers and temporary buffers: " + std::to_string(bufferFrameCapacity_) +
                   " frames each");
    logger().debug("Created AudioMixer with " + std::to_string(bufferFrameCapacity_) + " frame capacity, " +
                   std::to_string(jitterBufferFrames_) + " jitter buffer frames");
}

AudioMixer::~AudioMixer() {
    if (isMixing_) stopMixing();
    logger().debug("Deallocated mixing buffers and temporary buffers");
    logger().debug("AudioMixer deallocated");
}

void AudioMixer::setSystemGain(float gain) {
    systemGain_.store(gain);
    logger().debug("System gain set to: " + formatFloat(gain));
}

void AudioMixer::setMicrophoneGain(float gain) {
    microphoneGain_.store(gain);
    logger().debug("Microphone gain set to: " + formatFloat(gain));
}

double AudioMixer::chooseMixingRate(double systemSampleRate, double microphoneSampleRate) {
    const double highest = std::max(systemSampleRate, microphoneSampleRate);
    for (const double rate : {8000.0, 16000.0, 24000.0, 44100.0, 48000.0, 96000.0, 192000.0}) {
        if (rate >= highest) return rate;
    }
    return highest;
}

void AudioMixer::start(const MixerInputs& inputs) {
    // Checked before anything is stored: a running tick reads these fields.
    if (isMixing_) {
        logger().error("Audio mixing already active");
        return;
    }
    const auto& system = inputs.system;
    const auto& microphone = inputs.microphone;
    if ((!system || !system->ring) && (!microphone || !microphone->ring)) {
        throw AudioMixerError::failedToCreateMixingFormat();
    }
    const bool dual = system && microphone;
    if (dual) {
        logger().info("Starting dual-source audio mixing");
        logger().info("System audio: " + formatDouble(system->sampleRateHertz) + "Hz, " +
                      std::to_string(system->channels) + " channels");
        logger().info("Microphone: " + formatDouble(microphone->sampleRateHertz) + "Hz, 1 channel");
    } else {
        logger().info("Starting audio mixing");
    }

    // A single source alone decides the mixing rate.
    const double systemRate = system ? system->sampleRateHertz : microphone->sampleRateHertz;
    const double microphoneRate = microphone ? microphone->sampleRateHertz : system->sampleRateHertz;
    const bool cancelEcho = dual && inputs.echoCancellation;
    const double mixingRate = inputs.mixingSampleRateHertz.value_or(
        cancelEcho ? static_cast<double>(EchoCanceller::kSampleRateHertz) : chooseMixingRate(systemRate, microphoneRate));
    logger().info("Choosing mixing rate: system=" + formatDouble(systemRate) + "Hz, mic=" +
                  formatDouble(microphoneRate) + "Hz -> mixing=" + formatDouble(mixingRate) + "Hz");
    if (!(mixingRate > 0)) throw AudioMixerError::failedToCreateMixingFormat();

    try {
        system_.configure(system ? system->ring : nullptr, systemRate, mixingRate);
        microphone_.configure(microphone ? microphone->ring : nullptr, microphoneRate, mixingRate);
        bus_.configure(inputs.layout);
        output_.configure(inputs.outputFile, inputs.outputFormat, mixingRate, bus_.channels(), inputs.fileFrameLimit);
    } catch (...) {
        system_.release();
        microphone_.release();
        output_.release();
        throw;
    }
    const double fastestSourceRate = std::max(system ? system->sampleRateHertz : 0.0, microphone ? microphone->sampleRateHertz : 0.0);
    blockFrameLimit_ = fastestSourceRate > mixingRate
                           ? std::max<int64_t>(1, static_cast<int64_t>(static_cast<double>(bufferFrameCapacity_ - 1) *
                                                                       mixingRate / fastestSourceRate))
                           : bufferFrameCapacity_;
    skewEstimates_ = {};
    skewOutOfRangeReported_ = false;
    const bool echoWillRun = cancelEcho && mixingRate == static_cast<double>(EchoCanceller::kSampleRateHertz);
    if (inputs.driftCorrection) {
        if (system) system_.steer(system->carriedSkew);
        if (microphone) microphone_.steer(microphone->carriedSkew);
        // The canceller needs the echo to stay where it found it: a microphone on the
        // system audio's clock is read at its ratio (see ClockPairing).
        if (echoWillRun && clock_pairing::startsPaired(system->carriedSkew, microphone->carriedSkew)) {
            microphone_.followRatioOf(&system_);
        }
        // A steered block reads up to a fine resampler's kernel and a few per mille
        // more before it, which the work arrays must hold as well.
        blockFrameLimit_ = std::max<int64_t>(
            1, blockFrameLimit_ - blockFrameLimit_ / 64 - VariableRatioResampler::kTaps - 2);
        logger().info("Drift correction on: every source is kept in step with the system clock");
    }
    echoCanceller_.reset();
    echoLatencyFramesToSkip_ = 0;
    if (cancelEcho) {
        if (mixingRate == static_cast<double>(EchoCanceller::kSampleRateHertz)) {
            echoCanceller_ = EchoCanceller::create(bufferFrameCapacity_);
            echoLatencyFramesToSkip_ = echoCanceller_->latencyFrames();
            logger().info("Echo cancellation on: the system audio's echo is removed from the microphone");
        } else {
            logger().info("Echo cancellation off: it needs mixing at 16000Hz, not " + formatDouble(mixingRate) + "Hz");
        }
    }
    // Every source is delayed as much as the slowest resampler needs, so they stay aligned.
    const int64_t primingFrames = std::max(system_.primingFramesNeeded(), microphone_.primingFramesNeeded());
    system_.prepare(primingFrames);
    microphone_.prepare(primingFrames);
    {
        MutexLock guard(levelsLock_);
        levels_ = MixerLevels{};
        if (system) levels_.system = AudioLevels::silence();
        if (microphone) levels_.microphone = AudioLevels::silence();
    }
    outputPaused_ = inputs.startPaused;
    pacer_.start(clock_->nowSeconds(), mixingRate);
    paceFromFirstBlock_ = system_.isSteered() || microphone_.isSteered();
    // Mixing before the timer starts: its first tick may come at once, and a tick
    // that found the mixer not yet mixing would be lost.
    isMixing_ = true;
    startTimer();
    logger().info(dual ? "Dual-source audio mixing started successfully with temporal synchronization"
                       : "Audio mixing started successfully with temporal synchronization");
}

void AudioMixer::startTimer() {
    if (ticks_ != MixingTicks::timer) return;
    mixingTimer_ = RepeatingTimer::create(mixingQueue_);
    mixingTimer_->schedule(clock_->nowSeconds(), kMixingIntervalSeconds, 0);
    std::weak_ptr<AudioMixer> weakSelf = weak_from_this();
    mixingTimer_->setEventHandler([weakSelf] {
        if (auto self = weakSelf.lock()) self->tickOnQueue();
    });
    mixingTimer_->resume();
    logger().debug("Started mixing timer at " + formatDouble(kTicksPerSecond) + " Hz");
}

void AudioMixer::stopMixing() {
    if (!isMixing_) return;
    logger().info("Stopping audio mixing");
    if (mixingTimer_) {
        // After cancel() returns the handler is not running and never starts again.
        mixingTimer_->cancel();
        mixingTimer_.reset();
    }
    // A tick() run from another thread goes through the same context: wait for it.
    onMixingContext([this] {
        if (!outputPaused_) drainRemainingAudio();
        logSkews();
        logEchoCancellation();
        echoCanceller_.reset();
        system_.release();
        microphone_.release();
        output_.release();
    });
    output_.finishStream();
    isMixing_ = false;
    logger().debug("Audio mixing stopped");
}

void AudioMixer::setOutputPaused(bool paused) {
    if (!isMixing_) return;
    onMixingContext([this, paused] {
        if (outputPaused_ == paused) return;
        const auto systemRing = system_.ring();
        const auto microphoneRing = microphone_.ring();
        if (paused) {
            // What was captured before the pause belongs in the file.
            mixWhatTheRingsHold(systemRing, microphoneRing);
        } else {
            // What arrived while paused does not; the clock owes nothing for that time.
            if (systemRing) system_.discardCaptured(*systemRing);
            if (microphoneRing) microphone_.discardCaptured(*microphoneRing);
            pacer_.restartAt(clock_->nowSeconds());
            paceFromFirstBlock_ = system_.isSteered() || microphone_.isSteered();
        }
        outputPaused_ = paused;
    });
}

AudioLevels AudioMixer::currentLevels() const {
    MutexLock guard(levelsLock_);
    return levels_.mix;
}

MixerLevels AudioMixer::levels() const {
    MutexLock guard(levelsLock_);
    return levels_;
}

int64_t AudioMixer::underrunCount() const {
    MutexLock guard(counterLock_);
    return underrunCounter_;
}

int64_t AudioMixer::overflowCount() const {
    MutexLock guard(counterLock_);
    return overflowCounter_;
}

void AudioMixer::addUnderrun() {
    MutexLock guard(counterLock_);
    ++underrunCounter_;
}

template <class Work>
void AudioMixer::onMixingContext(Work&& work) const {
    if (ticks_ == MixingTicks::timer) {
        mixingQueue_->sync(work);
    } else {
        std::lock_guard context(callerContext_);
        work();
    }
}

double AudioMixer::mixingSampleRate() const {
    double rate = 0;
    onMixingContext([&] { rate = pacer_.mixingSampleRateHertz(); });
    return rate;
}

int64_t AudioMixer::totalFramesProcessed() const {
    int64_t frames = 0;
    onMixingContext([&] { frames = pacer_.totalFramesProcessed(); });
    return frames;
}

int64_t AudioMixer::paddedSilenceFrames() const {
    int64_t frames = 0;
    onMixingContext([&] { frames = system_.paddedSilenceFrames() + microphone_.paddedSilenceFrames(); });
    return frames;
}

void AudioMixer::tick() {
    onMixingContext([this] { tickOnQueue(); });
}

void AudioMixer::tickOnQueue() {
    if (!isMixing_) return;
    // Strong references for the length of one tick; a source whose capture
    // object is gone drops out of the mix.
    const auto systemRing = system_.ring();
    const auto microphoneRing = microphone_.ring();
    if (outputPaused_) {
        // The sources keep running so that a resume is instant; what they capture meanwhile goes nowhere.
        if (systemRing) system_.discardCaptured(*systemRing);
        if (microphoneRing) microphone_.discardCaptured(*microphoneRing);
        return;
    }
    const int64_t frames = framesToProcess(systemRing, microphoneRing);
    if (frames < 1) return;
    if (systemRing && !system_.process(*systemRing, frames)) addUnderrun();
    if (microphoneRing && !microphone_.process(*microphoneRing, frames)) addUnderrun();
    mixAndWrite(frames, systemRing != nullptr, microphoneRing != nullptr);
    followClocks(clock_->nowSeconds(), systemRing, microphoneRing);
}

void AudioMixer::followClocks(double nowSeconds, const std::shared_ptr<FloatRingBuffer>& systemRing,
                              const std::shared_ptr<FloatRingBuffer>& microphoneRing) {
    if (!system_.isSteered() && !microphone_.isSteered()) return;
    // Until the mixer has caught up with its clock (the start's backlog, the wait
    // for the jitter reserve) the fills are still on their way to their level.
    const bool caughtUp = pacer_.framesDue(nowSeconds) < kMinimumBlockFrames;
    if (systemRing) system_.followClock(nowSeconds, *systemRing, caughtUp);
    if (microphoneRing) microphone_.followClock(nowSeconds, *microphoneRing, caughtUp);
    if (microphone_.isFollowing() && clock_pairing::microphoneHasItsOwnClock(*microphone_.driftController(),
                                                                             *system_.driftController())) {
        microphone_.followRatioOf(nullptr);
        const DriftController& mic = *microphone_.driftController();
        const DriftController& sys = *system_.driftController();
        const double apartPpm = (mic.estimatedSkew() - sys.estimatedSkew()) * 1e6;
        const double fillApartMs = (mic.fillErrorSeconds() - sys.fillErrorSeconds()) * 1e3;
        logger().info("The microphone runs on a clock of its own (" + formatDouble(std::round(apartPpm * 10) / 10) +
                      " ppm against the system audio's, its fill " + formatDouble(std::round(fillApartMs * 100) / 100) +
                      " ms off): it is steered on its own from here");
    }

    if (!skewOutOfRangeReported_ && (system_.skewOutOfRange() || microphone_.skewOutOfRange())) {
        skewOutOfRangeReported_ = true;
        const bool microphoneOut = microphone_.skewOutOfRange();
        const double skew = (microphoneOut ? microphone_.estimatedSkew() : system_.estimatedSkew()).value_or(0.0);
        logger().error(std::string(microphoneOut ? "Microphone" : "System audio") + " clock is " +
                       formatDouble(std::round(skew * 1e7) / 10) +
                       " ppm off the system clock, beyond the 2000 ppm that is corrected: the sources will slowly "
                       "fall out of step");
    }
}

AudioMixer::SkewEstimates AudioMixer::skewEstimates() const {
    SkewEstimates estimates;
    onMixingContext([&] { estimates = skewEstimates_; });
    return estimates;
}

void AudioMixer::logSkews() {
    if (!system_.isSteered() && !microphone_.isSteered()) return;
    skewEstimates_ = {system_.estimatedSkew(), microphone_.estimatedSkew()};
    const auto ppm = [](double skew) {
        const double rounded = std::round(skew * 1e7) / 10 + 0.0;  // + 0.0: no "-0.0"
        return (rounded >= 0 ? "+" : "") + formatDouble(rounded) + " ppm";
    };
    std::string line = "Clock drift against the system clock:";
    if (skewEstimates_.microphone) line += " microphone " + ppm(*skewEstimates_.microphone);
    if (skewEstimates_.microphone && skewEstimates_.system) line += ",";
    if (skewEstimates_.system) line += " system audio " + ppm(*skewEstimates_.system);
    logger().info(line);
}

int64_t AudioMixer::framesToProcess(const std::shared_ptr<FloatRingBuffer>& systemRing,
                                    const std::shared_ptr<FloatRingBuffer>& microphoneRing) {
    // Steered sources wait for the reserve once: from then on their controllers
    // hold the fill they had, and a block only never reads what is not there. The
    // reserve floor would otherwise cut blocks short whenever a burst is due, and
    // a mixer held back by its sources could not keep them on its clock.
    const bool steered = system_.isSteered() || microphone_.isSteered();
    if (steered && !paceFromFirstBlock_) {
        int64_t frames = std::min(pacer_.framesDue(clock_->nowSeconds()), blockFrameLimit_);
        if (systemRing) frames = std::min(frames, system_.mixingFramesWithin(systemRing->availableFrames(), 0));
        if (microphoneRing) frames = std::min(frames, microphone_.mixingFramesWithin(microphoneRing->availableFrames(), 0));
        return frames < kMinimumBlockFrames ? 0 : frames;
    }
    if (systemRing && microphoneRing) {
        if (systemRing->availableFrames() < jitterBufferFrames_ ||
            microphoneRing->availableFrames() < jitterBufferFrames_) {
            if (oneIn(1000)) {
                logger().debug("Waiting for jitter buffer: system=" + std::to_string(systemRing->availableFrames()) +
                               "/" + std::to_string(jitterBufferFrames_) +
                               ", mic=" + std::to_string(microphoneRing->availableFrames()) + "/" +
                               std::to_string(jitterBufferFrames_));
            }
            return 0;
        }
    } else if (const auto& single = systemRing ? systemRing : microphoneRing) {
        const int64_t available = single->availableFrames();
        if (available < jitterBufferFrames_) {
            if (oneIn(1000)) {
                logger().debug("Waiting for single-source jitter buffer: " + std::to_string(available) + "/" +
                               std::to_string(jitterBufferFrames_));
            }
            return 0;
        }
    }
    if (paceFromFirstBlock_) {
        // The wait for the reserve is not owed: the steered sources are held at the
        // fill they have now, which the mixer could never read down to the reserve.
        pacer_.restartAt(clock_->nowSeconds());
        paceFromFirstBlock_ = false;
    }
    int64_t frames = std::min(pacer_.framesDue(clock_->nowSeconds()), blockFrameLimit_);
    if (systemRing) frames = std::min(frames, system_.mixingFramesWithin(systemRing->availableFrames(), jitterBufferFrames_));
    if (microphoneRing) {
        frames = std::min(frames, microphone_.mixingFramesWithin(microphoneRing->availableFrames(), jitterBufferFrames_));
    }
    return frames < kMinimumBlockFrames ? 0 : frames;
}

void AudioMixer::mixAndWrite(int64_t frames, bool withSystem, bool withMicrophone, bool cancelEcho) {
    int64_t skip = 0;
    if (echoCanceller_ && withSystem && withMicrophone) {
        if (cancelEcho) echoCanceller_->process(microphone_.block(), system_.block(), frames);
        // The canceller's first frames are the silence of its latency, not audio.
        skip = std::min(frames, echoLatencyFramesToSkip_);
        echoLatencyFramesToSkip_ -= skip;
    }
    if (skip == frames) {
        pacer_.advance(frames);
        return;
    }
    const auto measurement =
        bus_.mix(withSystem ? system_.block() + skip : nullptr, systemGain_.load(),
                 withMicrophone ? microphone_.block() + skip : nullptr, microphoneGain_.load(), frames - skip);
    const float peak = measurement.peakBeforeClipping;
    maxPeakSinceStart_ = std::max(maxPeakSinceStart_, peak);
    if (peak > MixBus::kClipThreshold) {
        if (oneIn(100)) {
            logger().error("Clipping detected! Peak: " + formatFloat(peak) +
                           ", Max since start: " + formatFloat(maxPeakSinceStart_));
        }
        MutexLock guard(counterLock_);
        ++overflowCounter_;
    }
    publishLevels(measurement, withSystem, withMicrophone);
    output_.write(bus_.output(), frames - skip);
    pacer_.advance(frames);
}

// The frames the canceller still holds, after the sources have given everything.
void AudioMixer::drainEchoCanceller() {
    if (!echoCanceller_ || !system_.isPresent() || !microphone_.isPresent()) return;
    while (const int64_t frames = echoCanceller_->drain(microphone_.block(), system_.block(), bufferFrameCapacity_)) {
        mixAndWrite(frames, true, true, /*cancelEcho=*/false);
    }
}

void AudioMixer::logEchoCancellation() const {
    if (!echoCanceller_) return;
    const EchoCanceller::Report report = echoCanceller_->report();
    // How long the filter ran tells what the cancellation cost.
    const std::string filtered = "; the filter ran " + formatDouble(std::round(report.filteredSeconds * 10) / 10) + " s of " +
                                 formatDouble(std::round(report.processedSeconds * 10) / 10) + " s";
    if (report.echoDelayMs < 0) {
        logger().info("Echo cancellation: no echo of the system audio found in the microphone; microphone left unchanged" + filtered);
    } else {
        logger().info("Echo cancellation: echo delay " + std::to_string(report.echoDelayMs) + " ms, suppression " +
                      formatDouble(std::round(report.suppressionDb * 10) / 10) + " dB" + filtered +
                      (report.echoMoves == 0   ? ""
                       : report.echoMoves == 1 ? "; the echo moved once"
                                               : "; the echo moved " + std::to_string(report.echoMoves) + " times"));
    }
}

void AudioMixer::publishLevels(const MixBus::Measurement& mix, bool withSystem, bool withMicrophone) {
    const AudioLevels mixLevels = decibels(mix.level);
    const AudioLevels systemLevels = decibels(system_.lastBlockLevel());
    const AudioLevels microphoneLevels = decibels(microphone_.lastBlockLevel());
    MutexLock guard(levelsLock_);
    levels_.mix = mixLevels;
    if (withSystem) levels_.system = systemLevels;
    if (withMicrophone) levels_.microphone = microphoneLevels;
}

// Mixes every frame the rings hold at this moment, padding a source that runs
// out first with silence (they only ever differ by the capture blocks in
// flight). Audio arriving meanwhile is left for later: taking it after the
// padding would put a gap inside the audio.
void AudioMixer::mixWhatTheRingsHold(const std::shared_ptr<FloatRingBuffer>& systemRing,
                                     const std::shared_ptr<FloatRingBuffer>& microphoneRing, bool endTogether) {
    if (systemRing) system_.markDrainEnd(*systemRing);
    if (microphoneRing) microphone_.markDrainEnd(*microphoneRing);
    int64_t framesLeft = endTogether ? framesToDrain(systemRing, microphoneRing) : -1;
    for (;;) {
        int64_t frames = std::min(blockFrameLimit_, std::max(systemRing ? system_.mixingFramesLeftToDrain() : 0,
                                                                  microphoneRing ? microphone_.mixingFramesLeftToDrain() : 0));
        if (framesLeft >= 0) {
            frames = std::min(frames, framesLeft);
            framesLeft -= std::max<int64_t>(frames, 0);
        }
        if (frames < 1) break;
        if (systemRing) system_.process(*systemRing, frames, /*draining=*/true);
        if (microphoneRing) microphone_.process(*microphoneRing, frames, /*draining=*/true);
        mixAndWrite(frames, systemRing != nullptr, microphoneRing != nullptr);
    }
}

// Steered sources are in step: what one holds beyond the other at the end was
// captured while the other's audio was still on its way, so the file ends when
// both have given their last, give or take half a tick, rather than with one alone.
int64_t AudioMixer::framesToDrain(const std::shared_ptr<FloatRingBuffer>& systemRing,
                                  const std::shared_ptr<FloatRingBuffer>& microphoneRing) const {
    const int64_t systemFrames = systemRing ? system_.mixingFramesLeftToDrain() : 0;
    const int64_t microphoneFrames = microphoneRing ? microphone_.mixingFramesLeftToDrain() : 0;
    if (!systemRing || !microphoneRing) return std::max(systemFrames, microphoneFrames);
    // Half a tick of one source alone at most: the last blocks of both sources
    // arrive within a tick of each other.
    const auto tickFrames = static_cast<int64_t>(pacer_.mixingSampleRateHertz() * kMixingIntervalSeconds / 2);
    const int64_t shorter = std::min(systemFrames, microphoneFrames);
    const int64_t longer = std::max(systemFrames, microphoneFrames);
    if (longer - shorter > tickFrames) {
        logger().debug("Ending both sources together: " + std::to_string(longer - shorter - tickFrames) +
                       " mixing frames of the " + (systemFrames > microphoneFrames ? "system audio" : "microphone") +
                       " captured after the other's last are left out");
    }
    return std::min(longer, shorter + tickFrames);
}

// At the end of a recording, everything captured goes into the file: what
// waits in the rings (the jitter reserve, and whatever the clock had not yet
// asked for), what the sources' alignment and resamplers hold, and what the
// output resampler holds. Ticks keep a reserve and let resamplers hold back
// so that a running stream flows evenly; once the input ends, holding back
// only loses the last tens of milliseconds of every recording and of every
// restart. Runs where ticks run, after the last tick.
void AudioMixer::drainRemainingAudio() {
    const auto systemRing = system_.ring();
    const auto microphoneRing = microphone_.ring();
    if (!systemRing && !microphoneRing) return;
    mixWhatTheRingsHold(systemRing, microphoneRing, /*endTogether=*/system_.isSteered() && microphone_.isSteered());
    // The resampler tails join the alignment queues; then the queues empty out,
    // the longest one deciding how many frames remain.
    system_.flushResampler();
    microphone_.flushResampler();
    for (;;) {
        const int64_t frames =
            std::min(blockFrameLimit_, std::max(system_.alignedFramesLeft(), microphone_.alignedFramesLeft()));
        if (frames < 1) break;
        system_.popAligned(frames);
        microphone_.popAligned(frames);
        mixAndWrite(frames, systemRing != nullptr, microphoneRing != nullptr);
    }
    drainEchoCanceller();
    output_.flush();
}

}  // namespace velto
