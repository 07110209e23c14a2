#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "SignalQuality.hpp"
#include "signal/AudioConverter.hpp"

namespace velto {
namespace {

using testing::fitSine;
using testing::sineSample;

PcmFormat mono(double rate) { return *PcmFormat::make(rate, 1, true); }

std::shared_ptr<PcmBuffer> silentBlock(const PcmFormat& format, uint32_t frames) {
    auto buffer = PcmBuffer::make(format, frames);
    buffer->setFrameLength(frames);
    return buffer;
}

// Feeds a 1 kHz sine (the same on every channel) in blocks of the given sizes
// and returns the converter's whole output, first channel.
std::vector<float> convertSine(AudioConverter& converter, const std::vector<uint32_t>& blockFrames) {
    const PcmFormat& in = converter.inputFormat();
    std::vector<float> output;
    long long frame = 0;
    for (const uint32_t frames : blockFrames) {
        auto block = PcmBuffer::make(in, frames);
        for (uint32_t i = 0; i < frames; ++i) {
            const float value = sineSample(1000, in.sampleRate, frame + i);
            for (uint32_t c = 0; c < in.channelCount; ++c) {
                if (in.interleaved) block->floatChannelData()[0][i * in.channelCount + c] = value;
                else block->floatChannelData()[c][i] = value;
            }
        }
        block->setFrameLength(frames);
        frame += frames;
        const auto converted = converter.convert(*block);
        EXPECT_LE(converted->frameLength(), converted->frameCapacity());
        const PcmFormat& out = converted->format();
        for (uint32_t i = 0; i < converted->frameLength(); ++i) {
            output.push_back(out.interleaved ? converted->floatChannelData()[0][i * out.channelCount]
                                             : converted->floatChannelData()[0][i]);
        }
    }
    return output;
}

std::vector<uint32_t> jitteredBlocks(uint32_t nominal, size_t count, unsigned seed) {
    std::mt19937 random(seed);
    std::vector<uint32_t> blocks(count);
    for (auto& block : blocks) block = nominal / 2 + static_cast<uint32_t>(random() % nominal);
    return blocks;
}

TEST(AudioConverterTest, UnmappableChannelCountsAreRefused) {
    try {
        AudioConverter::create(*PcmFormat::make(48000, 3, false), *PcmFormat::make(48000, 2, false));
        FAIL() << "3 -> 2 channels was accepted";
    } catch (const AudioConverterError& error) {
        EXPECT_EQ(error.code(), AudioConverterError::Code::failedToCreateConverter);
    }
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

// A 1 kHz sine through each path, in blocks of jittered sizes, comes out clean
// (SINAD >= 90 dB) and without a discontinuity once the start-up has passed.
// When the stream ends, flush() hands out what the resampler held back: input
// x r_out / r_in frames in total, the sine running on without a seam; after
// that the converter takes no input.
TEST(AudioConverterTest, SinePathsAreCleanContinuousAndFlushedWhole) {
    struct Case { PcmFormat in, out; uint32_t nominalBlock; };
    const std::vector<Case> cases{
        {mono(48000), mono(16000), 1024},
        {*PcmFormat::make(44100, 2, false), mono(48000), 1024},
        {mono(16000), mono(48000), 341},
        {*PcmFormat::make(44100, 2, true), *PcmFormat::make(16000, 1, false), 441},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.in.description() + " -> " + c.out.description());
        auto converter = AudioConverter::create(c.in, c.out);
        const auto blocks = jitteredBlocks(c.nominalBlock, static_cast<size_t>(3 * c.in.sampleRate / c.nominalBlock), 9);
        auto output = convertSine(*converter, blocks);
        // Skip the first 100 ms of start-up transient; fit the rest in one piece.
        const auto skip = static_cast<size_t>(c.out.sampleRate / 10);
        ASSERT_GT(output.size(), skip + static_cast<size_t>(c.out.sampleRate));
        const auto fit = fitSine(output, skip, output.size() - skip, 1000, c.out.sampleRate);
        EXPECT_GE(fit.sinadDecibels, 90.0);
        EXPECT_NEAR(fit.amplitude, 0.5, 0.001);
        EXPECT_LT(fit.worstResidual, 1e-4) << "discontinuity near output frame " << fit.worstResidualIndex;
        RecordProperty("sinad_" + std::to_string(static_cast<int>(c.in.sampleRate)) + "_" +
                           std::to_string(static_cast<int>(c.out.sampleRate)),
                       std::to_string(fit.sinadDecibels));
        std::printf("  SINAD %s -> %s: %.1f dB\n", c.in.description().c_str(), c.out.description().c_str(),
                    fit.sinadDecibels);

        const size_t beforeFlush = output.size();
        const auto tail = converter->flush();
        output.insert(output.end(), tail->floatChannelData()[0], tail->floatChannelData()[0] + tail->frameLength());
        long long inputFrames = 0;
        for (const uint32_t frames : blocks) inputFrames += frames;
        EXPECT_EQ(static_cast<long long>(output.size()),
                  static_cast<long long>(std::floor(static_cast<double>(inputFrames) * c.out.sampleRate / c.in.sampleRate)));
        ASSERT_GT(output.size(), beforeFlush + 100);
        const auto acrossFlush =
            fitSine(output, beforeFlush - 1000, 1000 + (output.size() - beforeFlush) / 2, 1000, c.out.sampleRate);
        EXPECT_NEAR(acrossFlush.amplitude, 0.5, 0.001);
        EXPECT_LT(acrossFlush.worstResidual, 1e-4) << "seam near output frame " << acrossFlush.worstResidualIndex;

        EXPECT_EQ(converter->flush()->frameLength(), 0u);
        EXPECT_THROW(converter->convert(*silentBlock(c.in, 480)), AudioConverterError);
    }
}

}  // namespace
}  // namespace velto
