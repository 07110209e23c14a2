#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "signal/AudioConverter.hpp"

namespace velto {
namespace {

PcmFormat mono(double rate) { return *PcmFormat::make(rate, 1, true); }

std::shared_ptr<PcmBuffer> silentBlock(const PcmFormat& format, uint32_t frames) {
    auto buffer = PcmBuffer::make(format, frames);
    buffer->setFrameLength(frames);
    return buffer;
}

std::vector<uint32_t> jitteredBlocks(uint32_t nominal, size_t count, unsigned seed) {
    std::mt19937 random(seed);
    std::vector<uint32_t> blocks(count);
    for (auto& block : blocks) block = nominal / 2 + static_cast<uint32_t>(random() % nominal);
    return blocks;
}

// Across a stream the output keeps pace exactly with the input: what is still
// missing at any moment never exceeds the advertised hold-back, and nothing
// is produced beyond what is due.
TEST(AudioConverterTest, StreamOutputKeepsPaceWithinTheHoldBack) {
    struct Case { double in, out; uint32_t nominalBlock; };
    for (const auto& c : {Case{48000, 16000, 1024}, Case{44100, 48000, 735}, Case{16000, 48000, 266},
                          Case{48000, 44100, 800}}) {
        SCOPED_TRACE(std::to_string(c.in) + " -> " + std::to_string(c.out));
        auto converter = AudioConverter::create(mono(c.in), mono(c.out));
        const int64_t holdBack = converter->maximumHeldBackFrames();
        EXPECT_GT(holdBack, 0);
        EXPECT_LT(holdBack, static_cast<int64_t>(c.out * 0.1));  // well under 100 ms
        int64_t inputTotal = 0, outputTotal = 0, worstBehind = 0;
        for (const uint32_t frames : jitteredBlocks(c.nominalBlock, 3000, 5)) {
            const auto out = converter->convert(*silentBlock(mono(c.in), frames));
            inputTotal += frames;
            outputTotal += out->frameLength();
            const auto due = static_cast<int64_t>(std::floor(static_cast<double>(inputTotal) * c.out / c.in));
            ASSERT_LE(outputTotal, due);
            worstBehind = std::max(worstBehind, due - outputTotal);
        }
        EXPECT_LE(worstBehind, holdBack);
        EXPECT_EQ(AudioConverter::create(mono(c.in), mono(c.in))->maximumHeldBackFrames(), 0);
    }
}

}  // namespace
}  // namespace velto
