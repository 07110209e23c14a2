#include "signal/MixBus.hpp"

#include <algorithm>
#include <cmath>

#include "signal/VectorMath.hpp"

namespace velto {

MixBus::MixBus(int64_t bufferFrameCapacity)
    : bufferFrameCapacity_(bufferFrameCapacity),
      output_(std::make_unique<float[]>(static_cast<size_t>(std::max<int64_t>(bufferFrameCapacity, 1)) * 2)),
      silence_(std::make_unique<float[]>(static_cast<size_t>(std::max<int64_t>(bufferFrameCapacity, 1)))) {}

void MixBus::configure(MixerTrackLayout layout) { layout_ = layout; }

MixBus::Measurement MixBus::mix(const float* system, float systemGain, const float* microphone,
                                float microphoneGain, int64_t frames) {
    float* out = output_.get();
    int64_t samples = frames;
    if (layout_ == MixerTrackLayout::separate) {
        // Each source keeps its own level: no gains, and each sample is limited
        // on its own channel, so one side's peak never touches the other.
        vec::interleavePair(microphone ? microphone : silence_.get(), system ? system : silence_.get(), out, frames);
        samples = frames * 2;
    } else if (system && microphone) {
        vec::weightedSum(system, systemGain, microphone, microphoneGain, out, frames);
    } else {
        vec::clear(out, frames);
        if (system) vec::multiplyAdd(system, systemGain, out, frames);
        if (microphone) vec::multiplyAdd(microphone, microphoneGain, out, frames);
    }
    // Clipping and metering share one pass; the levels are those of the clipped
    // block, the overflow test uses the peak before clipping.
    const auto clipped = vec::clipAndMeasure(out, kClipThreshold, samples);
    Measurement measurement;
    measurement.peakBeforeClipping = clipped.peakBeforeClipping;
    measurement.level.rms =
        samples > 0 ? static_cast<float>(std::sqrt(clipped.sumOfSquares / static_cast<double>(samples))) : 0.0f;
    measurement.level.peak = std::min(clipped.peakBeforeClipping, kClipThreshold);
    return measurement;
}

}  // namespace velto
