#pragma once

#include <cstdint>
#include <optional>

namespace velto {

// Keeps one capture source in step with the mixer's clock (the system clock):
// every tick it learns how far the source's ring has filled beyond the level it
// held when mixing began, and answers with the correction to the rate at which
// the source is read (+0.0005: read 500 ppm faster).
//
// Two parts, as a delay-locked loop has them:
// - the source's own rate, from a least-squares line through its deliveries
//   (frames written against the time they arrived), over a window that forgets
//   with a 30 s time constant: this is the skew, and it is fed forward. A
//   delivery can come late, never early, and how late wanders (a sound server
//   hands a monitor's audio on a block behind for seconds, then on time): so
//   each second gives the line one point, its earliest delivery, and the line
//   follows the envelope of the deliveries, which is where the device's clock is;
// - a slow PI loop on the fill error (low-passed over 1 s, critically damped,
//   0.15 rad/s narrowing to 0.05 once the estimate has 40 s behind it) that
//   takes out what the estimate leaves.
// Delivery jitter of a few milliseconds then moves the read position by well
// under a millisecond, and the correction changes by a few ppm per tick:
// smooth enough that the fine resampler never makes an audible step.
//
// A stream's first deliveries come in bursts (what the device held when the
// stream connected, then a catch-up faster than real time): the controller
// watches only from 3 s after its first tick, and holds the fill once a line
// through 2 s of stamps places the source. A delivery far off that line (a
// stall, a device that caught up at once) starts the line afresh.
//
// Corrections stay within ±(kLargestSkew + half again for the loop); a source that
// drifts further is reported once and keeps the largest correction, its ring
// then filling or draining as it would without correction.
//
// Not thread-safe: the mixer's ticks only.
class DriftController {
public:
    static constexpr double kLargestSkew = 0.002;  // 2000 ppm

    // `carriedSkew`: the estimate of an earlier run on the same device, used until
    // this run's own stamps have shown the rate.
    DriftController(double nominalRateHertz, std::optional<double> carriedSkew = std::nullopt);

    // `producedFrames`: all the source has delivered up to `deliveredAtSeconds`;
    // `readFrames`: all the mixer has taken by `nowSeconds`. Returns the correction.
    double update(double nowSeconds, int64_t producedFrames, double deliveredAtSeconds, int64_t readFrames);

    double correction() const { return correction_; }
    // The source's estimated skew against the mixer's clock (+: its clock runs fast).
    double estimatedSkew() const;
    static constexpr double kWarmUpSeconds = 3.0;
    // Set once the skew has been seen beyond the range (reported by the owner).
    bool skewOutOfRange() const { return skewOutOfRange_; }
    // Seconds the fill lies from where it was held (the source's delay change).
    double fillErrorSeconds() const { return filteredErrorSeconds_; }

private:
    static constexpr double kOwnEstimateSeconds = 10.0;
    void addDelivery(int64_t producedFrames, double atSeconds);
    void addLinePoint(double x, double y);
    void restartLine(int64_t producedFrames, double atSeconds);
    double lineIntercept() const;
    double regressionSlope() const;
    double regressionSpanSeconds() const;

    const double nominalRateHertz_;
    // An earlier estimate to start from: a carried one, or this run's own before a restart of the line.
    std::optional<double> priorSkew_;
    std::optional<double> firstUpdateSeconds_;

    // Least-squares sums over (x = stamp time, y = produced seconds − x), forgetting.
    double weightSum_ = 0, xSum_ = 0, ySum_ = 0, xxSum_ = 0, xySum_ = 0;
    std::optional<double> firstStampSeconds_;
    int64_t firstStampFrames_ = 0;
    double linePointsFromSeconds_ = 0, lastPointSeconds_ = 0;  // x of the line's first and latest points
    int64_t pointCount_ = 0;
    int64_t lastStampFrames_ = -1;
    // The second being gathered: its earliest delivery (highest y) so far.
    std::optional<double> binStartSeconds_;
    double binBestX_ = 0, binBestY_ = 0;

    std::optional<double> setpointFrames_;
    std::optional<double> lastUpdateSeconds_;
    double filteredErrorSeconds_ = 0;
    double integral_ = 0;
    double correction_ = 0;
    bool skewOutOfRange_ = false;
};

}  // namespace velto
