#include "platform/pulse/SilencePacer.hpp"

namespace velto::pulse {

SilencePacer::SilencePacer(double sampleRateHertz, std::uint32_t blockFrames, double idleAfterSeconds,
                           double firstAudioGraceSeconds)
    : sampleRateHertz_(sampleRateHertz),
      blockFrames_(blockFrames),
      idleAfterSeconds_(idleAfterSeconds),
      firstAudioGraceSeconds_(firstAudioGraceSeconds > idleAfterSeconds ? firstAudioGraceSeconds : idleAfterSeconds) {}

void SilencePacer::start(double nowSeconds) {
    lastRealSeconds_ = nowSeconds;
    heardRealAudio_ = false;
    idle_ = false;
    silenceFramesDelivered_ = 0;
}

void SilencePacer::noteRealBlock(double nowSeconds) {
    lastRealSeconds_ = nowSeconds;
    heardRealAudio_ = true;
    idle_ = false;
    silenceFramesDelivered_ = 0;
}

std::uint32_t SilencePacer::takeSilenceBlocksDue(double nowSeconds) {
    const double quietSeconds = nowSeconds - lastRealSeconds_;
    if (quietSeconds < (heardRealAudio_ ? idleAfterSeconds_ : firstAudioGraceSeconds_)) return 0;
    idle_ = true;
    const auto dueFrames = static_cast<std::uint64_t>(quietSeconds * sampleRateHertz_);
    if (dueFrames < silenceFramesDelivered_ + blockFrames_) return 0;
    const auto blocks = static_cast<std::uint32_t>((dueFrames - silenceFramesDelivered_) / blockFrames_);
    silenceFramesDelivered_ += static_cast<std::uint64_t>(blocks) * blockFrames_;
    return blocks;
}

std::uint32_t SilencePacer::takeSilenceBlocksBeforeFirstAudio(double nowSeconds, std::uint64_t availableFrames,
                                                              std::uint64_t toleranceFrames) {
    if (heardRealAudio_ || nowSeconds <= lastRealSeconds_) return 0;
    const auto dueFrames = static_cast<std::uint64_t>((nowSeconds - lastRealSeconds_) * sampleRateHertz_);
    const std::uint64_t coveredFrames = silenceFramesDelivered_ + availableFrames + toleranceFrames;
    if (dueFrames <= coveredFrames) return 0;
    const auto blocks = static_cast<std::uint32_t>((dueFrames - coveredFrames) / blockFrames_);
    silenceFramesDelivered_ += static_cast<std::uint64_t>(blocks) * blockFrames_;
    return blocks;
}

std::uint64_t SilencePacer::backlogToDrop(std::uint64_t availableFrames, std::uint64_t toleranceFrames) const {
    if (!heardRealAudio_ || !idle_ || availableFrames <= toleranceFrames) return 0;
    const std::uint64_t backlog = availableFrames - toleranceFrames;
    return backlog < silenceFramesDelivered_ ? backlog : silenceFramesDelivered_;
}

}  // namespace velto::pulse
