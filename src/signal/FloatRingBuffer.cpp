#include "signal/FloatRingBuffer.hpp"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>

#include "logging/LoggerCompat.hpp"

namespace velto {

namespace {

LoggerCompat& logger() {
    static LoggerCompat instance{kLogSubsystem, "FloatRingBuffer"};
    return instance;
}

}  // namespace

std::shared_ptr<FloatRingBuffer> FloatRingBuffer::create(int64_t channels, int64_t capacityFrames) {
    return std::make_shared<FloatRingBuffer>(channels, capacityFrames);
}

FloatRingBuffer::FloatRingBuffer(int64_t channels, int64_t capacityFrames)
    : channels_(channels), capacityFrames_(capacityFrames), positions_(capacityFrames) {
    if (channels < 1 || capacityFrames < 1) {
        throw std::invalid_argument("FloatRingBuffer needs at least 1 channel and 1 frame");
    }
    buffers_.reserve(static_cast<size_t>(channels));
    for (int64_t channel = 0; channel < channels; ++channel) {
        // Value-initialised: the ring starts out as silence.
        buffers_.push_back(std::make_unique<float[]>(static_cast<size_t>(capacityFrames)));
    }
    logger().debug("Created FloatRingBuffer: " + std::to_string(channels) + " channels, " +
                   std::to_string(capacityFrames) + " frames capacity");
}

FloatRingBuffer::~FloatRingBuffer() {
    buffers_.clear();
    logger().debug("Deallocated FloatRingBuffer");
}

int64_t FloatRingBuffer::write(std::span<const float* const> sources, int64_t frameCount, double lastFrameAgeSeconds) {
    if (frameCount < 1) {
        return 0;
    }
    if (static_cast<int64_t>(sources.size()) != channels_) {
        logger().critical("Source channel count (" + std::to_string(sources.size()) +
                          ") doesn't match buffer channels (" + std::to_string(channels_) + ")");
        return 0;
    }

    const SpscFifo::Spans free = positions_.prepareToWrite(frameCount);
    if (free.totalFrames() < 1) {
        return 0;
    }
    for (int64_t channel = 0; channel < channels_; ++channel) {
        float* storage = buffers_[static_cast<size_t>(channel)].get();
        const float* source = sources[static_cast<size_t>(channel)];
        std::memcpy(storage + free.firstStart, source, static_cast<size_t>(free.firstFrames) * sizeof(float));
        if (free.secondFrames > 0) {
            std::memcpy(storage, source + free.firstFrames, static_cast<size_t>(free.secondFrames) * sizeof(float));
        }
    }
    positions_.finishedWrite(free.totalFrames());
    if (deliveryClock_) {
        const double now = deliveryClock_->nowSeconds() - lastFrameAgeSeconds;
        const uint64_t sequence = deliverySequence_.load(std::memory_order_relaxed);
        deliverySequence_.store(sequence + 1, std::memory_order_relaxed);
        std::atomic_thread_fence(std::memory_order_release);
        deliveredFrames_.store(positions_.totalWrittenFrames(), std::memory_order_relaxed);
        deliveredAtSeconds_.store(now, std::memory_order_relaxed);
        hasDelivery_.store(true, std::memory_order_relaxed);
        deliverySequence_.store(sequence + 2, std::memory_order_release);
    }
    return free.totalFrames();
}

void FloatRingBuffer::stampDeliveriesWith(std::shared_ptr<Clock> clock) { deliveryClock_ = std::move(clock); }

std::optional<FloatRingBuffer::Delivery> FloatRingBuffer::lastDelivery() const {
    for (;;) {
        const uint64_t before = deliverySequence_.load(std::memory_order_acquire);
        const bool present = hasDelivery_.load(std::memory_order_relaxed);
        const Delivery delivery{deliveredFrames_.load(std::memory_order_relaxed),
                                deliveredAtSeconds_.load(std::memory_order_relaxed)};
        std::atomic_thread_fence(std::memory_order_acquire);
        if ((before & 1U) == 0 && deliverySequence_.load(std::memory_order_relaxed) == before) {
            return present ? std::optional<Delivery>(delivery) : std::nullopt;
        }
    }
}

void FloatRingBuffer::read(std::span<float* const> destinations, int64_t frameCount) {
    if (frameCount < 1) {
        return;
    }
    if (static_cast<int64_t>(destinations.size()) != channels_) {
        logger().critical("Destination channel count (" + std::to_string(destinations.size()) +
                          ") doesn't match buffer channels (" + std::to_string(channels_) + ")");
        return;
    }

    const SpscFifo::Spans stored = positions_.prepareToRead(frameCount);
    const int64_t framesToRead = stored.totalFrames();
    for (int64_t channel = 0; channel < channels_; ++channel) {
        const float* storage = buffers_[static_cast<size_t>(channel)].get();
        float* destination = destinations[static_cast<size_t>(channel)];
        if (stored.firstFrames > 0) {
            std::memcpy(destination, storage + stored.firstStart, static_cast<size_t>(stored.firstFrames) * sizeof(float));
        }
        if (stored.secondFrames > 0) {
            std::memcpy(destination + stored.firstFrames, storage, static_cast<size_t>(stored.secondFrames) * sizeof(float));
        }
        std::fill_n(destination + framesToRead, frameCount - framesToRead, 0.0f);
    }
    positions_.finishedRead(framesToRead);
}

int64_t FloatRingBuffer::availableFrames() const { return positions_.readyFrames(); }

FloatRingBuffer::Snapshot FloatRingBuffer::snapshot() const { return Snapshot{channels_, positions_.readyFrames()}; }

void FloatRingBuffer::reset() {
    positions_.reset();
    hasDelivery_.store(false);
    for (auto& storage : buffers_) {
        std::fill_n(storage.get(), capacityFrames_, 0.0f);
    }
    logger().debug("Reset FloatRingBuffer");
}

}  // namespace velto
