#pragma once

#include <chrono>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

namespace velto {

// Why a stream ended: its producer finished it (normally or with an error), or
// its consumer stopped listening.
enum class StreamTermination { finished, cancelled };

namespace detail {

template <class T>
class StreamChannel {
public:
    bool yield(T value) {
        {
            std::lock_guard lock(mutex_);
            if (terminated_) return false;
            if (!relaying_) {
                buffer_.push_back(std::move(value));
                available_.notify_one();
                return true;
            }
        }
        std::lock_guard relayLock(relayMutex_);
        relay_(std::move(value));
        return true;
    }

    // The relay mutex keeps elements in order even while what was buffered before the
    // relay began is still being handed on.
    void relay(std::function<void(T)> handler) {
        std::lock_guard relayLock(relayMutex_);
        std::deque<T> buffered;
        {
            std::lock_guard lock(mutex_);
            if (relaying_ || !handler) return;
            relaying_ = true;
            relay_ = std::move(handler);
            buffered.swap(buffer_);
        }
        for (auto& value : buffered) relay_(std::move(value));
    }

    void finish(std::exception_ptr error) { terminate(StreamTermination::finished, std::move(error)); }
    void cancel() { terminate(StreamTermination::cancelled, nullptr); }

    void setOnTermination(std::function<void(StreamTermination)> handler) {
        std::unique_lock lock(mutex_);
        if (!terminated_) {
            onTermination_ = std::move(handler);
            return;
        }
        // Already over: tell the handler at once, as if it had been there.
        auto reason = termination_;
        lock.unlock();
        if (handler && !handlerRan_.exchange(true)) handler(reason);
    }

    std::optional<T> next() {
        std::unique_lock lock(mutex_);
        available_.wait(lock, [&] { return !buffer_.empty() || terminated_; });
        return takeLocked();
    }

    template <class Rep, class Period>
    bool waitFor(std::chrono::duration<Rep, Period> timeout) {
        std::unique_lock lock(mutex_);
        return available_.wait_for(lock, timeout, [&] { return !buffer_.empty() || terminated_; });
    }

    bool isTerminated() const {
        std::lock_guard lock(mutex_);
        return terminated_;
    }

private:
    std::optional<T> takeLocked() {
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

    void terminate(StreamTermination reason, std::exception_ptr error) {
        std::function<void(StreamTermination)> handler;
        {
            std::lock_guard lock(mutex_);
            if (terminated_) return;
            terminated_ = true;
            termination_ = reason;
            if (reason == StreamTermination::cancelled) {
                buffer_.clear();
            } else {
                error_ = std::move(error);
            }
            handler = std::move(onTermination_);
            onTermination_ = nullptr;
            available_.notify_all();
        }
        if (handler && !handlerRan_.exchange(true)) handler(reason);
    }

    mutable std::mutex mutex_;
    std::mutex relayMutex_;
    bool relaying_ = false;  // guarded by mutex_
    std::function<void(T)> relay_;  // set once, under both mutexes; called under relayMutex_
    std::condition_variable available_;
    std::deque<T> buffer_;
    bool terminated_ = false;
    StreamTermination termination_ = StreamTermination::finished;
    std::exception_ptr error_;
    std::function<void(StreamTermination)> onTermination_;
    std::atomic<bool> handlerRan_{false};
};

// Cancels the channel when the last consumer handle goes away.
template <class T>
struct ConsumerLifetime {
    explicit ConsumerLifetime(std::shared_ptr<StreamChannel<T>> c) : channel(std::move(c)) {}
    ConsumerLifetime(const ConsumerLifetime&) = delete;
    ConsumerLifetime& operator=(const ConsumerLifetime&) = delete;
    ~ConsumerLifetime() { channel->cancel(); }
    std::shared_ptr<StreamChannel<T>> channel;
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

}  // namespace detail

// A single-consumer channel with unbounded buffering that ends normally or with
// an error. This handle is the consumer end; copies share one channel, and the
// channel is cancelled when the last copy goes away.
//
// Threads: the producer end may be used from any thread; one thread at a time
// consumes (next(), range-for); cancel() may be called from any thread and wakes
// a blocked next().
template <class T>
class EventStream {
public:
    // The producer end. Copies share one channel; the channel is finished when
    // the last copy goes away.
    class Continuation {
    public:
        Continuation() = default;
        // False when the stream has already ended (the value is dropped).
        bool yield(T value) const { return lifetime_ && lifetime_->channel->yield(std::move(value)); }
        void finish() const {
            if (lifetime_) lifetime_->channel->finish(nullptr);
        }
        void finish(std::exception_ptr error) const {
            if (lifetime_) lifetime_->channel->finish(std::move(error));
        }
        // Runs once: when the stream is finished, or when its consumer stops
        // listening. May run on any thread; runs at once when already ended.
        void setOnTermination(std::function<void(StreamTermination)> handler) const {
            if (lifetime_) lifetime_->channel->setOnTermination(std::move(handler));
        }
        bool isTerminated() const { return !lifetime_ || lifetime_->channel->isTerminated(); }
        explicit operator bool() const { return lifetime_ != nullptr; }

