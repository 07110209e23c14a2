#include "microphone_recorder/TapInlet.hpp"

#include <algorithm>

namespace velto {

TapInlet::TapInlet(const PcmFormat& inputFormat, int64_t capacityFrames)
    : inputFormat_(inputFormat),
      blockFormat_(PcmFormat{inputFormat.sampleRate, std::max<uint32_t>(inputFormat.channelCount, 1), false}),
      ring_(blockFormat_.channelCount, capacityFrames),
      scratch_(blockFormat_.channelCount, std::vector<float>(kScratchFrames)),
      sources_(blockFormat_.channelCount, nullptr) {}

void TapInlet::push(const PcmBuffer& buffer) {
    const auto channels = buffer.floatChannelData();
    const uint32_t channelCount = buffer.channelCount();
    if (channels.empty() || channelCount != blockFormat_.channelCount) return;
    const int64_t frames = buffer.frameLength();

    if (!buffer.format().interleaved || channelCount == 1) {
        for (uint32_t c = 0; c < channelCount; ++c) sources_[c] = channels[buffer.format().interleaved ? 0 : c];
        droppedFrames_.fetch_add(frames - ring_.write(sources_, frames), std::memory_order_relaxed);
        return;
    }
    // Interleaved: deinterleave through the scratch space, a piece at a time.
    const float* interleaved = channels[0];
    for (int64_t done = 0; done < frames; done += kScratchFrames) {
        const int64_t piece = std::min(kScratchFrames, frames - done);
        for (int64_t f = 0; f < piece; ++f) {
            for (uint32_t c = 0; c < channelCount; ++c) scratch_[c][f] = interleaved[(done + f) * channelCount + c];
        }
        for (uint32_t c = 0; c < channelCount; ++c) sources_[c] = scratch_[c].data();
        droppedFrames_.fetch_add(piece - ring_.write(sources_, piece), std::memory_order_relaxed);
    }
}

std::shared_ptr<PcmBuffer> TapInlet::take(int64_t minimumFrames, int64_t maximumFrames) {
    const int64_t available = ring_.availableFrames();
    if (available < std::max<int64_t>(minimumFrames, 1)) return nullptr;
    const auto frames = static_cast<uint32_t>(std::min(available, maximumFrames));
    auto block = PcmBuffer::make(blockFormat_, frames);
    if (!block) return nullptr;
    block->setFrameLength(frames);
    const auto destinations = block->floatChannelData();
    ring_.read(std::vector<float*>(destinations.begin(), destinations.end()), frames);
    return block;
}

}  // namespace velto
