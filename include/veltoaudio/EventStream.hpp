#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <optional>

namespace velto {

// Why a stream ended: its producer finished it (normally or with an error), or
// its consumer stopped listening.
enum class StreamTermination { finished, cancelled };

namespace detail {

// What the reading end sees of a stream's channel. Only the library creates
// channels; a host reads them through EventStream.
template <class T>
class StreamReadEnd {
public:
    virtual ~StreamReadEnd() = default;
    virtual std::optional<T> next() = 0;
    virtual bool waitFor(std::chrono::nanoseconds timeout) = 0;
    virtual void cancel() noexcept = 0;
    virtual bool isTerminated() const noexcept = 0;
    virtual std::uint64_t droppedCount() const noexcept = 0;
};

// Cancels the channel when the last consumer handle goes away.
template <class T>
struct ConsumerLifetime {
    explicit ConsumerLifetime(std::shared_ptr<StreamReadEnd<T>> c) : channel(std::move(c)) {}
    ConsumerLifetime(const ConsumerLifetime&) = delete;
    ConsumerLifetime& operator=(const ConsumerLifetime&) = delete;
    ~ConsumerLifetime() { channel->cancel(); }
    std::shared_ptr<StreamReadEnd<T>> channel;
};

// The library's own access to a stream's channel (making streams, relaying them).
template <class T>
struct StreamAccess;

}  // namespace detail

// The reading end of a single-consumer stream that ends normally or with an error.
// Copies share one channel, and the channel is cancelled when the last copy goes
// away. A stream keeps what its producer yields until it is read, or, when the
// producer bounds it, only the newest elements (droppedCount() says how many
// older ones a slow reader lost).
//
// An input range: `for (auto& event : stream)` and the <ranges> views read it
// element by element, blocking like next().
//
// Threads: the producer may yield from any thread; one thread at a time consumes
// (next(), iteration); cancel() may be called from any thread and wakes a blocked
// next().
template <class T>
class EventStream {
public:
    EventStream() = default;

    // Blocks until an element arrives or the stream ends. None at the normal end;
    // rethrows the producer's error at the end (once).
    std::optional<T> next() { return lifetime_ ? lifetime_->channel->next() : std::nullopt; }
    // True when next() would not block.
    template <class Rep, class Period>
    bool waitFor(std::chrono::duration<Rep, Period> timeout) {
        return !lifetime_ || lifetime_->channel->waitFor(std::chrono::ceil<std::chrono::nanoseconds>(timeout));
    }
    // Stops listening: buffered elements are dropped and the producer learns that
    // the consumer cancelled.
    void cancel() noexcept {
        if (lifetime_) lifetime_->channel->cancel();
    }
    bool isTerminated() const noexcept { return !lifetime_ || lifetime_->channel->isTerminated(); }
    // Elements lost because the stream keeps only the newest ones and its reader
    // fell behind; always 0 for a stream that keeps everything.
    std::uint64_t droppedCount() const noexcept { return lifetime_ ? lifetime_->channel->droppedCount() : 0; }
    explicit operator bool() const noexcept { return lifetime_ != nullptr; }

    // Single-pass: the element it points at is held by the stream, and advancing
    // reads the next one.
    class Iterator {
    public:
        using iterator_concept = std::input_iterator_tag;
        using value_type = T;
        using difference_type = std::ptrdiff_t;

        Iterator() = default;
        T& operator*() const { return *stream_->current_; }
        T* operator->() const { return &*stream_->current_; }
        Iterator& operator++() {
            stream_->advance();
            return *this;
        }
        void operator++(int) { ++*this; }
        friend bool operator==(const Iterator& it, std::default_sentinel_t) { return it.atEnd(); }

    private:
        friend class EventStream;
        explicit Iterator(EventStream* stream) : stream_(stream) {}
        bool atEnd() const { return !stream_ || !stream_->current_; }
        EventStream* stream_ = nullptr;
    };
    // Reads the first element (blocking); the end rethrows the producer's error.
    Iterator begin() {
        advance();
        return Iterator(this);
    }
    std::default_sentinel_t end() const noexcept { return {}; }

private:
    friend struct detail::StreamAccess<T>;
    explicit EventStream(std::shared_ptr<detail::StreamReadEnd<T>> channel)
        : lifetime_(std::make_shared<detail::ConsumerLifetime<T>>(std::move(channel))) {}
    void advance() {
        current_.reset();
        current_ = next();
    }

    std::shared_ptr<detail::ConsumerLifetime<T>> lifetime_;
    std::optional<T> current_;  // what an iterator of this handle points at
};

}  // namespace velto
