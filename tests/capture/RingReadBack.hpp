#pragma once
// Reads everything a capture's ring holds, channel by channel.

#include <vector>

#include "signal/FloatRingBuffer.hpp"

namespace velto::testing {

inline std::vector<std::vector<float>> readAllFrames(FloatRingBuffer& ring) {
    const auto frames = ring.availableFrames();
    std::vector<std::vector<float>> channels(static_cast<std::size_t>(ring.channels()),
                                             std::vector<float>(static_cast<std::size_t>(frames)));
    std::vector<float*> destinations;
    for (auto& channel : channels) destinations.push_back(channel.data());
    ring.read(destinations, frames);
    return channels;
}

}  // namespace velto::testing
