#include "signal/MonoSampleFifo.hpp"

#include <algorithm>

namespace velto {

MonoSampleFifo::MonoSampleFifo(int64_t capacityFrames)
    : positions_(capacityFrames),
      samples_(std::make_unique<float[]>(static_cast<size_t>(std::max<int64_t>(positions_.capacityFrames(), 1)))) {}

int64_t MonoSampleFifo::push(const float* samples, int64_t count) {
    const SpscFifo::Spans free = positions_.prepareToWrite(count);
    float* storage = samples_.get();
    if (samples) {
        std::copy_n(samples, free.firstFrames, storage + free.firstStart);
        std::copy_n(samples + free.firstFrames, free.secondFrames, storage);
    } else {
        std::fill_n(storage + free.firstStart, free.firstFrames, 0.0f);
        std::fill_n(storage, free.secondFrames, 0.0f);
    }
    positions_.finishedWrite(free.totalFrames());
    return free.totalFrames();
}

int64_t MonoSampleFifo::pushSilence(int64_t count) { return push(nullptr, count); }

int64_t MonoSampleFifo::pop(float* destination, int64_t count) {
    const SpscFifo::Spans stored = positions_.prepareToRead(count);
    const float* storage = samples_.get();
    std::copy_n(storage + stored.firstStart, stored.firstFrames, destination);
    std::copy_n(storage, stored.secondFrames, destination + stored.firstFrames);
    positions_.finishedRead(stored.totalFrames());
    return stored.totalFrames();
}

}  // namespace velto
