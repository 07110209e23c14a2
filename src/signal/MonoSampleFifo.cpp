#include "signal/MonoSampleFifo.hpp"

#include <algorithm>

namespace velto {

MonoSampleFifo::MonoSampleFifo(int64_t capacityFrames)
    : capacityFrames_(std::max<int64_t>(capacityFrames, 0)),
      samples_(std::make_unique<float[]>(static_cast<size_t>(std::max<int64_t>(capacityFrames_, 1)))) {}

int64_t MonoSampleFifo::push(const float* samples, int64_t count) {
    const int64_t accepted = std::clamp<int64_t>(count, 0, capacityFrames_ - availableFrames_);
    int64_t writeIndex = (readIndex_ + availableFrames_) % std::max<int64_t>(capacityFrames_, 1);
    for (int64_t done = 0; done < accepted;) {
        const int64_t run = std::min(accepted - done, capacityFrames_ - writeIndex);
        if (samples) std::copy_n(samples + done, run, samples_.get() + writeIndex);
        else std::fill_n(samples_.get() + writeIndex, run, 0.0f);
        done += run;
        writeIndex = (writeIndex + run) % capacityFrames_;
    }
    availableFrames_ += accepted;
    return accepted;
}

int64_t MonoSampleFifo::pushSilence(int64_t count) { return push(nullptr, count); }

int64_t MonoSampleFifo::pop(float* destination, int64_t count) {
    const int64_t taken = std::clamp<int64_t>(count, 0, availableFrames_);
    for (int64_t done = 0; done < taken;) {
        const int64_t run = std::min(taken - done, capacityFrames_ - readIndex_);
        std::copy_n(samples_.get() + readIndex_, run, destination + done);
        done += run;
        readIndex_ = (readIndex_ + run) % capacityFrames_;
    }
    availableFrames_ -= taken;
    return taken;
}

}  // namespace velto
