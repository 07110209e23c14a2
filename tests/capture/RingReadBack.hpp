#pragma once
// Reads what a capture's ring holds, for checks on what the capture wrote.

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
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

// Reads, as the mixer would, while another thread writes a counter (channel c
// holds counter × (-1)^c) until `totalFrames` frames arrived: every value once, in order.
inline void expectCountingSignal(FloatRingBuffer& ring, std::int64_t totalFrames) {
    std::vector<std::vector<float>> channels(static_cast<std::size_t>(ring.channels()), std::vector<float>(100));
    std::vector<float*> destinations;
    for (auto& channel : channels) destinations.push_back(channel.data());
    for (std::int64_t expected = 0; expected < totalFrames;) {
        const auto available = std::min<std::int64_t>(ring.availableFrames(), 100);
        if (available == 0) std::this_thread::yield();
        ring.read(destinations, available);
        for (std::int64_t i = 0; i < available; ++i, ++expected) {
            for (std::size_t c = 0; c < channels.size(); ++c) {
                ASSERT_EQ(channels[c][static_cast<std::size_t>(i)], static_cast<float>(c % 2 ? -expected : expected))
                    << "channel " << c;
            }
        }
    }
}

}  // namespace velto::testing
