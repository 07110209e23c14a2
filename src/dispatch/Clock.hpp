#pragma once

#include <atomic>
#include <chrono>
#include <memory>

namespace velto {

// A source of time in seconds. Pacing, timers and elapsed times read it, so tests
// can drive them with a ManualClock and simulate hours in seconds.
// Thread-safe.
class Clock {
public:
    virtual ~Clock() = default;
    // Seconds on a monotonic scale (never jumps with wall-clock adjustments).
    virtual double nowSeconds() const = 0;
    // How long a worker may sleep in real time before `deadlineSeconds` could
    // have come. A manual clock answers with a short poll interval.
    virtual std::chrono::nanoseconds realTimeUntil(double deadlineSeconds) const = 0;

    // The process's monotonic clock.
    static std::shared_ptr<Clock> system();
};

// Time that moves only when a test moves it.
class ManualClock final : public Clock {
public:
    explicit ManualClock(double startSeconds = 1000.0) : nowSeconds_(startSeconds) {}
    double nowSeconds() const override { return nowSeconds_.load(); }
    std::chrono::nanoseconds realTimeUntil(double deadlineSeconds) const override;
    void set(double seconds) { nowSeconds_.store(seconds); }
    void advance(double seconds);

private:
    std::atomic<double> nowSeconds_;
};

}  // namespace velto
