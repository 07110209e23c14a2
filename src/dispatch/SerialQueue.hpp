#pragma once

#include <functional>
#include <memory>
#include <string>

#include "dispatch/Clock.hpp"
#include "dispatch/QualityOfService.hpp"

namespace velto {

// Runs submitted work one item at a time, in order, on a thread of its own.
// Any thread may submit. Work submitted with async() before the queue is
// destroyed still runs; work scheduled for later with asyncAfter() whose time has
// not come is dropped with the queue.
class SerialQueue {
public:
    static std::shared_ptr<SerialQueue> create(std::string label, QualityOfService qos,
                                               std::shared_ptr<Clock> clock = Clock::system());
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    void async(std::function<void()> work);
    // Runs `work` on the queue and returns when it has run. Called on the queue
    // itself, it runs `work` at once instead of deadlocking.
    void sync(const std::function<void()>& work);
    // Runs `work` once the clock reaches `deadlineSeconds`, in deadline order.
    void asyncAfter(double deadlineSeconds, std::function<void()> work);
    // True when called from work running on this queue.
    bool isCurrent() const;

    const std::string& label() const;
    QualityOfService qualityOfService() const;
    const std::shared_ptr<Clock>& clock() const;

    struct Core;

private:
    explicit SerialQueue(std::shared_ptr<Core> core);
    std::shared_ptr<Core> core_;
};

}  // namespace velto
