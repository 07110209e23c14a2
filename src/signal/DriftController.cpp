#include "signal/DriftController.hpp"

#include <algorithm>
#include <cmath>

namespace velto {

namespace {

// The line through the deliveries spans this much and keeps the earliest of each bin.
// Long, because the fill is left to the estimate: a slope off by 3 ppm for minutes
// moves a source 2 ms in ten, and a line's slope is uncertain by its deliveries'
// jitter over its span. A device's clock wanders far more slowly than that.
constexpr double kLineWindowSeconds = 120.0;
constexpr double kLineBinSeconds = 0.25;
constexpr double kErrorFilterSeconds = 1.0;
// The estimate is followed through a low-pass this slow: the line's slope steps a
// little whenever a bin closes, and the fine resampler's ratio should not.
constexpr double kFollowSeconds = 1.0;
// The loop answers only a fill this far off the one held, and then gently (a tenth of
// the excess a second): its work is what the estimate leaves over minutes, and each
// of its moves is one the sources make. It has no integrator: the estimate is the
// source's rate, and an integrator wound up while the fill was outside would hold its
// value inside, a bias that walks the fill across the band for minutes.
constexpr double kFillToleranceSeconds = 0.002;
constexpr double kLoopGainPerSecond = 0.1;
// Beyond the largest skew, room for the loop to bring the fill back.
constexpr double kLargestCorrection = DriftController::kLargestSkew * 1.5;
// A line over a shorter span says little about a rate.
constexpr double kMinimumSpanSeconds = 1.0;
// Out of range only once the estimate is settled, not on a start-up transient.
constexpr double kOutOfRangeJudgedAfterSeconds = 10.0;
// A source whose deliveries lie this far off the line for this long has jumped (a
// device that lost time to an underrun, or caught up at once), which no skew explains:
// the line starts afresh. A single late delivery (a stalled main loop) is back on the
// line with the next one; a lasting step would bend the line for its whole window
// (35 ms lost read as -3800 ppm for half a minute on the sandbox's speakers).
constexpr double kLineSettledSeconds = 5.0;
constexpr double kStepSeconds = 0.01;
constexpr double kStepLastingSeconds = 1.0;
// The fill is held from when the line has this much behind it.
constexpr double kLineReadySeconds = 2.0;

}  // namespace

DriftController::DriftController(double nominalRateHertz, std::optional<double> carriedSkew)
    : nominalRateHertz_(nominalRateHertz), priorSkew_(carriedSkew), line_(kLineWindowSeconds, kLineBinSeconds) {
    if (priorSkew_) correction_ = std::clamp(*priorSkew_, -kLargestSkew, kLargestSkew);
}

void DriftController::addDelivery(int64_t producedFrames, double atSeconds) {
    if (producedFrames == lastStampFrames_) return;  // nothing new since the last tick
    lastStampFrames_ = producedFrames;
    if (!firstStampSeconds_) {
        firstStampSeconds_ = atSeconds;
        firstStampFrames_ = producedFrames;
    }
    // Relative to the first stamp, and y as the deviation from the nominal rate,
    // so that the values stay small and keep their precision over hours.
    const double x = atSeconds - *firstStampSeconds_;
    const double y = static_cast<double>(producedFrames - firstStampFrames_) / nominalRateHertz_ - x;
    const double offLine = line_.hasLine() && line_.spanSeconds() >= kLineSettledSeconds ? y - line_.valueAt(x) : 0.0;
    if (std::abs(offLine) <= kStepSeconds || (stepStartSeconds_ && (offLine > 0) != (stepSign_ > 0))) {
        stepStartSeconds_.reset();
    }
    if (std::abs(offLine) > kStepSeconds) {
        if (!stepStartSeconds_) {
            stepStartSeconds_ = x;
            stepSign_ = offLine > 0 ? 1 : -1;
        }
        if (x - *stepStartSeconds_ >= kStepLastingSeconds) {
            // What came before says nothing about the source's place from here, nor
            // about the fill to hold; its rate is what it was.
            priorSkew_ = estimatedSkew();
            setpointFrames_.reset();
            line_.clear();
            stepStartSeconds_.reset();
        } else {
            return;  // off the line, for now: kept out of it
        }
    }
    line_.add(x, y);
}

double DriftController::regressionSpanSeconds() const { return line_.spanSeconds(); }

double DriftController::lineValueAt(double x) const { return line_.valueAt(x); }

double DriftController::regressionSlope() const {
    if (!line_.hasLine() || line_.spanSeconds() < kMinimumSpanSeconds) return 0.0;
    return line_.slope();
}

double DriftController::estimatedSkew() const {
    const double own = regressionSlope();
    if (!priorSkew_) return own;
    // An earlier estimate hands over to this line's own as its stamps accumulate.
    const double weight = std::min(1.0, regressionSpanSeconds() / kOwnEstimateSeconds);
    return weight * own + (1.0 - weight) * *priorSkew_;
}

void DriftController::setFollowingAnother(bool following) {
    if (following_ && !following) {
        // Taking over: the fill found from now on is the one to hold.
        setpointFrames_.reset();
    }
    following_ = following;
}

double DriftController::update(double nowSeconds, int64_t producedFrames, double deliveredAtSeconds,
                               int64_t readFrames) {
    if (!firstUpdateSeconds_) firstUpdateSeconds_ = nowSeconds;
    if (nowSeconds - *firstUpdateSeconds_ < kWarmUpSeconds) return correction_;
    addDelivery(producedFrames, deliveredAtSeconds);
    if (regressionSpanSeconds() < kLineReadySeconds) {
        setpointFrames_.reset();
        return correction_;
    }
    // The fill now: where the line through the deliveries puts the source now,
    // less what was read. The line, not the last stamp: a device that hands its
    // audio on in uneven batches moves the last stamp by whole batches, the line not.
    const double lineSeconds = nowSeconds - *firstStampSeconds_;
    const double predictedFrames =
        static_cast<double>(firstStampFrames_) + (lineSeconds + lineValueAt(lineSeconds)) * nominalRateHertz_;
    const double fillFrames = predictedFrames - static_cast<double>(readFrames);
    if (!setpointFrames_) {
        setpointFrames_ = fillFrames;
        lastUpdateSeconds_ = nowSeconds;
        filteredErrorSeconds_ = 0;
    }
    const double dt = std::clamp(nowSeconds - *lastUpdateSeconds_, 0.0, 1.0);
    lastUpdateSeconds_ = nowSeconds;
    const double errorSeconds = (fillFrames - *setpointFrames_) / nominalRateHertz_;
    filteredErrorSeconds_ += (errorSeconds - filteredErrorSeconds_) * std::min(1.0, dt / kErrorFilterSeconds);

    const double skew = estimatedSkew();
    // A source at the very edge of the range is estimated a little either side of it.
    if (std::abs(skew) > kLargestSkew * 1.05 && regressionSpanSeconds() >= kOutOfRangeJudgedAfterSeconds) {
        skewOutOfRange_ = true;
    }
    // The estimate is followed once it lies clearly away from where the source started
    // (no skew, or the one carried over): beyond twice its deliveries' scatter over its
    // span. A young line's wander (a few hundred ppm at 2 s on the sandbox's monitor)
    // then moves nothing, and a real skew is taken whole, without a bias to unwind.
    const double span = regressionSpanSeconds();
    const double prior = priorSkew_.value_or(0.0);
    const double uncertainty = 2.0 * line_.scatterSeconds() / std::max(span, kMinimumSpanSeconds);
    followingEstimate_ = followingEstimate_ || std::abs(skew - prior) > uncertainty;
    const double target = std::clamp(followingEstimate_ ? skew : prior, -kLargestSkew, kLargestSkew);
    if (!feedForward_) feedForward_ = correction_;
    *feedForward_ += (target - *feedForward_) * std::min(1.0, dt / kFollowSeconds);
    if (following_) {
        // Another source's correction is applied: the error is watched, not answered.
        correction_ = *feedForward_;
        return correction_;
    }
    const double loopErrorSeconds =
        std::copysign(std::max(0.0, std::abs(filteredErrorSeconds_) - kFillToleranceSeconds), filteredErrorSeconds_);
    correction_ = std::clamp(*feedForward_ + kLoopGainPerSecond * loopErrorSeconds, -kLargestCorrection,
                             kLargestCorrection);
    return correction_;
}

}  // namespace velto
