#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "dispatch/Clock.hpp"
#include "veltoaudio/EventStream.hpp"
#include "veltoaudio/RecordingEvent.hpp"

namespace velto {

// The background task that relays one recording's events: its thread, its cancellation
// and the moment it ended.
//
// Threads: the service creates it and starts its thread; cancel() and the recorder-events
// handle are used with the service's turn held; markEnded()/waitUntilEnded()/hasEnded()
// from any thread. join() from any thread but the task's own.
class ForwardingTask {
public:
    explicit ForwardingTask(std::uint64_t sessionGeneration) : sessionGeneration_(sessionGeneration) {}
    ~ForwardingTask();
    ForwardingTask(const ForwardingTask&) = delete;
    ForwardingTask& operator=(const ForwardingTask&) = delete;

    std::uint64_t sessionGeneration() const { return sessionGeneration_; }

    template <class Body>
    void start(Body body) {
        thread_ = std::thread(std::move(body));
    }

    // Ends the task's wait on the recorder's events as a normal end. A task cancelled
    // before it took the recorder's events does not build a recorder at all.
    void cancel();
    bool isCancelled() const { return cancelled_.load(); }

    // The consumer end the task reads; kept here so that cancel() can end the wait.
    void setRecorderEvents(EventStream<RecordingEvent> events) { recorderEvents_ = std::move(events); }

    void markEnded();
    bool hasEnded() const;
    // True when the task ended before the clock reached `deadlineSeconds`.
    bool waitUntilEnded(const Clock& clock, double deadlineSeconds);

    void join();

private:
    const std::uint64_t sessionGeneration_;
    std::thread thread_;
    std::atomic<bool> cancelled_{false};
    std::optional<EventStream<RecordingEvent>> recorderEvents_;
    mutable std::mutex endMutex_;
    std::condition_variable endChanged_;
    bool ended_ = false;
};

}  // namespace velto