    private:
        friend class EventStream;
        explicit Continuation(std::shared_ptr<detail::StreamChannel<T>> channel)
            : lifetime_(std::make_shared<detail::ProducerLifetime<T>>(std::move(channel))) {}
        std::shared_ptr<detail::ProducerLifetime<T>> lifetime_;
    };

    static std::pair<EventStream, Continuation> make() {
        auto channel = std::make_shared<detail::StreamChannel<T>>();
        return {EventStream(channel), Continuation(channel)};
    }

    EventStream() = default;

    // Blocks until an element arrives or the stream ends. None at the normal end;
    // rethrows the producer's error at the end (once).
    std::optional<T> next() { return lifetime_ ? lifetime_->channel->next() : std::nullopt; }
    // True when next() would not block.
    template <class Rep, class Period>
    bool waitFor(std::chrono::duration<Rep, Period> timeout) {
        return !lifetime_ || lifetime_->channel->waitFor(timeout);
    }
    // Hands every element to `handler` on the producer's thread as it is yielded, in
    // order, instead of keeping it for next(); elements kept so far go first. For a
    // consumer that only passes elements on, this saves a thread and a wake-up per
    // element. Takes effect once; next() then waits only for the end. The handler must
    // not yield into this stream, and the stream must stay referenced while relaying.
    void relay(std::function<void(T)> handler) {
        if (lifetime_) lifetime_->channel->relay(std::move(handler));
    }
    // Stops listening: buffered elements are dropped and the producer's
    // termination handler learns that the consumer cancelled.
    void cancel() {
        if (lifetime_) lifetime_->channel->cancel();
    }
    bool isTerminated() const { return !lifetime_ || lifetime_->channel->isTerminated(); }
    explicit operator bool() const { return lifetime_ != nullptr; }

    class Iterator {
    public:
        using value_type = T;
        using difference_type = std::ptrdiff_t;
        Iterator() = default;
        explicit Iterator(EventStream* stream) : stream_(stream) { advance(); }
        T& operator*() { return *current_; }
        Iterator& operator++() {
            advance();
            return *this;
        }
        bool operator==(const Iterator& other) const { return !current_ && !other.current_; }

    private:
        void advance() { current_ = stream_->next(); }
        EventStream* stream_ = nullptr;
        std::optional<T> current_;
    };
    Iterator begin() { return Iterator(this); }
    Iterator end() { return Iterator(); }

private:
    explicit EventStream(std::shared_ptr<detail::StreamChannel<T>> channel)
        : lifetime_(std::make_shared<detail::ConsumerLifetime<T>>(std::move(channel))) {}
    std::shared_ptr<detail::ConsumerLifetime<T>> lifetime_;
};

}  // namespace velto
