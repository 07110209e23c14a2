#pragma once
// Wakes one waiting thread from any thread, including a real-time callback: raise() is
// one write(2) on an eventfd, with no lock and no allocation, and a raise that comes
// while nobody waits is kept for the next wait, so no wake-up is ever missed.
// Raises before a wait collapse into one.

#include <chrono>

namespace velto::pulse {

class WakeupSignal {
public:
    WakeupSignal();  // throws std::system_error when no eventfd can be made
    ~WakeupSignal();
    WakeupSignal(const WakeupSignal&) = delete;
    WakeupSignal& operator=(const WakeupSignal&) = delete;

    void raise() noexcept;
    // True when raised (and then lowered again), false when the time ran out.
    bool waitFor(std::chrono::microseconds timeout) noexcept;

private:
    int fd_ = -1;
};

}  // namespace velto::pulse
