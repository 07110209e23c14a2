#include "signal/AudioMixer.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <string>

#include "logging/LogThinning.hpp"
#include "logging/LoggerCompat.hpp"
#include "logging/NumberFormat.hpp"
#include "signal/FrameScaling.hpp"
#include "signal/VectorMath.hpp"

namespace velto {

struct AudioMixer::Private {};

namespace {

constexpr double kTicksPerSecond = 60.0;
constexpr double kMixingIntervalSeconds = 1.0 / kTicksPerSecond;
constexpr int64_t kMinimumJitterBufferFrames = 512;
constexpr int64_t kMinimumBlockFrames = 64;
constexpr float kClipThreshold = 0.98f;
constexpr float kLevelFloor = 0.000001f;

LoggerCompat& logger() {
    static LoggerCompat instance{kLogSubsystem, "AudioMixer"};
    return instance;
}

std::unique_ptr<float[]> zeroedSamples(int64_t frames) {
    return std::make_unique<float[]>(static_cast<size_t>(std::max<int64_t>(frames, 1)));
}

std::optional<PcmFormat> monoFormat(double sampleRate) { return PcmFormat::make(sampleRate, 1, true); }

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
                                       QualityOfService::userInteractive, clock_)) {
    system_.conversionFailureMessage = "System audio conversion failed: ";
    microphone_.conversionFailureMessage = "Microphone audio conversion failed: ";
    // Allocated once: a tick never allocates sample arrays.
    system_.blockBuffer = zeroedSamples(bufferFrameCapacity_);
    microphone_.blockBuffer = zeroedSamples(bufferFrameCapacity_);
    mixedOutputBuffer_ = zeroedSamples(bufferFrameCapacity_);
    for (Source* source : {&system_, &microphone_}) {
        source->tempBuffer = zeroedSamples(bufferFrameCapacity_);
        source->leftBuffer = zeroedSamples(bufferFrameCapacity_);
        source->rightBuffer = zeroedSamples(bufferFrameCapacity_);
    }
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

void AudioMixer::startDualSourceMixing(std::shared_ptr<FloatRingBuffer> systemRing, double systemSampleRate,
                                       uint32_t systemChannels, std::shared_ptr<FloatRingBuffer> microphoneRing,
                                       double microphoneSampleRate, std::shared_ptr<AudioFile> outputFile,
                                       const PcmFormat& outputFormat) {
    if (isMixing_) {
        logger().error("Audio mixing already active");
        return;
    }
    logger().info("Starting dual-source audio mixing");
    logger().info("System audio: " + formatDouble(systemSampleRate) + "Hz, " + std::to_string(systemChannels) +
                  " channels");
    logger().info("Microphone: " + formatDouble(microphoneSampleRate) + "Hz, 1 channel");

    system_.sampleRate = systemSampleRate;
    systemAudioChannels_ = systemChannels;
    microphone_.sampleRate = microphoneSampleRate;
    system_.ring = systemRing;
    microphone_.ring = microphoneRing;
    outputFile_ = std::move(outputFile);
    outputFormat_ = outputFormat;

    beginMixing(outputFormat);
    logger().info("Dual-source audio mixing started successfully with temporal synchronization");
}

void AudioMixer::startMixing(std::shared_ptr<FloatRingBuffer> systemRing,
                             std::shared_ptr<FloatRingBuffer> microphoneRing, double sampleRate, uint32_t channels,
                             std::shared_ptr<AudioFile> outputFile, const PcmFormat& outputFormat) {
    // Both rates take the one source's rate, so that it alone decides the mixing rate.
    system_.sampleRate = sampleRate;
    microphone_.sampleRate = sampleRate;
    if (systemRing) systemAudioChannels_ = channels;
    if (isMixing_) {
        logger().error("Audio mixing already active");
        return;
    }
    logger().info("Starting audio mixing");
    system_.ring = systemRing;
    microphone_.ring = systemRing ? std::weak_ptr<FloatRingBuffer>() : std::weak_ptr<FloatRingBuffer>(microphoneRing);
    outputFile_ = std::move(outputFile);
    outputFormat_ = outputFormat;

    beginMixing(outputFormat);
    logger().info("Audio mixing started successfully with temporal synchronization");
}

// The common tail of both starts; a failure leaves the mixer idle.
void AudioMixer::beginMixing(const PcmFormat& outputFormat) {
    setupConverters(outputFormat);
    prepareSourcePaths();
    mixingStartTimeSeconds_ = clock_->nowSeconds();
    totalFramesProcessed_ = 0;
    // Mixing before the timer starts: its first tick may come at once, and a tick
    // that found the mixer not yet mixing would be lost.
    isMixing_ = true;
    startTimer();
}

void AudioMixer::setupConverters(const PcmFormat& outputFormat) {
    const double mixingRate = chooseMixingRate(system_.sampleRate, microphone_.sampleRate);
    logger().info("Choosing mixing rate: system=" + formatDouble(system_.sampleRate) + "Hz, mic=" +
                  formatDouble(microphone_.sampleRate) + "Hz -> mixing=" + formatDouble(mixingRate) + "Hz");
    mixingSampleRate_ = mixingRate;
    const auto mixingFormat = monoFormat(mixingSampleRate_);
    if (!mixingFormat) throw AudioMixerError::failedToCreateMixingFormat();

    setupSourceConverter(system_, *mixingFormat, "system audio", AudioMixerError::failedToCreateSystemAudioInputFormat);
    setupSourceConverter(microphone_, *mixingFormat, "microphone",
                         AudioMixerError::failedToCreateMicrophoneInputFormat);

    if (mixingSampleRate_ != outputFormat.sampleRate) {
        outputConverter_ = AudioConverter::create(*mixingFormat, outputFormat);
        logger().info("Created output converter: " + formatDouble(mixingSampleRate_) + "Hz -> " +
                      formatDouble(outputFormat.sampleRate) + "Hz");
    } else {
        logger().info("No output conversion needed: " + formatDouble(mixingSampleRate_) + "Hz");
    }
}

void AudioMixer::setupSourceConverter(Source& source, const PcmFormat& mixingFormat, const char* label,
                                      AudioMixerError (*inputFormatFailure)()) {
    const std::string rate = formatDouble(source.sampleRate);
    if (source.sampleRate == mixingSampleRate_) {
        logger().info(std::string("No ") + label + " conversion needed: " + rate + "Hz");
        return;
    }
    const auto inputFormat = monoFormat(source.sampleRate);
    if (!inputFormat) throw inputFormatFailure();
    source.converter = AudioConverter::create(*inputFormat, mixingFormat);
    logger().info(std::string("Created ") + label + " converter: " + rate + "Hz -> " +
                  formatDouble(mixingSampleRate_) + "Hz");
}

// Resets each source's frame accounting and, where a resampler is involved,
// primes the sources with silence: enough for the resampler's worst hold-back,
// the same for every source so that they stay aligned. Allocates, so it runs
// at start and never in a tick.
void AudioMixer::prepareSourcePaths() {
    int64_t primingFrames = 0;
    for (Source* source : {&system_, &microphone_}) {
        source->mixingFramesAccounted = 0;
        source->sourceFramesConsumed = 0;
        if (source->ring.expired() || !source->converter) continue;
        const int64_t perSourceFrames = source->converter->maximumHeldBackFrames() +
                                        static_cast<int64_t>(std::ceil(mixingSampleRate_ / source->sampleRate)) + 2;
        primingFrames = std::max(primingFrames, perSourceFrames);
    }
    for (Source* source : {&system_, &microphone_}) {
        source->usesAlignment = primingFrames > 0 && !source->ring.expired();
        source->aligned = MonoSampleFifo(source->usesAlignment ? primingFrames + 2 * bufferFrameCapacity_ + 64 : 0);
        source->aligned.pushSilence(primingFrames);
        source->conversionInput.reset();
        if (source->converter) {
            source->conversionInput =
                PcmBuffer::make(*monoFormat(source->sampleRate), static_cast<uint32_t>(std::max<int64_t>(bufferFrameCapacity_, 1)));
        }
    }
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
    auto release = [this] {
        drainRemainingAudio();
        system_.ring.reset();
        microphone_.ring.reset();
        outputFile_.reset();
        outputFormat_.reset();
        system_.converter.reset();
        microphone_.converter.reset();
        outputConverter_.reset();
    };
    // A tick() run from another thread goes through the same context: wait for it.
    onMixingContext(release);
    {
        std::lock_guard guard(streamLock_);
        if (audioStreamContinuation_) audioStreamContinuation_->finish();
    }
    isMixing_ = false;
    logger().debug("Audio mixing stopped");
}

AudioBufferStream AudioMixer::audioStream() {
    std::lock_guard guard(streamLock_);
    if (!audioStream_) {
        auto [stream, continuation] = AudioBufferSource::make();
        audioStream_ = std::move(stream);
        audioStreamContinuation_ = std::move(continuation);
    }
    return *audioStream_;
}

AudioLevels AudioMixer::currentLevels() const {
    std::lock_guard guard(levelsLock_);
    return currentLevels_;
}

int64_t AudioMixer::underrunCount() const {
    std::lock_guard guard(counterLock_);
    return underrunCounter_;
}

int64_t AudioMixer::overflowCount() const {
    std::lock_guard guard(counterLock_);
    return overflowCounter_;
}

void AudioMixer::addUnderrun() {
    std::lock_guard guard(counterLock_);
    ++underrunCounter_;
}

void AudioMixer::setWriteFailureHandler(std::function<void(ErrorPtr)> handler) {
    std::lock_guard guard(streamLock_);
    writeFailureHandler_ = std::move(handler);
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
    onMixingContext([&] { rate = mixingSampleRate_; });
    return rate;
}

int64_t AudioMixer::totalFramesProcessed() const {
    int64_t frames = 0;
    onMixingContext([&] { frames = totalFramesProcessed_; });
    return frames;
}

int64_t AudioMixer::paddedSilenceFrames() const {
    int64_t frames = 0;
    onMixingContext([&] { frames = paddedSilenceFrames_; });
    return frames;
}

void AudioMixer::tick() {
    onMixingContext([this] { tickOnQueue(); });
}

void AudioMixer::tickOnQueue() {
    if (!isMixing_) return;
    // Strong references for the length of one tick; a source whose capture
    // object is gone drops out of the mix.
    const auto systemRing = system_.ring.lock();
    const auto microphoneRing = microphone_.ring.lock();
    const int64_t frames = framesToProcess(systemRing, microphoneRing);
    if (frames < 1) return;
    if (systemRing) processSource(system_, systemRing, frames);
    if (microphoneRing) processSource(microphone_, microphoneRing, frames);
    mixSources(frames, systemRing != nullptr, microphoneRing != nullptr);
    updateLevels(frames);
    writeOutput(frames);
    totalFramesProcessed_ += frames;
}

int64_t AudioMixer::framesWithinReserve(const Source& source, int64_t availableFrames) const {
    // Compare in mixing-rate frames: the largest block whose source frames fit
    // in what lies beyond the reserve.
    const int64_t spareFrames = availableFrames - jitterBufferFrames_;
    if (spareFrames < 0) return -1;
    return scaleFramesDown(source.sourceFramesConsumed + spareFrames, mixingSampleRate_, source.sampleRate) -
           source.mixingFramesAccounted;
}

int64_t AudioMixer::framesToProcess(const std::shared_ptr<FloatRingBuffer>& systemRing,
                                    const std::shared_ptr<FloatRingBuffer>& microphoneRing) {
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

    // The clock's seconds carry rounding error; a frame boundary that the
    // clock reaches exactly must count as reached, hence the tiny tolerance.
    constexpr double kFrameTolerance = 1e-6;
    const auto elapsedFrames = static_cast<int64_t>(
        (clock_->nowSeconds() - mixingStartTimeSeconds_) * mixingSampleRate_ + kFrameTolerance);
    int64_t frames = std::clamp<int64_t>(elapsedFrames - totalFramesProcessed_, 0, bufferFrameCapacity_);
    if (systemRing) frames = std::min(frames, framesWithinReserve(system_, systemRing->availableFrames()));
    if (microphoneRing) frames = std::min(frames, framesWithinReserve(microphone_, microphoneRing->availableFrames()));
    return frames < kMinimumBlockFrames ? 0 : frames;
}

// At the end of a recording, everything captured goes into the file: what
// waits in the rings (the jitter reserve, and whatever the clock had not yet
// asked for), what the sources' alignment and resamplers hold, and what the
// output resampler holds. Ticks keep a reserve and let resamplers hold back
// so that a running stream flows evenly; once the input ends, holding back
// only loses the last tens of milliseconds of every recording and of every
// restart. Runs where ticks run, after the last tick.
void AudioMixer::drainRemainingAudio() {
    const auto systemRing = system_.ring.lock();
    const auto microphoneRing = microphone_.ring.lock();
    if (!systemRing && !microphoneRing) return;
    // The sources keep capturing while the stop runs. The drain takes what the
    // rings hold now and nothing that arrives later: a source read short is
    // padded with silence, and audio arriving after that padding would put a
    // gap inside the recording's last moments.
    for (auto [source, ring] : {std::pair{&system_, systemRing.get()}, std::pair{&microphone_, microphoneRing.get()}}) {
        if (ring) source->drainEndSourceFrames = source->sourceFramesConsumed + ring->availableFrames();
    }
    const auto mixingFramesIn = [this](const Source& source, const std::shared_ptr<FloatRingBuffer>& ring) -> int64_t {
        if (!ring) return 0;
        return scaleFramesDown(source.drainEndSourceFrames, mixingSampleRate_, source.sampleRate) -
               source.mixingFramesAccounted;
    };
    // The rings, in blocks; a source that runs out first is padded with silence
    // for the rest (it only ever differs by the capture blocks in flight).
    for (;;) {
        const int64_t frames = std::min(
            bufferFrameCapacity_, std::max(mixingFramesIn(system_, systemRing), mixingFramesIn(microphone_, microphoneRing)));
        if (frames < 1) break;
        if (systemRing) processSource(system_, systemRing, frames, /*draining=*/true);
        if (microphoneRing) processSource(microphone_, microphoneRing, frames, /*draining=*/true);
        mixSources(frames, systemRing != nullptr, microphoneRing != nullptr);
        writeOutput(frames);
        totalFramesProcessed_ += frames;
    }
    // The sources' resampler tails join their alignment queues; then the queues
    // empty out, the longest one deciding how many frames remain.
    for (Source* source : {&system_, &microphone_}) {
        if (!source->converter || source->ring.expired()) continue;
        try {
            const auto tail = source->converter->flush();
            source->aligned.push(tail->floatChannelData()[0], tail->frameLength());
        } catch (...) {
            logger().critical(std::string(source->conversionFailureMessage) +
                              caseDescriptionOf(std::current_exception()));
        }
    }
    for (;;) {
        int64_t frames = 0;
        for (const Source* source : {&system_, &microphone_}) {
            if (source->usesAlignment && !source->ring.expired()) frames = std::max(frames, source->aligned.availableFrames());
        }
        frames = std::min(frames, bufferFrameCapacity_);
        if (frames < 1) break;
        for (Source* source : {&system_, &microphone_}) {
            const int64_t got = source->aligned.pop(source->blockBuffer.get(), frames);
            vec::clear(source->blockBuffer.get() + got, frames - got);
        }
        mixSources(frames, systemRing != nullptr, microphoneRing != nullptr);
        writeOutput(frames);
        totalFramesProcessed_ += frames;
    }
    if (outputConverter_) {
        std::shared_ptr<PcmBuffer> tail;
        try {
            tail = outputConverter_->flush();
        } catch (...) {
            logger().critical("Output audio conversion failed: " + caseDescriptionOf(std::current_exception()));
            return;
        }
        if (tail->frameLength() > 0) deliverOutput(std::move(tail));
    }
}

void AudioMixer::processSource(Source& source, const std::shared_ptr<FloatRingBuffer>& ring, int64_t frames,
                               bool draining) {
    const auto snapshot = ring->snapshot();
    const int64_t needFrames =
        scaleFramesDown(source.mixingFramesAccounted + frames, source.sampleRate, mixingSampleRate_) -
        source.sourceFramesConsumed;
    float* block = source.blockBuffer.get();
    // The work arrays are zeros beyond what a read writes, so a short read is
    // padded with silence.
    int64_t readFrames = std::min<int64_t>(needFrames, snapshot.framesAvailable);
    if (draining) {
        readFrames = std::min(readFrames, std::max<int64_t>(0, source.drainEndSourceFrames - source.sourceFramesConsumed));
    }
    if (readFrames < needFrames && !draining) {
        // The source sits this block out; its own timeline waits, so nothing
        // of it is skipped.
        addUnderrun();
        vec::clear(block, frames);
        return;
    }

    float* temp = source.tempBuffer.get();
    if (snapshot.channels == 1) {
        const std::array<float*, 1> destinations{temp};
        ring->read(destinations, readFrames);
    } else {
        // More than two channels are refused by the ring (logged there): the block is silence.
        const std::array<float*, 2> destinations{source.leftBuffer.get(), source.rightBuffer.get()};
        ring->read(destinations, readFrames);
        vec::average(source.leftBuffer.get(), source.rightBuffer.get(), temp, needFrames);
        // The work arrays are all zeros between ticks; only this tick's part was written.
        vec::clear(source.leftBuffer.get(), needFrames);
        vec::clear(source.rightBuffer.get(), needFrames);
    }
    source.mixingFramesAccounted += frames;
    source.sourceFramesConsumed += needFrames;

    if (source.converter) {
        convertSourceBlock(source, needFrames, frames);
    } else if (source.usesAlignment) {
        source.aligned.push(temp, needFrames);
        const int64_t got = source.aligned.pop(block, frames);
        vec::clear(block + got, frames - got);
    } else {
        vec::copy(temp, block, frames);
    }
    vec::clear(temp, needFrames);
}

void AudioMixer::convertSourceBlock(Source& source, int64_t needFrames, int64_t frames) {
    float* block = source.blockBuffer.get();
    auto& input = source.conversionInput;
    if (!input || !input->floatChannelData()[0]) return;
    vec::copy(source.tempBuffer.get(), input->floatChannelData()[0], needFrames);
    input->setFrameLength(static_cast<uint32_t>(needFrames));

    std::shared_ptr<PcmBuffer> converted;
    try {
        converted = source.converter->convert(*input);
    } catch (...) {
        const std::string what = caseDescriptionOf(std::current_exception());
        logger().critical(std::string(source.conversionFailureMessage) + what);
        vec::clear(block, frames);
        return;
    }
    source.aligned.push(converted->floatChannelData()[0], converted->frameLength());
    const int64_t got = source.aligned.pop(block, frames);
    if (got < frames) {
        // Only if the resampler broke its hold-back bound: silence, never stale samples.
        vec::clear(block + got, frames - got);
        paddedSilenceFrames_ += frames - got;
    }
}

void AudioMixer::mixSources(int64_t frames, bool withSystem, bool withMicrophone) {
    float* mixed = mixedOutputBuffer_.get();
    const float systemGain = withSystem ? systemGain_.load() : 0.0f;
    const float microphoneGain = withMicrophone ? microphoneGain_.load() : 0.0f;
    if (withSystem && withMicrophone) {
        vec::weightedSum(system_.blockBuffer.get(), systemGain, microphone_.blockBuffer.get(), microphoneGain, mixed,
                         frames);
    } else {
        vec::clear(mixed, frames);
        if (withSystem) vec::multiplyAdd(system_.blockBuffer.get(), systemGain, mixed, frames);
        if (withMicrophone) vec::multiplyAdd(microphone_.blockBuffer.get(), microphoneGain, mixed, frames);
    }
    clip(frames);
}

// Clipping and metering share one pass over the block; the levels are those
// of the clipped block, the overflow test uses the peak before clipping.
void AudioMixer::clip(int64_t frames) {
    const auto measurement = vec::clipAndMeasure(mixedOutputBuffer_.get(), kClipThreshold, frames);
    const float peak = measurement.peakBeforeClipping;
    maxPeakSinceStart_ = std::max(maxPeakSinceStart_, peak);
    if (peak > kClipThreshold) {
        if (oneIn(100)) {
            logger().error("Clipping detected! Peak: " + formatFloat(peak) +
                           ", Max since start: " + formatFloat(maxPeakSinceStart_));
        }
        std::lock_guard guard(counterLock_);
        ++overflowCounter_;
    }
    lastBlockRms_ = static_cast<float>(std::sqrt(measurement.sumOfSquares / static_cast<double>(frames)));
    lastBlockPeak_ = std::min(peak, kClipThreshold);
}

void AudioMixer::updateLevels(int64_t /*frames*/) {
    const AudioLevels levels{20.0f * std::log10(std::max(lastBlockRms_, kLevelFloor)),
                             20.0f * std::log10(std::max(lastBlockPeak_, kLevelFloor))};
    std::lock_guard guard(levelsLock_);
    currentLevels_ = levels;
}

void AudioMixer::writeOutput(int64_t frames) {
    if (frames < 1 || !outputFile_ || !outputFormat_) return;
    const PcmFormat blockFormat = outputConverter_ ? *monoFormat(mixingSampleRate_) : *outputFormat_;
    auto block = PcmBuffer::make(blockFormat, static_cast<uint32_t>(frames));
    if (!block) {
        logger().critical("Failed to create mixed PCM buffer with format: " + blockFormat.description());
        return;
    }
    const float* mixed = mixedOutputBuffer_.get();
    const auto channelData = block->floatChannelData();
    const uint32_t channels = blockFormat.channelCount;
    // The mix is mono: every channel of the block carries it.
    for (uint32_t channel = 0; channel < channels; ++channel) {
        for (int64_t i = 0; i < frames; ++i) {
            if (blockFormat.interleaved) channelData[0][static_cast<size_t>(i) * channels + channel] = mixed[i];
            else channelData[channel][i] = mixed[i];
        }
    }
    block->setFrameLength(static_cast<uint32_t>(frames));

    if (outputConverter_) {
        try {
            block = outputConverter_->convert(*block);
        } catch (...) {
            logger().critical("Output audio conversion failed: " + caseDescriptionOf(std::current_exception()));
            return;
        }
        // The resampler holds back its first milliseconds: nothing to hand on yet.
        if (block->frameLength() == 0) return;
    }
    deliverOutput(std::move(block));
}

void AudioMixer::deliverOutput(std::shared_ptr<PcmBuffer> block) {
    try {
        outputFile_->write(*block);
    } catch (...) {
        const auto error = std::current_exception();
        logger().critical("Failed to write mixed audio to file: " + describeError(error));
        if (!writeFailureReported_) {
            writeFailureReported_ = true;
            std::function<void(ErrorPtr)> handler;
            {
                std::lock_guard guard(streamLock_);
                handler = writeFailureHandler_;
            }
            if (handler) handler(captureError(error));
        }
    }

    std::lock_guard guard(streamLock_);
    if (audioStreamContinuation_) audioStreamContinuation_->yield(block);
}

}  // namespace velto
