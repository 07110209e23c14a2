#pragma once

#include <functional>
#include <memory>
#include <mutex>

#include "dispatch/SerialQueue.hpp"

namespace velto {

// A repeating timer whose handler runs on a serial queue, like a dispatch timer
// source: schedule(), setEventHandler(), resume(), and cancel().
//
// Fires at firstDeadline, firstDeadline + interval, ... on the queue's clock. A
// late fire does not queue up the missed ones: the next deadline is the first
// one still ahead. The queue holds the timer weakly; a timer that is released
// stops firing.
//
// Threads: any thread may call the operations. After cancel() returns the
// handler is not running (unless cancel() was called from the handler itself)
// and never starts again.
class RepeatingTimer : public std::enable_shared_from_this<RepeatingTimer> {
public:
    static std::shared_ptr<RepeatingTimer> create(std::shared_ptr<SerialQueue> queue);

    // Leeway is accepted for the interface's sake: fires are never deliberately delayed.
    void schedule(double firstDeadlineSeconds, double intervalSeconds, double leewaySeconds = 0);
    void setEventHandler(std::function<void()> handler);
    void resume();
    void cancel();
    bool isCancelled() const;

    explicit RepeatingTimer(std::shared_ptr<SerialQueue> queue);

private:
    void armLocked(double deadlineSeconds);
    void fire(uint64_t generation, double deadlineSeconds);

    std::shared_ptr<SerialQueue> queue_;
    // Guards the fields below and is held while the handler runs; recursive so the
    // handler may call back into its timer.
    mutable std::recursive_mutex mutex_;
    std::function<void()> handler_;
    double firstDeadlineSeconds_ = 0;
    double intervalSeconds_ = 0;
    bool resumed_ = false;
    bool cancelled_ = false;
    uint64_t generation_ = 0;
};

}  // namespace velto
