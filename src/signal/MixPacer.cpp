#include "signal/MixPacer.hpp"

#include <algorithm>

namespace velto {

void MixPacer::start(double nowSeconds, double mixingSampleRateHertz) {
    startSeconds_ = nowSeconds;
    mixingSampleRateHertz_ = mixingSampleRateHertz;
    totalFramesProcessed_ = 0;
    framesBeforeStart_ = 0;
}

void MixPacer::restartAt(double nowSeconds) {
    startSeconds_ = nowSeconds;
    framesBeforeStart_ = totalFramesProcessed_;
}

int64_t MixPacer::framesDue(double nowSeconds) const {
    // The clock's seconds carry rounding error; a frame boundary that the clock
    // reaches exactly must count as reached, hence the tiny tolerance.
    constexpr double kFrameTolerance = 1e-6;
    const auto elapsedFrames =
        static_cast<int64_t>((nowSeconds - startSeconds_) * mixingSampleRateHertz_ + kFrameTolerance);
    return std::clamp<int64_t>(elapsedFrames - (totalFramesProcessed_ - framesBeforeStart_), 0, bufferFrameCapacity_);
}

}  // namespace velto
