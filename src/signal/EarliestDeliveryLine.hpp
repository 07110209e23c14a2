#pragma once

#include <cstdint>
#include <vector>

namespace velto {

// Where a source's clock stands, from when its deliveries arrived: a delivery can
// come late, never early, and how late wanders (a sound server hands a monitor's
// audio on a block late for a while, a loaded machine runs the main loop late), so
// the clock shows in the earliest deliveries, not in the average one. Points are
// (x = arrival, seconds; y = what the source had delivered by then, seconds, less x),
// and the line is the one no point lies above that comes closest to all of them
// (the linear program of Moon, Skelly and Towsley, "Estimation and removal of clock
// skew from network delay measurements", 1999): the edge of the points' upper convex
// hull above their mean arrival. Its slope is the source's skew.
//
// A regression through all the deliveries, or through the earliest of each half
// second, carries their lateness into the slope: on the sandbox's monitor, whose
// earliest delivery per half second wanders by 0.35 ms, that is some 300 ppm on a
// line of 2 s and 80 on one of 5. The hull's edge is set by the few deliveries that
// came on time.
//
// Points are kept over a sliding window (the earliest of each bin); everything is
// allocated at construction. Not thread-safe: one owner.
class EarliestDeliveryLine {
public:
    EarliestDeliveryLine(double windowSeconds, double binSeconds);

    void add(double x, double y);
    void clear();

    // Seconds between the first point since clear() and the last one.
    double spanSeconds() const { return windowCount_ > 0 ? lastX_ - firstX_ : 0.0; }
    // Whether there is a line (two points at least, a bin apart).
    bool hasLine() const { return hasLine_; }
    double slope() const { return slope_; }
    double valueAt(double x) const { return anchorY_ + slope_ * (x - anchorX_); }
    // How late the window's points lie under the line on average, seconds: how much
    // the deliveries wander, and so how far the line's ends may be off. The slope of
    // a line of span T is uncertain by about twice this over T.
    double scatterSeconds() const { return scatter_; }

private:
    struct Point {
        double x = 0, y = 0;
    };
    void closeBin();
    void fit();

    const double binSeconds_;
    std::vector<Point> window_;  // a ring, oldest first from windowStart_
    int64_t windowStart_ = 0;
    int64_t windowCount_ = 0;
    std::vector<Point> hull_;  // scratch, as large as the window
    bool binOpen_ = false;
    Point bin_;
    double binStartX_ = 0;
    double firstX_ = 0, lastX_ = 0;
    bool hasLine_ = false;
    double slope_ = 0, anchorX_ = 0, anchorY_ = 0;
    double scatter_ = 0;
};

}  // namespace velto
