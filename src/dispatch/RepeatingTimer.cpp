#include "dispatch/RepeatingTimer.hpp"

#include <cmath>

namespace velto {

std::shared_ptr<RepeatingTimer> RepeatingTimer::create(std::shared_ptr<SerialQueue> queue) {
    return std::make_shared<RepeatingTimer>(std::move(queue));
}

RepeatingTimer::RepeatingTimer(std::shared_ptr<SerialQueue> queue) : queue_(std::move(queue)) {}

void RepeatingTimer::schedule(double firstDeadlineSeconds, double intervalSeconds, double) {
    std::lock_guard lock(mutex_);
    firstDeadlineSeconds_ = firstDeadlineSeconds;
    intervalSeconds_ = intervalSeconds;
    ++generation_;  // a reschedule retires fires already queued
    if (resumed_ && !cancelled_) armLocked(firstDeadlineSeconds_);
}

void RepeatingTimer::setEventHandler(std::function<void()> handler) {
    std::lock_guard lock(mutex_);
    handler_ = std::move(handler);
}

void RepeatingTimer::resume() {
    std::lock_guard lock(mutex_);
    if (resumed_ || cancelled_) return;
    resumed_ = true;
    armLocked(firstDeadlineSeconds_);
}

void RepeatingTimer::cancel() {
    std::lock_guard lock(mutex_);  // waits for a handler running on another thread
    cancelled_ = true;
}

bool RepeatingTimer::isCancelled() const {
    std::lock_guard lock(mutex_);
    return cancelled_;
}

void RepeatingTimer::armLocked(double deadlineSeconds) {
    std::weak_ptr<RepeatingTimer> weakSelf = weak_from_this();
    uint64_t generation = generation_;
    queue_->asyncAfter(deadlineSeconds, [weakSelf, generation, deadlineSeconds] {
        if (auto self = weakSelf.lock()) self->fire(generation, deadlineSeconds);
    });
}

void RepeatingTimer::fire(uint64_t generation, double deadlineSeconds) {
    std::lock_guard lock(mutex_);
    if (cancelled_ || generation != generation_) return;
    const double startedSeconds = queue_->clock()->nowSeconds();
    if (handler_) handler_();
    if (cancelled_ || generation != generation_ || intervalSeconds_ <= 0) return;
    double next = deadlineSeconds + intervalSeconds_;
    const double now = queue_->clock()->nowSeconds();
    // Deadlines that had passed before this fire began are skipped, not caught up.
    // One that passed while the handler ran was not handled yet: it fires at once
    // (only once, so that a handler slower than the interval still leaves gaps).
    const bool passedWhileHandling = next <= now && next > startedSeconds;
    if (!passedWhileHandling) {
        if (next <= now) next += std::ceil((now - next) / intervalSeconds_) * intervalSeconds_;
        if (next <= now) next += intervalSeconds_;
    }
    armLocked(next);
}

}  // namespace velto
