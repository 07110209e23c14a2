#pragma once
// Turns a burst of change events into one notification. Loading one device makes the
// sound server announce a sink, its monitor source and a server change within a few
// milliseconds; observers should hear of it once, after the burst has settled, and a
// steady stream of events must still be reported now and then.
//
// Times are seconds on any monotonic clock, passed in by the caller (a test passes
// exact values). Not thread-safe: the owner guards it.

namespace velto::platform {

class ChangeCoalescer {
public:
    // Settled: no event for `quietSeconds`, or the burst's first event is `maximumDelaySeconds` old.
    ChangeCoalescer(double quietSeconds, double maximumDelaySeconds);

    void noteChange(double nowSeconds);
    // True once per settled burst, which it then forgets.
    bool takeSettled(double nowSeconds);
    bool hasPending() const { return pending_; }

private:
    double quietSeconds_;
    double maximumDelaySeconds_;
    bool pending_ = false;
    double firstChangeSeconds_ = 0.0;
    double lastChangeSeconds_ = 0.0;
};

}  // namespace velto::platform
