#include "dispatch/Clock.hpp"

namespace velto {

namespace {
class SystemClock final : public Clock {
public:
    double nowSeconds() const override {
        using namespace std::chrono;
        return duration<double>(steady_clock::now().time_since_epoch()).count();
    }
    std::chrono::nanoseconds realTimeUntil(double deadlineSeconds) const override {
        double remaining = deadlineSeconds - nowSeconds();
        if (remaining <= 0) return std::chrono::nanoseconds(0);
        return std::chrono::nanoseconds(int64_t(remaining * 1e9));
    }
};
}  // namespace

std::shared_ptr<Clock> Clock::system() {
    static const std::shared_ptr<Clock> clock = std::make_shared<SystemClock>();
    return clock;
}

std::chrono::nanoseconds ManualClock::realTimeUntil(double deadlineSeconds) const {
    if (deadlineSeconds <= nowSeconds()) return std::chrono::nanoseconds(0);
    // Time moves only by advance(); look again soon.
    return std::chrono::milliseconds(2);
}

void ManualClock::advance(double seconds) {
    double current = nowSeconds_.load();
    while (!nowSeconds_.compare_exchange_weak(current, current + seconds)) {
    }
}

}  // namespace velto
