#pragma once

#include <cstdint>

namespace velto {

// Decides how many mixing-rate frames a tick is due: as many as the clock says
// have passed since mixing started, minus those already produced, at most one
// block. Late ticks catch up; an early tick gets nothing. Mixing thread only.
class MixPacer {
public:
    explicit MixPacer(int64_t bufferFrameCapacity) : bufferFrameCapacity_(bufferFrameCapacity) {}

    void start(double nowSeconds, double mixingSampleRateHertz);
    // Paces from `nowSeconds` on as if mixing started then, keeping the count of
    // frames produced: after a pause nothing is owed for the paused time.
    void restartAt(double nowSeconds);
    int64_t framesDue(double nowSeconds) const;
    void advance(int64_t frames) { totalFramesProcessed_ += frames; }

    int64_t totalFramesProcessed() const { return totalFramesProcessed_; }
    double mixingSampleRateHertz() const { return mixingSampleRateHertz_; }

private:
    const int64_t bufferFrameCapacity_;
    double startSeconds_ = 0;
    double mixingSampleRateHertz_ = 48000.0;
    int64_t totalFramesProcessed_ = 0;
    int64_t framesBeforeStart_ = 0;  // produced before the last (re)start
};

}  // namespace velto
