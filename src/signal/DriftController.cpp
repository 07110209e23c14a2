#include "signal/DriftController.hpp"

#include <algorithm>
#include <cmath>

namespace velto {

namespace {

constexpr double kForgetSeconds = 30.0;
constexpr double kErrorFilterSeconds = 1.0;
// The loop starts quick enough to take out what the estimate missed while it
// formed, then narrows so that delivery jitter moves the sources less.
constexpr double kAcquiringRadiansPerSecond = 0.15;
constexpr double kTrackingRadiansPerSecond = 0.05;
constexpr double kNarrowingFromSeconds = 20.0;
constexpr double kNarrowingOverSeconds = 20.0;
// The integrator waits for the first estimate: what it gathered meanwhile would
// have to be unwound later, moving the source long after it had settled.
constexpr double kIntegratorFromSeconds = 3.0;
// Beyond the largest skew, room for the loop to bring the fill back.
constexpr double kLargestCorrection = DriftController::kLargestSkew * 1.5;
// The line's points: the earliest delivery of each half second while the line
// is young, of every two seconds once it has enough behind it to let the
// points come slower and cleaner (fewer of them fall in a stretch of late ones).
constexpr double kYoungBinSeconds = 0.5;
constexpr double kSettledBinSeconds = 2.0;
constexpr double kYoungLineSeconds = 10.0;
// A line through fewer points, or a shorter span, says little about a rate.
constexpr double kMinimumWeight = 2.5;
constexpr double kMinimumSpanSeconds = 1.0;
// Out of range only once the estimate is settled, not on a start-up transient.
constexpr double kOutOfRangeJudgedAfterSeconds = 10.0;
// A delivery this far off the line through the others is a jump, not jitter.
constexpr double kLineSettledSeconds = 5.0;
constexpr double kDiscontinuitySeconds = 0.05;
// The fill is held from when the line has this much behind it.
constexpr double kLineReadySeconds = 2.0;

}  // namespace

DriftController::DriftController(double nominalRateHertz, std::optional<double> carriedSkew)
    : nominalRateHertz_(nominalRateHertz), priorSkew_(carriedSkew) {
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
    // so that the sums stay small and keep their precision over hours.
    const double x = atSeconds - *firstStampSeconds_;
    const double y = static_cast<double>(producedFrames - firstStampFrames_) / nominalRateHertz_ - x;
    const double binSeconds = regressionSpanSeconds() < kYoungLineSeconds ? kYoungBinSeconds : kSettledBinSeconds;
    if (binStartSeconds_ && atSeconds - *binStartSeconds_ >= binSeconds) {
        addLinePoint(binBestX_, binBestY_);
        binStartSeconds_.reset();
    }
    if (!binStartSeconds_) {
        binStartSeconds_ = atSeconds;
        binBestX_ = x;
        binBestY_ = y;
    } else if (y > binBestY_) {
        binBestX_ = x;
        binBestY_ = y;
    }
}

void DriftController::addLinePoint(double x, double y) {
    if (pointCount_ > 0) {
        if (regressionSpanSeconds() >= kLineSettledSeconds &&
            std::abs(y - (lineIntercept() + regressionSlope() * x)) > kDiscontinuitySeconds) {
            // The source jumped: what came before says nothing about its rate from
            // here, nor about the fill to hold.
            priorSkew_ = estimatedSkew();
            setpointFrames_.reset();
            weightSum_ = xSum_ = ySum_ = xxSum_ = xySum_ = 0;
            pointCount_ = 0;
        } else {
            const double decay = std::exp(-std::max(0.0, x - lastPointSeconds_) / kForgetSeconds);
            weightSum_ *= decay;
            xSum_ *= decay;
            ySum_ *= decay;
            xxSum_ *= decay;
            xySum_ *= decay;
        }
    }
    if (pointCount_ == 0) linePointsFromSeconds_ = x;
    ++pointCount_;
    lastPointSeconds_ = x;
    weightSum_ += 1.0;
    xSum_ += x;
    ySum_ += y;
    xxSum_ += x * x;
    xySum_ += x * y;
}

double DriftController::regressionSpanSeconds() const {
    return pointCount_ > 0 ? lastPointSeconds_ - linePointsFromSeconds_ : 0.0;
}

double DriftController::lineIntercept() const {
    return weightSum_ > 0 ? (ySum_ - regressionSlope() * xSum_) / weightSum_ : 0.0;
}

double DriftController::regressionSlope() const {
    const double denominator = weightSum_ * xxSum_ - xSum_ * xSum_;
    if (weightSum_ < kMinimumWeight || regressionSpanSeconds() < kMinimumSpanSeconds || denominator <= 0) return 0.0;
    return (weightSum_ * xySum_ - xSum_ * ySum_) / denominator;
}

double DriftController::estimatedSkew() const {
    const double own = regressionSlope();
    if (!priorSkew_) return own;
    // An earlier estimate hands over to this line's own as its stamps accumulate.
    const double weight = std::min(1.0, regressionSpanSeconds() / kOwnEstimateSeconds);
    return weight * own + (1.0 - weight) * *priorSkew_;
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
    const double slope = regressionSlope();
    const double intercept = lineIntercept();
    const double predictedFrames = static_cast<double>(firstStampFrames_) +
                                   (lineSeconds + intercept + slope * lineSeconds) * nominalRateHertz_;
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
    const double feedForward = std::clamp(skew, -kLargestSkew, kLargestSkew);
    const double span = regressionSpanSeconds();
    const double narrowing = std::clamp((span - kNarrowingFromSeconds) / kNarrowingOverSeconds, 0.0, 1.0);
    const double loopRadiansPerSecond =
        kAcquiringRadiansPerSecond + (kTrackingRadiansPerSecond - kAcquiringRadiansPerSecond) * narrowing;
    const double proportionalGain = 2.0 * loopRadiansPerSecond;  // critically damped
    const double integralGain = loopRadiansPerSecond * loopRadiansPerSecond;
    const double headroom = kLargestCorrection - std::abs(feedForward);
    if (span >= kIntegratorFromSeconds || priorSkew_) {
        integral_ = std::clamp(integral_ + integralGain * filteredErrorSeconds_ * dt, -headroom, headroom);
    }
    correction_ = std::clamp(feedForward + proportionalGain * filteredErrorSeconds_ + integral_, -kLargestCorrection,
                             kLargestCorrection);
    return correction_;
}

}  // namespace velto
