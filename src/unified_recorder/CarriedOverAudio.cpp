#include "unified_recorder/CarriedOverAudio.hpp"

namespace velto {

CarriedOverAudio CarriedOverAudio::takeFrom(FloatRingBuffer& ring, double sampleRateHertz) {
    CarriedOverAudio carried;
    carried.sampleRateHertz_ = sampleRateHertz;
    carried.frames_ = ring.availableFrames();
    carried.channels_.assign(static_cast<size_t>(ring.channels()), std::vector<float>(static_cast<size_t>(carried.frames_)));
    std::vector<float*> destinations;
    for (auto& channel : carried.channels_) destinations.push_back(channel.data());
    if (carried.frames_ > 0) ring.read(destinations, carried.frames_);
    return carried;
}

int64_t CarriedOverAudio::prefill(FloatRingBuffer& ring) const {
    if (frames_ == 0 || ring.channels() != static_cast<int64_t>(channels_.size())) return 0;
    std::vector<const float*> sources;
    for (const auto& channel : channels_) sources.push_back(channel.data());
    return ring.write(sources, frames_);
}

}  // namespace velto
