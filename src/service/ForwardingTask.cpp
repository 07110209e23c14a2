#include "service/ForwardingTask.hpp"

#include <algorithm>

namespace velto {

ForwardingTask::~ForwardingTask() {
    // The owner joins; a thread still joinable here would terminate the process, so
    // detach rather than crash (its body holds only weak references).
    if (thread_.joinable()) thread_.detach();
}

void ForwardingTask::cancel() {
    cancelled_.store(true);
    if (recorderEvents_) recorderEvents_->cancel();
}

void ForwardingTask::markEnded() {
    {
        std::lock_guard lock(endMutex_);
        ended_ = true;
    }
    endChanged_.notify_all();
}

bool ForwardingTask::hasEnded() const {
    std::lock_guard lock(endMutex_);
    return ended_;
}

bool ForwardingTask::waitUntilEnded(const Clock& clock, double deadlineSeconds) {
    std::unique_lock lock(endMutex_);
    while (!ended_) {
        if (clock.nowSeconds() >= deadlineSeconds) return false;
        // A manual clock answers with a short poll interval, so a test that moves it is seen.
        auto wait = std::min(clock.realTimeUntil(deadlineSeconds), std::chrono::nanoseconds(std::chrono::milliseconds(50)));
        endChanged_.wait_for(lock, wait);
    }
    return true;
}

void ForwardingTask::join() {
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
}

}  // namespace velto
