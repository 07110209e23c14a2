#pragma once
// Where the input engine's tap thread leaves the microphone's blocks for the recorder
// queue: a ring buffer allocated once at set-up. The tap only copies samples into it
// (deinterleaving into scratch space that is also allocated once); it allocates nothing,
// takes no lock (the ring is lock-free) and never waits for the queue. The queue takes
// the samples out in blocks of the tap's size on its own schedule.
//
// Threads: push() on the tap thread only; take() on the recorder queue only; the
// counters from any thread.

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "signal/FloatRingBuffer.hpp"
#include "veltoaudio/PcmBuffer.hpp"

namespace velto {

class TapInlet {
public:
    // `inputFormat` is what the tap delivers; `capacityFrames` how much may wait for the queue.
    TapInlet(const PcmFormat& inputFormat, int64_t capacityFrames);

    // Tap thread. Frames that do not fit are dropped and counted.
    void push(const PcmBuffer& buffer);

    // Recorder queue. A new non-interleaved buffer with up to `maximumFrames` frames, or
    // null when fewer than `minimumFrames` are waiting.
    std::shared_ptr<PcmBuffer> take(int64_t minimumFrames, int64_t maximumFrames);

    // The format of the buffers take() returns: the input's rate and channels, non-interleaved.
    const PcmFormat& blockFormat() const { return blockFormat_; }
    int64_t droppedFrames() const { return droppedFrames_.load(std::memory_order_relaxed); }

private:
    static constexpr int64_t kScratchFrames = 2048;

    const PcmFormat inputFormat_;
    const PcmFormat blockFormat_;
    FloatRingBuffer ring_;
    std::vector<std::vector<float>> scratch_;  // tap thread only
    std::vector<const float*> sources_;        // tap thread only
    std::atomic<int64_t> droppedFrames_{0};
};

}  // namespace velto
