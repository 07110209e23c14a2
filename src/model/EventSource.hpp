#pragma once
// The producing side of the library's streams: making a stream, yielding into it,
// finishing it, relaying it. A host only ever reads (veltoaudio/EventStream.hpp).

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

#include "dispatch/ThreadAnnotations.hpp"
#include "veltoaudio/EventStream.hpp"
#include "veltoaudio/PcmBuffer.hpp"

namespace velto {

// How much a stream keeps for a reader that has not taken it yet.
struct StreamBuffering {
    std::size_t newestElements = 0;  // 0: everything

    static constexpr StreamBuffering unbounded() { return {}; }
    // Keeps the newest `count` elements: a reader that falls behind loses the oldest,
    // counted in droppedCount() on both ends.
    static constexpr StreamBuffering newest(std::size_t count) { return {count}; }
};

namespace detail {

template <class T>
class StreamChannel final : public StreamReadEnd<T> {
public:
    explicit StreamChannel(StreamBuffering buffering) : limit_(buffering.newestElements) {}

    bool yield(T value) {
        std::optional<T> evicted;  // released outside the lock
        {
            MutexLock lock(mutex_);
            if (terminated_) return false;
            if (!relaying_) {
                if (limit_ != 0 && buffer_.size() >= limit_) {
                    evicted.emplace(std::move(buffer_.front()));
                    buffer_.pop_front();
                    dropped_.fetch_add(1, std::memory_order_relaxed);
                }
                buffer_.push_back(std::move(value));
                available_.notify_one();
                return true;
            }
        }
        MutexLock relayLock(relayMutex_);
        relay_(std::move(value));
        return true;
    }

    // The relay mutex keeps elements in order even while what was buffered before the
    // relay began is still being handed on.
    void relay(std::function<void(T)> handler) {
        MutexLock relayLock(relayMutex_);
        std::deque<T> buffered;
        {
            MutexLock lock(mutex_);
            if (relaying_ || !handler) return;
            relaying_ = true;
            relay_ = std::move(handler);
            buffered.swap(buffer_);
        }
        for (auto& value : buffered) relay_(std::move(value));
    }

    void finish(std::exception_ptr error) noexcept { terminate(StreamTermination::finished, std::move(error)); }
    void cancel() noexcept override { terminate(StreamTermination::cancelled, nullptr); }

    void setOnTermination(std::function<void(StreamTermination)> handler) {
        MutexUniqueLock lock(mutex_);
        if (!terminated_) {
            onTermination_ = std::move(handler);
            return;
        }
        // Already over: tell the handler at once, as if it had been there.
        auto reason = termination_;
        lock.unlock();
        if (handler && !handlerRan_.exchange(true)) handler(reason);
    }

    std::optional<T> next() override {
        MutexUniqueLock lock(mutex_);
        while (buffer_.empty() && !terminated_) available_.wait(lock);
        return takeLocked();
    }

    bool waitFor(std::chrono::nanoseconds timeout) override {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        MutexUniqueLock lock(mutex_);
        // A poll (no time to wait) answers at once: a timed wait on a deadline already
        // past still sleeps in the kernel for its timer slack, some 50 µs a call.
        if (timeout <= std::chrono::nanoseconds::zero()) return !buffer_.empty() || terminated_;
        while (buffer_.empty() && !terminated_) {
            if (available_.wait_until(lock, deadline) == std::cv_status::timeout) return !buffer_.empty() || terminated_;
        }
        return true;
    }

    bool isTerminated() const noexcept override {
        MutexLock lock(mutex_);
        return terminated_;
    }

    std::uint64_t droppedCount() const noexcept override { return dropped_.load(std::memory_order_relaxed); }

private:
    std::optional<T> takeLocked() VELTO_REQUIRES(mutex_) {
        if (!buffer_.empty()) {
            T value = std::move(buffer_.front());
            buffer_.pop_front();
            return value;
        }
        if (error_) {
            auto error = std::exchange(error_, nullptr);
            std::rethrow_exception(error);
        }
        return std::nullopt;
    }

    void terminate(StreamTermination reason, std::exception_ptr error) noexcept {
        std::function<void(StreamTermination)> handler;
        std::deque<T> discarded;  // released outside the lock
        {
            MutexLock lock(mutex_);
            if (terminated_) return;
            terminated_ = true;
            termination_ = reason;
            if (reason == StreamTermination::cancelled) {
                discarded.swap(buffer_);
            } else {
                error_ = std::move(error);
            }
            handler = std::move(onTermination_);
            onTermination_ = nullptr;
            available_.notify_all();
        }
        if (handler && !handlerRan_.exchange(true)) handler(reason);
    }

