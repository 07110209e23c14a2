#pragma once

#include <cstdint>
#include <optional>

#include "signal/EarliestDeliveryLine.hpp"

namespace velto {

// Keeps one capture source in step with the mixer's clock (the system clock):
// every tick it learns how far the source's ring has filled beyond the level it
// held when mixing began, and answers with the correction to the rate at which
// the source is read (+0.0005: read 500 ppm faster).
//
// Two parts, as a delay-locked loop has them:
// - the source's own rate, from the line along its earliest deliveries (frames
//   written against the time they arrived, over the last two minutes; see
//   EarliestDeliveryLine): this is the skew, and it is fed forward, through a
//   1 s low-pass, once it lies clearly off the starting point (a young line's
//   wander is not a skew);
// - a gentle proportional loop on the fill error beyond 2 ms, which takes out
//   what the estimate leaves over minutes.
// Each change of the ratio moves the source against the others, and moves the
// loudspeakers' echo under the echo canceller (100 ppm more or less shifts a
// 300 ms echo by half a sample): so the ratio changes only as the evidence
// demands, smoothly, and a fill that wanders within the jitter reserve is left
// alone. On the sandbox's paced devices a skewed microphone's marks then stay
// within 0.2-0.6 ms of their grid after 10 s, the speakers' within 0.03 ms.
//
// A stream's first deliveries come in bursts (what the device held when the
// stream connected, then a catch-up faster than real time): the controller
// watches only from 3 s after its first tick, and holds the fill once a line
// through 2 s of stamps places the source. Deliveries that stay 10 ms off that
// line for a second (a device that lost time, or caught up at once) start the
// line afresh, holding the fill where it then is.
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

    // While the source is read at another source's correction (both on one clock, as
    // far as is known), the controller goes on estimating the skew and the fill but
    // keeps no loop state of its own; when it takes over, it holds the fill where it
    // is then rather than pulling it back to where it was: the source moves no further.
    void setFollowingAnother(bool following);
    bool isFollowingAnother() const { return following_; }
    // Seconds of stamps the line has behind it.
    double lineSpanSeconds() const { return regressionSpanSeconds(); }

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
    double lineValueAt(double x) const;
    double regressionSlope() const;
    double regressionSpanSeconds() const;

    const double nominalRateHertz_;
    // An earlier estimate to start from: a carried one, or this run's own before a restart of the line.
    std::optional<double> priorSkew_;
    std::optional<double> firstUpdateSeconds_;

    // Through (x = stamp time, y = produced seconds − x), from the first stamp.
    EarliestDeliveryLine line_;
    std::optional<double> firstStampSeconds_;
    int64_t firstStampFrames_ = 0;
    int64_t lastStampFrames_ = -1;
    // Since when the deliveries have lain off the line by a step, and on which side.
    std::optional<double> stepStartSeconds_;
    int stepSign_ = 0;

    std::optional<double> setpointFrames_;
    std::optional<double> lastUpdateSeconds_;
    double filteredErrorSeconds_ = 0;
    double correction_ = 0;
    bool skewOutOfRange_ = false;
    bool following_ = false;
    std::optional<double> feedForward_;  // the estimate as followed (low-passed)
    bool followingEstimate_ = false;     // the estimate has shown a skew of its own
};

}  // namespace velto
