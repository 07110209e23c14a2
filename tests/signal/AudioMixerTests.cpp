#include <gtest/gtest.h>

#include <cmath>

#include "MixerTestRig.hpp"

namespace velto {
namespace {

using testing::DirectPath;
using testing::drainStream;
using testing::MixerRig;
using testing::TemporaryDirectory;
using testing::writeConstant;

PcmFormat fileFormat16k() { return *PcmFormat::make(16000, 1, true); }

TEST(AudioMixerTest, JitterReserveStaysUnreadAndBlocksAreAtLeast64Frames) {
    // Below half the buffer the reserve would not cover one late capture block.
    EXPECT_EQ(AudioMixer::create(1024, 100, std::make_shared<ManualClock>(), MixingTicks::caller)->jitterBufferFrames(), 512);
    MixerRig rig;
    auto ring = FloatRingBuffer::create(1, 96000);
    rig.mixer->start(testing::singleInputs(nullptr, ring, 48000, 1, nullptr, fileFormat16k()));
    rig.clock->advance(1.0);
    writeConstant(*ring, 0.1f, 3100);
    rig.mixer->tick();
    EXPECT_EQ(rig.mixer->totalFramesProcessed(), 0);  // 28 spare frames: too few
    writeConstant(*ring, 0.1f, 36);
    rig.mixer->tick();
    EXPECT_EQ(rig.mixer->totalFramesProcessed(), 64);
    EXPECT_EQ(ring->availableFrames(), 3072);
}

TEST(AudioMixerTest, PacingFollowsTheClockAtMostOneBufferPerTick) {
    MixerRig rig;
    auto ring = FloatRingBuffer::create(1, 96000);
    writeConstant(*ring, 0.1f, 96000);
    rig.mixer->start(testing::singleInputs(nullptr, ring, 48000, 1, nullptr, fileFormat16k()));
    rig.clock->advance(0.05);  // 2400 frames due
    std::vector<int64_t> totals;
    for (int i = 0; i < 4; ++i) {
        rig.mixer->tick();
        totals.push_back(rig.mixer->totalFramesProcessed());
    }
    EXPECT_EQ(totals, (std::vector<int64_t>{1024, 2048, 2400, 2400}));
    rig.clock->advance(2.0);  // far behind: still one buffer per tick
    rig.mixer->tick();
    EXPECT_EQ(rig.mixer->totalFramesProcessed(), 2400 + 1024);
}

// Levels describe the last block, after clipping: samples beyond ±0.98 are
// clipped to it, and each block that needed it is counted.
TEST(AudioMixerTest, LevelsDescribeTheLastClippedBlockAndEachClippedBlockIsCounted) {
    struct Case { float in, out, decibels; int64_t clippedBlocks; };
    for (const auto& c : {Case{0.0f, 0.0f, -120.0f, 0}, Case{0.5f, 0.5f, -6.0206f, 0},
                          Case{0.98f, 0.98f, 20 * std::log10(0.98f), 0}, Case{1.5f, 0.98f, 20 * std::log10(0.98f), 2},
                          Case{-2.0f, -0.98f, 20 * std::log10(0.98f), 2}}) {
        SCOPED_TRACE(c.in);
        DirectPath path;
        writeConstant(*path.ring, c.in, 3072);  // the reserve: a mix of the value alone
        EXPECT_EQ(path.rig.mixer->currentLevels(), AudioLevels::silence());
        EXPECT_EQ(path.mix(c.in, 128), std::vector<float>(128, c.out));
        EXPECT_EQ(path.mix(c.in, 128), std::vector<float>(128, c.out));
        EXPECT_EQ(path.rig.mixer->overflowCount(), c.clippedBlocks);
        EXPECT_NEAR(path.rig.mixer->currentLevels().peak, c.decibels, 1e-3);
        EXPECT_NEAR(path.rig.mixer->currentLevels().average, c.decibels, 1e-3);
    }
}

TEST(AudioMixerTest, StopWritesOutTheReserveThenEndsTheStreamOnceAndReleasesTheFile) {
    DirectPath path;
    writeConstant(*path.ring, 0.2f, 3072);  // waits as the reserve
    path.mix(0.1f, 100);
    path.rig.mixer->stopMixing();
    path.rig.mixer->stopMixing();
    EXPECT_FALSE(path.rig.mixer->isMixing());
    // The reserve comes out in order, after what the tick mixed, and the stream then ends.
    std::vector<float> tail;
    while (path.stream.waitFor(std::chrono::seconds(1))) {
        const auto block = path.stream.next();
        if (!block) break;
        const float* samples = (*block)->floatChannelData()[0];
        tail.insert(tail.end(), samples, samples + (*block)->frameLength());
    }
    // The tick took the oldest 100 frames; the rest of the 0.2 block and then the 0.1 block follow.
    ASSERT_EQ(tail.size(), 3072u);
    EXPECT_FLOAT_EQ(tail[0], 0.2f);
    EXPECT_FLOAT_EQ(tail[2971], 0.2f);
    EXPECT_FLOAT_EQ(tail[2972], 0.1f);
    EXPECT_FLOAT_EQ(tail.back(), 0.1f);
    EXPECT_EQ(path.file.use_count(), 1);  // the mixer let go of it
    // Ticks after the stop do nothing.
    path.rig.step(5);
    EXPECT_EQ(path.rig.mixer->totalFramesProcessed(), 3072 + 100);
}

TEST(AudioMixerTest, StopTakesWhatTheRingsHeldAndNothingThatArrivesDuringIt) {
    MixerRig rig;
    TemporaryDirectory folder;
    auto file = AudioFile::openForWriting(folder.path() / "mix.wav", makeAudioSettings(AudioFormat::wav));
    auto systemRing = FloatRingBuffer::create(1, 96000);
    auto microphoneRing = FloatRingBuffer::create(1, 96000);
    rig.mixer->start(testing::dualInputs(systemRing, 16000, 1, microphoneRing, 16000, file, file->processingFormat()));
    writeConstant(*systemRing, 0.0f, 3072 + 500);
    writeConstant(*microphoneRing, 0.3f, 3072);
    // The microphone goes on capturing while the stop drains: each block
    // handed out is followed by more of it.
    std::vector<float> drained;
    AudioBufferSource::relay(rig.mixer->audioStream(), [&](std::shared_ptr<PcmBuffer> block) {
        const float* samples = block->floatChannelData()[0];
        drained.insert(drained.end(), samples, samples + block->frameLength());
        writeConstant(*microphoneRing, 0.7f, 100);
    });
    rig.mixer->stopMixing();
    // The microphone ran out first and is padded for the system's extra 500
    // frames; what it captured after the stop began is not in the recording.
    std::vector<float> expected(3072, 0.3f);
    expected.resize(3072 + 500, 0.0f);
    EXPECT_EQ(drained, expected);
}

// The limit counts the whole file (an earlier run's frames too): the block that
// crosses it is cut on the frame, for the file and the stream alike, the owner hears
// of it once, and nothing more is written after it.
TEST(AudioMixerTest, AFileFrameLimitEndsTheFileOnTheFrameAndIsReportedOnce) {
    MixerRig rig;
    TemporaryDirectory folder;
    auto ring = FloatRingBuffer::create(1, 96000);
    auto file = AudioFile::openForWriting(folder.path() / "mix.wav", makeAudioSettings(AudioFormat::wav));
    auto earlier = PcmBuffer::make(file->processingFormat(), 300);
    earlier->setFrameLength(300);
    file->write(*earlier);
    auto stream = rig.mixer->audioStream();
    int reports = 0;
    rig.mixer->setLimitReachedHandler([&] { ++reports; });
    auto inputs = testing::singleInputs(nullptr, ring, 16000, 1, file, file->processingFormat());
    inputs.fileFrameLimit = 1000;
    rig.mixer->start(inputs);
    writeConstant(*ring, 0.25f, 3072 + 2000);
    for (int i = 0; i < 10; ++i) rig.step();
    EXPECT_EQ(file->framesWritten(), 1000);
    EXPECT_EQ(drainStream(stream).size(), 700u);
    EXPECT_EQ(reports, 1);
    writeConstant(*ring, 0.25f, 2000);
    rig.step(10);
    rig.mixer->stopMixing();
    EXPECT_EQ(file->framesWritten(), 1000);
    EXPECT_EQ(reports, 1);
}

TEST(AudioMixerTest, AVanishedSourceDropsOutAndTheOtherGoesOn) {
    MixerRig rig;
    auto systemRing = FloatRingBuffer::create(1, 96000);
    auto microphoneRing = FloatRingBuffer::create(1, 96000);
    rig.mixer->setSystemGain(1.0f);
    rig.mixer->start(testing::dualInputs(systemRing, 48000, 1, microphoneRing, 48000, nullptr, fileFormat16k()));
    writeConstant(*systemRing, 0.2f, 3072 + 800);
    rig.step();
    EXPECT_EQ(rig.mixer->totalFramesProcessed(), 0) << "began before both sources had their reserve";
    writeConstant(*microphoneRing, 0.2f, 3072 + 800);
    rig.step();
    EXPECT_EQ(rig.mixer->totalFramesProcessed(), 800);
    microphoneRing.reset();
    writeConstant(*systemRing, 0.2f, 800);
    rig.step();
    EXPECT_EQ(rig.mixer->totalFramesProcessed(), 1600);
    EXPECT_EQ(rig.mixer->underrunCount(), 0);
}

}  // namespace
}  // namespace velto