    const std::size_t limit_;
    mutable Mutex mutex_;
    Mutex relayMutex_;
    bool relaying_ VELTO_GUARDED_BY(mutex_) = false;
    // Set once, under both mutexes (so a yield sees either the buffer or the relay).
    std::function<void(T)> relay_ VELTO_GUARDED_BY(relayMutex_);
    std::condition_variable_any available_;
    std::deque<T> buffer_ VELTO_GUARDED_BY(mutex_);
    std::atomic<std::uint64_t> dropped_{0};
    bool terminated_ VELTO_GUARDED_BY(mutex_) = false;
    StreamTermination termination_ VELTO_GUARDED_BY(mutex_) = StreamTermination::finished;
    std::exception_ptr error_ VELTO_GUARDED_BY(mutex_);
    std::function<void(StreamTermination)> onTermination_ VELTO_GUARDED_BY(mutex_);
    std::atomic<bool> handlerRan_{false};
};

// Finishes the channel when the last producer handle goes away, so a consumer
// never waits for a producer that no longer exists.
template <class T>
struct ProducerLifetime {
    explicit ProducerLifetime(std::shared_ptr<StreamChannel<T>> c) : channel(std::move(c)) {}
    ProducerLifetime(const ProducerLifetime&) = delete;
    ProducerLifetime& operator=(const ProducerLifetime&) = delete;
    ~ProducerLifetime() { channel->finish(nullptr); }
    std::shared_ptr<StreamChannel<T>> channel;
};

template <class T>
struct StreamAccess {
    static EventStream<T> readEnd(std::shared_ptr<StreamChannel<T>> channel) {
        return EventStream<T>(std::move(channel));
    }
    // Null for a default-constructed stream. Every channel is made by EventSource.
    static StreamChannel<T>* channel(const EventStream<T>& stream) {
        return stream.lifetime_ ? static_cast<StreamChannel<T>*>(stream.lifetime_->channel.get()) : nullptr;
    }
};

}  // namespace detail

// Makes streams and holds their producing ends.
template <class T>
class EventSource {
public:
    // The producer end. Copies share one channel; the channel is finished when
    // the last copy goes away. Any thread.
    class Continuation {
    public:
        Continuation() = default;
        // False when the stream has already ended (the value is dropped). A bounded
        // stream that is full takes the value and drops its oldest element.
        bool yield(T value) const { return lifetime_ && lifetime_->channel->yield(std::move(value)); }
        void finish() const noexcept {
            if (lifetime_) lifetime_->channel->finish(nullptr);
        }
        void finish(std::exception_ptr error) const noexcept {
            if (lifetime_) lifetime_->channel->finish(std::move(error));
        }
        // Runs once: when the stream is finished, or when its consumer stops
        // listening. May run on any thread; runs at once when already ended.
        void setOnTermination(std::function<void(StreamTermination)> handler) const {
            if (lifetime_) lifetime_->channel->setOnTermination(std::move(handler));
        }
        bool isTerminated() const noexcept { return !lifetime_ || lifetime_->channel->isTerminated(); }
        std::uint64_t droppedCount() const noexcept { return lifetime_ ? lifetime_->channel->droppedCount() : 0; }
        explicit operator bool() const noexcept { return lifetime_ != nullptr; }

    private:
        friend class EventSource;
        explicit Continuation(std::shared_ptr<detail::StreamChannel<T>> channel)
            : lifetime_(std::make_shared<detail::ProducerLifetime<T>>(std::move(channel))) {}
        std::shared_ptr<detail::ProducerLifetime<T>> lifetime_;
    };

    static std::pair<EventStream<T>, Continuation> make(StreamBuffering buffering = StreamBuffering::unbounded()) {
        auto channel = std::make_shared<detail::StreamChannel<T>>(buffering);
        return {detail::StreamAccess<T>::readEnd(channel), Continuation(channel)};
    }

    // Hands every element of `stream` to `handler` on the producer's thread as it is
    // yielded, in order, instead of keeping it for next(); elements kept so far go
    // first. For a consumer that only passes elements on, this saves a thread and a
    // wake-up per element. Takes effect once; next() then waits only for the end. The
    // handler must not yield into this stream, and the stream must stay referenced
    // while relaying.
    static void relay(const EventStream<T>& stream, std::function<void(T)> handler) {
        if (auto* channel = detail::StreamAccess<T>::channel(stream)) channel->relay(std::move(handler));
    }
};

using AudioBufferSource = EventSource<std::shared_ptr<PcmBuffer>>;

}  // namespace velto
