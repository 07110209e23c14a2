#include "signal/SourcePath.hpp"

#include <algorithm>
#include <array>
#include <cmath>

#include "logging/LoggerCompat.hpp"
#include "logging/NumberFormat.hpp"
#include "signal/FrameScaling.hpp"
#include "signal/VectorMath.hpp"

namespace velto {

namespace {

LoggerCompat& logger() {
    static LoggerCompat instance{kLogSubsystem, "AudioMixer"};
    return instance;
}

std::unique_ptr<float[]> zeroedSamples(int64_t frames) {
    return std::make_unique<float[]>(static_cast<size_t>(std::max<int64_t>(frames, 1)));
}

}  // namespace

SourcePath::SourcePath(std::string label, std::string conversionFailureMessage,
                       AudioMixerError (*inputFormatFailure)(), int64_t bufferFrameCapacity)
    : label_(std::move(label)),
      conversionFailureMessage_(std::move(conversionFailureMessage)),
      inputFormatFailure_(inputFormatFailure),
      bufferFrameCapacity_(bufferFrameCapacity),
      // Allocated once: a tick never allocates sample arrays.
      blockBuffer_(zeroedSamples(bufferFrameCapacity)),
      tempBuffer_(zeroedSamples(bufferFrameCapacity)),
      leftBuffer_(zeroedSamples(bufferFrameCapacity)),
      rightBuffer_(zeroedSamples(bufferFrameCapacity)),
      fine_(bufferFrameCapacity),
      nominalBuffer_(zeroedSamples(bufferFrameCapacity)) {}

void SourcePath::configure(const std::shared_ptr<FloatRingBuffer>& ring, double sampleRateHertz,
                           double mixingSampleRateHertz) {
    ring_ = ring;
    sampleRateHertz_ = sampleRateHertz;
    mixingSampleRateHertz_ = mixingSampleRateHertz;
    converter_.reset();
    const std::string rate = formatDouble(sampleRateHertz);
    if (sampleRateHertz == mixingSampleRateHertz) {
        logger().info("No " + label_ + " conversion needed: " + rate + "Hz");
        return;
    }
    const auto inputFormat = PcmFormat::make(sampleRateHertz, 1, true);
    const auto mixingFormat = PcmFormat::make(mixingSampleRateHertz, 1, true);
    if (!inputFormat) throw inputFormatFailure_();
    if (!mixingFormat) throw AudioMixerError::failedToCreateMixingFormat();
    converter_ = AudioConverter::create(*inputFormat, *mixingFormat);
    logger().info("Created " + label_ + " converter: " + rate + "Hz -> " + formatDouble(mixingSampleRateHertz) +
                  "Hz");
}

void SourcePath::steer(std::optional<double> carriedSkew) {
    drift_ = std::make_unique<DriftController>(sampleRateHertz_, carriedSkew);
    step_ = 1.0 + drift_->correction();
    holdingFill_ = false;
    fine_.reset();
    // The fine resampler's first output is centred kDelayFrames into its input:
    // that much silence in front keeps the source's first frames.
    fine_.pushSilence(VariableRatioResampler::kDelayFrames);
}

void SourcePath::followRatioOf(const SourcePath* leader) {
    if (!drift_) return;
    leader_ = leader && leader->drift_ ? leader : nullptr;
    drift_->setFollowingAnother(leader_ != nullptr);
    if (leader_) step_ = leader_->step_;
}

std::optional<double> SourcePath::estimatedSkew() const {
    if (!drift_) return std::nullopt;
    return drift_->estimatedSkew();
}

void SourcePath::followClock(double nowSeconds, const FloatRingBuffer& ring, bool holdFromNow) {
    if (!drift_) return;
    holdingFill_ = holdingFill_ || holdFromNow;
    if (!holdingFill_) return;
    const int64_t readFrames = ring.totalReadFrames();
    const auto delivery = ring.lastDelivery();
    // A ring without delivery stamps is judged by its fill at the tick.
    const int64_t producedFrames = delivery ? delivery->totalWrittenFrames : readFrames + ring.availableFrames();
    const double deliveredAtSeconds = delivery ? delivery->atSeconds : nowSeconds;
    step_ = 1.0 + drift_->update(nowSeconds, producedFrames, deliveredAtSeconds, readFrames);
    if (leader_) step_ = leader_->step_;
}

int64_t SourcePath::steeredFrames(int64_t nominalFrames) const {
    return fine_.outputFramesAfterPushing(nominalFrames, step_);
}

int64_t SourcePath::primingFramesNeeded() const {
    if (ring_.expired() || !converter_) return 0;
    return converter_->maximumHeldBackFrames() +
           static_cast<int64_t>(std::ceil(mixingSampleRateHertz_ / sampleRateHertz_)) + 2;
}

void SourcePath::prepare(int64_t primingFrames) {
    mixingFramesAccounted_ = 0;
    sourceFramesConsumed_ = 0;
    paddedSilenceFrames_ = 0;
    lastBlockLevel_ = {};
    usesAlignment_ = primingFrames > 0 && !ring_.expired();
    aligned_ = MonoSampleFifo(usesAlignment_ ? primingFrames + 2 * bufferFrameCapacity_ + 64 : 0);
    aligned_.pushSilence(primingFrames);
    conversionInput_.reset();
    if (converter_) {
        conversionInput_ = PcmBuffer::make(*PcmFormat::make(sampleRateHertz_, 1, true),
                                           static_cast<uint32_t>(std::max<int64_t>(bufferFrameCapacity_, 1)));
    }
}

void SourcePath::release() {
    ring_.reset();
    converter_.reset();
    drift_.reset();
    leader_ = nullptr;
    fine_.reset();
    step_ = 1.0;
}

int64_t SourcePath::mixingFramesWithin(int64_t availableFrames, int64_t reserveFrames) const {
    // Compared in mixing-rate frames: the largest block whose source frames fit
    // in what lies beyond the reserve.
    const int64_t spareFrames = availableFrames - reserveFrames;
    if (spareFrames < 0) return -1;
    const int64_t nominalFrames =
        scaleFramesDown(sourceFramesConsumed_ + spareFrames, mixingSampleRateHertz_, sampleRateHertz_) -
        mixingFramesAccounted_;
    // The fine resampler's look-ahead may reach into the reserve (a kernel's worth
    // of frames is nothing to the jitter the reserve is there for), never beyond the ring.
    const int64_t lookAheadFrames = std::min<int64_t>(VariableRatioResampler::kTaps, reserveFrames);
    return drift_ ? steeredFrames(nominalFrames + lookAheadFrames) : nominalFrames;
}

bool SourcePath::process(FloatRingBuffer& ring, int64_t frames, bool draining) {
    float* block = blockBuffer_.get();
    if (!drift_) {
        if (!readConverted(ring, frames, draining, block)) {
            vec::clear(block, frames);
            lastBlockLevel_ = {};
            return false;
        }
        measure(frames);
        return true;
    }
    const int64_t nominalFrames = fine_.inputFramesNeeded(frames, step_);
    if (nominalFrames > 0) {
        if (!readConverted(ring, nominalFrames, draining, nominalBuffer_.get())) {
            vec::clear(block, frames);
            lastBlockLevel_ = {};
            return false;
        }
        fine_.push(nominalBuffer_.get(), nominalFrames);
    }
    fine_.process(block, frames, step_);
    measure(frames);
    return true;
}

bool SourcePath::readConverted(FloatRingBuffer& ring, int64_t frames, bool draining, float* destination) {
    const auto snapshot = ring.snapshot();
    const int64_t needFrames =
        scaleFramesDown(mixingFramesAccounted_ + frames, sampleRateHertz_, mixingSampleRateHertz_) -
        sourceFramesConsumed_;
    // The work arrays are zeros beyond what a read writes, so a short read is
    // padded with silence.
    int64_t readFrames = std::min<int64_t>(needFrames, snapshot.framesAvailable);
    if (draining) readFrames = std::min(readFrames, std::max<int64_t>(0, drainEndSourceFrames_ - sourceFramesConsumed_));
    if (readFrames < needFrames && !draining) return false;

    float* temp = tempBuffer_.get();
    if (snapshot.channels == 1) {
        const std::array<float*, 1> destinations{temp};
        ring.read(destinations, readFrames);
    } else {
        // More than two channels are refused by the ring (logged there): the block is silence.
        const std::array<float*, 2> destinations{leftBuffer_.get(), rightBuffer_.get()};
        ring.read(destinations, readFrames);
        vec::average(leftBuffer_.get(), rightBuffer_.get(), temp, needFrames);
        // The work arrays are all zeros between ticks; only this tick's part was written.
        vec::clear(leftBuffer_.get(), needFrames);
        vec::clear(rightBuffer_.get(), needFrames);
    }
    mixingFramesAccounted_ += frames;
    sourceFramesConsumed_ += needFrames;

    if (converter_) {
        convertBlock(needFrames, frames, destination);
    } else if (usesAlignment_) {
        aligned_.push(temp, needFrames);
        const int64_t got = aligned_.pop(destination, frames);
        vec::clear(destination + got, frames - got);
    } else {
        vec::copy(temp, destination, frames);
    }
    vec::clear(temp, needFrames);
    return true;
}

void SourcePath::discardCaptured(FloatRingBuffer& ring) {
    const int64_t channels = ring.channels();
    for (int64_t left = ring.availableFrames(); left > 0;) {
        const int64_t chunk = std::min(left, bufferFrameCapacity_);
        if (channels == 1) {
            const std::array<float*, 1> destinations{tempBuffer_.get()};
            ring.read(destinations, chunk);
        } else {
            const std::array<float*, 2> destinations{leftBuffer_.get(), rightBuffer_.get()};
            ring.read(destinations, chunk);
        }
        left -= chunk;
    }
    vec::clear(tempBuffer_.get(), bufferFrameCapacity_);
    vec::clear(leftBuffer_.get(), bufferFrameCapacity_);
    vec::clear(rightBuffer_.get(), bufferFrameCapacity_);
    mixingFramesAccounted_ = 0;
    sourceFramesConsumed_ = 0;
    // The fill drops to nothing: the level to hold is found again once the mixer has caught up.
    if (drift_) {
        drift_ = std::make_unique<DriftController>(sampleRateHertz_, drift_->estimatedSkew());
        drift_->setFollowingAnother(leader_ != nullptr);
        holdingFill_ = false;
    }
}

void SourcePath::convertBlock(int64_t needFrames, int64_t frames, float* block) {
    if (!conversionInput_ || !conversionInput_->floatChannelData()[0]) return;
    vec::copy(tempBuffer_.get(), conversionInput_->floatChannelData()[0], needFrames);
    conversionInput_->setFrameLength(static_cast<uint32_t>(needFrames));

    std::shared_ptr<PcmBuffer> converted;
    try {
        converted = converter_->convert(*conversionInput_);
    } catch (...) {
        logger().critical(conversionFailureMessage_ + caseDescriptionOf(std::current_exception()));
        vec::clear(block, frames);
        return;
    }
    aligned_.push(converted->floatChannelData()[0], converted->frameLength());
    const int64_t got = aligned_.pop(block, frames);
    if (got < frames) {
        // Only if the resampler broke its hold-back bound: silence, never stale samples.
        vec::clear(block + got, frames - got);
        paddedSilenceFrames_ += frames - got;
    }
}

void SourcePath::markDrainEnd(const FloatRingBuffer& ring) {
    drainEndSourceFrames_ = sourceFramesConsumed_ + ring.availableFrames();
}

int64_t SourcePath::mixingFramesLeftToDrain() const {
    if (ring_.expired()) return 0;
    const int64_t nominalFrames =
        scaleFramesDown(drainEndSourceFrames_, mixingSampleRateHertz_, sampleRateHertz_) - mixingFramesAccounted_;
    return drift_ ? fine_.outputFramesToTakeIn(nominalFrames, step_) : nominalFrames;
}

void SourcePath::flushResampler() {
    if (!converter_ || ring_.expired()) return;
    try {
        const auto tail = converter_->flush();
        aligned_.push(tail->floatChannelData()[0], tail->frameLength());
    } catch (...) {
        logger().critical(conversionFailureMessage_ + caseDescriptionOf(std::current_exception()));
    }
}

int64_t SourcePath::alignedFramesLeft() const {
    if (ring_.expired()) return 0;
    const int64_t alignedFrames = usesAlignment_ ? aligned_.availableFrames() : 0;
    return drift_ ? fine_.outputFramesToEmpty(alignedFrames, step_) : alignedFrames;
}

void SourcePath::popAligned(int64_t frames) {
    float* block = blockBuffer_.get();
    if (!drift_) {
        const int64_t got = aligned_.pop(block, frames);
        vec::clear(block + got, frames - got);
        measure(frames);
        return;
    }
    // After the end of the input the fine resampler reads silence.
    const int64_t nominalFrames = std::min(fine_.inputFramesNeeded(frames, step_), fine_.inputCapacityFrames());
    const int64_t got = aligned_.pop(nominalBuffer_.get(), nominalFrames);
    fine_.push(nominalBuffer_.get(), got);
    fine_.pushSilence(nominalFrames - got);
    vec::clear(nominalBuffer_.get(), got);
    fine_.process(block, frames, step_);
    measure(frames);
}

void SourcePath::measure(int64_t frames) {
    if (frames < 1) return;
    const auto measurement = vec::measure(blockBuffer_.get(), frames);
    lastBlockLevel_ = {static_cast<float>(std::sqrt(measurement.sumOfSquares / static_cast<double>(frames))),
                       measurement.peak};
}

}  // namespace velto
