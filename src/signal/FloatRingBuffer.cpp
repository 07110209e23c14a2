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
    : channels_(channels), capacityFrames_(capacityFrames) {
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

int64_t FloatRingBuffer::write(std::span<const float* const> sources, int64_t frameCount) {
    if (frameCount < 1) {
        return 0;
    }
    if (static_cast<int64_t>(sources.size()) != channels_) {
        logger().critical("Source channel count (" + std::to_string(sources.size()) +
                          ") doesn't match buffer channels (" + std::to_string(channels_) + ")");
        return 0;
    }

    int64_t framesToWrite = 0;
    int64_t startIndex = 0;
    {
        std::lock_guard guard(lock_);
        const int64_t freeFrames = capacityFrames_ - framesAvailable_;
        if (freeFrames < 1) {
            return 0;
        }
        framesToWrite = std::min(freeFrames, frameCount);
        // Only this thread moves writeIndex_, so reading it here is the same
        // as reading it under a second hold.
        startIndex = writeIndex_;
    }

    const int64_t firstRun = std::min(capacityFrames_ - startIndex, framesToWrite);
    const int64_t secondRun = framesToWrite - firstRun;
    for (int64_t channel = 0; channel < channels_; ++channel) {
        float* storage = buffers_[static_cast<size_t>(channel)].get();
        const float* source = sources[static_cast<size_t>(channel)];
        std::memmove(storage + startIndex, source, static_cast<size_t>(firstRun) * sizeof(float));
        if (secondRun > 0) {
            std::memmove(storage, source + firstRun, static_cast<size_t>(secondRun) * sizeof(float));
        }
    }

    {
        std::lock_guard guard(lock_);
        writeIndex_ = (writeIndex_ + framesToWrite) % capacityFrames_;
        framesAvailable_ += framesToWrite;
    }
    return framesToWrite;
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

    int64_t startIndex = 0;
    int64_t storedFrames = 0;
    {
        std::lock_guard guard(lock_);
        startIndex = readIndex_;
        storedFrames = framesAvailable_;
    }
    const int64_t framesToRead = std::min(storedFrames, frameCount);
    const int64_t firstRun = std::min(capacityFrames_ - startIndex, framesToRead);
    const int64_t secondRun = framesToRead - firstRun;
    const int64_t silentFrames = frameCount - framesToRead;

    for (int64_t channel = 0; channel < channels_; ++channel) {
        const float* storage = buffers_[static_cast<size_t>(channel)].get();
        float* destination = destinations[static_cast<size_t>(channel)];
        if (firstRun > 0) {
            std::memmove(destination, storage + startIndex, static_cast<size_t>(firstRun) * sizeof(float));
        }
        if (secondRun > 0) {
            std::memmove(destination + firstRun, storage, static_cast<size_t>(secondRun) * sizeof(float));
        }
        if (silentFrames > 0) {
            std::fill_n(destination + framesToRead, silentFrames, 0.0f);
        }
    }

    if (storedFrames < 1) {
        return;
    }
    std::lock_guard guard(lock_);
    readIndex_ = (readIndex_ + framesToRead) % capacityFrames_;
    framesAvailable_ -= framesToRead;
}

int64_t FloatRingBuffer::availableFrames() const {
    std::lock_guard guard(lock_);
    return framesAvailable_;
}

FloatRingBuffer::Snapshot FloatRingBuffer::snapshot() const {
    std::lock_guard guard(lock_);
    return Snapshot{channels_, framesAvailable_};
}

void FloatRingBuffer::reset() {
    {
        std::lock_guard guard(lock_);
        writeIndex_ = 0;
        readIndex_ = 0;
        framesAvailable_ = 0;
    }
    for (auto& storage : buffers_) {
        std::fill_n(storage.get(), capacityFrames_, 0.0f);
    }
    logger().debug("Reset FloatRingBuffer");
}

}  // namespace velto
