#include <gtest/gtest.h>

#include <vector>

#include "MixerTestRig.hpp"

namespace velto {
namespace {

using testing::drainStream;
using testing::MixerRig;
using testing::writeConstant;

constexpr int64_t kJitterFrames = 3072;

// Writes a rising ramp (a distinct value per frame, well below the clip limit)
// so that a dropped, repeated or misplaced frame shows in the output exactly.
std::vector<float> ramp(int64_t firstIndex, int64_t frames) {
    std::vector<float> values;
    for (int64_t i = 0; i < frames; ++i) values.push_back(static_cast<float>(firstIndex + i) * 1e-6f);
    return values;
}

int64_t writeRamp(FloatRingBuffer& ring, int64_t firstIndex, int64_t frames) {
    const auto samples = ramp(firstIndex, frames);
    const std::vector<const float*> sources(static_cast<size_t>(ring.channels()), samples.data());
    return ring.write(sources, frames);
}

TEST(MixerPauseTest, PausedSpanIsAbsentAndEverythingAroundItIsKept) {
    testing::DirectPath path;
    writeRamp(*path.ring, 0, 8000 + kJitterFrames);  // before the pause, reserve included
    path.rig.step(30);
    path.rig.mixer->setOutputPaused(true);
    EXPECT_EQ(path.rig.mixer->outputFramesWritten(), 8000 + kJitterFrames);  // the pause wrote what was captured

    writeRamp(*path.ring, 100000, 16000);  // captured while paused
    path.rig.step(60);
    writeRamp(*path.ring, 200000, 4000);  // still paused when the resume comes
    path.rig.mixer->setOutputPaused(false);
    EXPECT_EQ(path.rig.mixer->outputFramesWritten(), 8000 + kJitterFrames);  // nothing while paused

    writeRamp(*path.ring, 300000, 8000);  // after the resume
    path.rig.step(30);
    path.rig.mixer->stopMixing();

    std::vector<float> expected = ramp(0, 8000 + kJitterFrames);
    const auto afterResume = ramp(300000, 8000);
    expected.insert(expected.end(), afterResume.begin(), afterResume.end());
    EXPECT_EQ(drainStream(path.stream), expected);
}

TEST(MixerPauseTest, ResumedClockOwesNothingForThePausedTime) {
    testing::DirectPath path;
    writeRamp(*path.ring, 0, kJitterFrames + 1600);
    path.rig.step(6);
    path.rig.mixer->setOutputPaused(true);
    path.rig.clock->advance(30.0);
    path.rig.mixer->setOutputPaused(false);
    const int64_t before = path.rig.mixer->totalFramesProcessed();
    writeRamp(*path.ring, 0, kJitterFrames + 16000);
    path.rig.step();  // one tick's worth, not 30 s of catching up in full blocks
    EXPECT_EQ(path.rig.mixer->totalFramesProcessed() - before, 266);
}

// Both sources at 16 kHz into a two-channel stream.
struct SeparatePath {
    SeparatePath() : system(FloatRingBuffer::create(2, 96000)), microphone(FloatRingBuffer::create(1, 96000)) {
        auto inputs = testing::dualInputs(system, 16000, 2, microphone, 16000, nullptr, *PcmFormat::make(16000, 2, true));
        inputs.layout = MixerTrackLayout::separate;
        rig.mixer->setSystemGain(0.3f);
        rig.mixer->setMicrophoneGain(0.3f);
        stream = rig.mixer->audioStream();
        rig.mixer->start(inputs);
    }
    MixerRig rig;
    std::shared_ptr<FloatRingBuffer> system;
    std::shared_ptr<FloatRingBuffer> microphone;
    AudioBufferStream stream;
};

TEST(MixerSeparateTracksTest, EachSourceKeepsItsOwnChannelLevelAndClipping) {
    SeparatePath path;
    writeConstant(*path.microphone, 1.5f, kJitterFrames + 1600);  // clips on its own channel only
    writeConstant(*path.system, 0.2f, kJitterFrames + 1600);
    path.rig.step(6);
    std::vector<std::pair<float, float>> frames;
    testing::forEachFrame(path.stream, [&](const float* frame) { frames.emplace_back(frame[0], frame[1]); });
    ASSERT_EQ(frames.size(), 1600u);
    for (const auto& [microphone, system] : frames) {
        ASSERT_FLOAT_EQ(microphone, 0.98f);
        ASSERT_FLOAT_EQ(system, 0.2f);
    }
    EXPECT_EQ(path.rig.mixer->overflowCount(), 6);  // every clipped block counts, one a tick
}

}  // namespace
}  // namespace velto
