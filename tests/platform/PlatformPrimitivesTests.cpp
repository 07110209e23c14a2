// The small platform-independent pieces: the change coalescer, the lock-free sample ring
// of the PulseAudio streams, the object-ID ranges and the silence pacer.

#include "platform/ChangeCoalescer.hpp"
#include "platform/pulse/InterleavedSampleRing.hpp"
#include "platform/pulse/SilencePacer.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace velto {
namespace {

using namespace platform;
using namespace pulse;
using pulse::SilencePacer;

TEST(ChangeCoalescerTest, ABurstIsReportedOnceAfterItSettlesAndASteadyStreamAtTheMaximumDelay) {
    ChangeCoalescer coalescer(0.25, 1.0);
    EXPECT_FALSE(coalescer.takeSettled(0.0));
    coalescer.noteChange(10.00);
    coalescer.noteChange(10.01);
    coalescer.noteChange(10.02);
    EXPECT_FALSE(coalescer.takeSettled(10.20));
    EXPECT_TRUE(coalescer.takeSettled(10.27));
    EXPECT_FALSE(coalescer.takeSettled(10.30));
    EXPECT_FALSE(coalescer.hasPending());

    int reports = 0;
    for (double now = 20.0; now < 23.0; now += 0.1) {  // an event every 100 ms never goes quiet
        coalescer.noteChange(now);
        if (coalescer.takeSettled(now)) ++reports;
    }
    EXPECT_EQ(reports, 2);  // still reported at the maximum delay: at 21.0 s and 22.1 s
}

TEST(InterleavedSampleRingTest, WrapsAroundRefusesWhatDoesNotFitAndTakesTheOldestFirst) {
    InterleavedSampleRing ring(2, 4);
    const float first[] = {1, -1, 2, -2, 3, -3};
    EXPECT_EQ(ring.write(first, 3), 3u);
    float out[8] = {};
    ASSERT_TRUE(ring.read(out, 2));
    EXPECT_THAT(std::vector<float>(out, out + 4), ::testing::ElementsAre(1, -1, 2, -2));
    const float second[] = {4, -4, 5, -5, 6, -6, 7, -7};
    EXPECT_EQ(ring.write(second, 4), 3u);  // one frame still stored, room for three
    EXPECT_FALSE(ring.read(out, 5));
    ASSERT_TRUE(ring.read(out, 4));
    EXPECT_THAT(std::vector<float>(out, out + 8), ::testing::ElementsAre(3, -3, 4, -4, 5, -5, 6, -6));
    EXPECT_EQ(ring.availableFrames(), 0u);

    // A partial read takes what there is; a discard takes the oldest frames only.
    EXPECT_EQ(ring.write(second, 3), 3u);
    EXPECT_EQ(ring.readAvailable(out, 4), 3u);
    EXPECT_THAT(std::vector<float>(out, out + 6), ::testing::ElementsAre(4, -4, 5, -5, 6, -6));
    EXPECT_EQ(ring.readAvailable(out, 4), 0u);
    EXPECT_EQ(ring.write(first, 3), 3u);
    EXPECT_EQ(ring.discard(2), 2u);
    ASSERT_TRUE(ring.read(out, 1));
    EXPECT_THAT(std::vector<float>(out, out + 2), ::testing::ElementsAre(3, -3));
    EXPECT_EQ(ring.write(first, 2), 2u);
    EXPECT_EQ(ring.discard(9), 2u);
    EXPECT_EQ(ring.availableFrames(), 0u);
}

TEST(SilencePacerTest, IdleSourceIsFilledAtTheNominalRateFromItsLastRealBlock) {
    SilencePacer pacer(48000.0, 480, 0.06);  // 10 ms blocks
    pacer.start(100.0);
    EXPECT_EQ(pacer.takeSilenceBlocksDue(100.05), 0u);  // not idle yet: it may only be late
    EXPECT_FALSE(pacer.isIdle());
    EXPECT_EQ(pacer.takeSilenceBlocksDue(100.065), 6u);  // the whole gap since 100.0
    EXPECT_TRUE(pacer.isIdle());
    EXPECT_EQ(pacer.takeSilenceBlocksDue(100.069), 0u);
    EXPECT_EQ(pacer.takeSilenceBlocksDue(100.1005), 4u);
    std::uint32_t total = 10;
    for (double now = 100.11; now < 102.0; now += 0.0137) total += pacer.takeSilenceBlocksDue(now);
    total += pacer.takeSilenceBlocksDue(102.0);
    EXPECT_EQ(total, 200u);  // two seconds of 10 ms blocks, no more, no less
}

TEST(SilencePacerTest, BacklogOfALateSourceThatSilenceAlreadyCoveredIsDropped) {
    SilencePacer pacer(48000.0, 480, 0.06);
    pacer.start(0.0);
    pacer.noteRealBlock(0.0);
    EXPECT_EQ(pacer.backlogToDrop(9600, 960), 0u);  // never idle: nothing to drop
    EXPECT_EQ(pacer.takeSilenceBlocksDue(0.1), 10u);  // 4800 frames of silence delivered
    // A late source returns with 6000 frames at once: all but the tolerance is backlog,
    // at most what silence covered.
    EXPECT_EQ(pacer.backlogToDrop(6000, 960), 4800u);
    EXPECT_EQ(pacer.backlogToDrop(2000, 960), 1040u);
    // A source that resumes just now sends only a little: none of it is dropped.
    EXPECT_EQ(pacer.backlogToDrop(480, 960), 0u);
}

// A source slow to start gets the longer grace before any silence, and its first
// delivery is the start of the recording: none of it is dropped, however late.
TEST(SilencePacerTest, ASourceSlowToStartIsWaitedForAndItsFirstDeliveryKeptWhole) {
    SilencePacer pacer(48000.0, 480, 0.06, 0.5);
    pacer.start(10.0);
    EXPECT_EQ(pacer.takeSilenceBlocksDue(10.3), 0u);  // past the idle wait, within the grace
    EXPECT_FALSE(pacer.isIdle());
    EXPECT_EQ(pacer.takeSilenceBlocksDue(10.5001), 50u);  // then the whole gap since the start
    EXPECT_TRUE(pacer.isIdle());
    EXPECT_EQ(pacer.backlogToDrop(48000, 960), 0u);  // the late first delivery stays whole
    pacer.noteRealBlock(10.8);
    EXPECT_FALSE(pacer.isIdle());
    // From the first real block on, the short idle wait applies again, from that block.
    EXPECT_EQ(pacer.takeSilenceBlocksDue(10.85), 0u);
    EXPECT_EQ(pacer.takeSilenceBlocksDue(10.8601), 6u);
    EXPECT_EQ(pacer.backlogToDrop(6000, 960), 2880u);
    // A new start waits the grace again.
    pacer.start(20.0);
    EXPECT_EQ(pacer.takeSilenceBlocksDue(20.1), 0u);
}

// A source that only began to capture 300 ms after the start, without a backlog, is
// preceded by silence for the time its data does not cover: the stream still starts at
// the start. A late delivery that covers the wait gets nothing ahead of it.
TEST(SilencePacerTest, AFirstDeliveryThatLeavesTheStartUncoveredIsPrecededBySilence) {
    SilencePacer pacer(48000.0, 480, 0.06, 0.5);
    pacer.start(0.0);
    EXPECT_EQ(pacer.takeSilenceBlocksDue(0.3), 0u);
    // 14400 frames due, 960 arrived, 960 of tolerance: 12480 frames = 26 blocks.
    EXPECT_EQ(pacer.takeSilenceBlocksBeforeFirstAudio(0.3, 960, 960), 26u);
    EXPECT_EQ(pacer.takeSilenceBlocksBeforeFirstAudio(0.3, 960, 960), 0u);  // counted once
    pacer.noteRealBlock(0.3);
    EXPECT_EQ(pacer.takeSilenceBlocksBeforeFirstAudio(0.4, 0, 0), 0u);  // only before the first audio

    pacer.start(10.0);
    EXPECT_EQ(pacer.takeSilenceBlocksBeforeFirstAudio(10.3, 14400, 960), 0u);
    // After the grace filled the whole wait, the late backlog adds nothing ahead of it either.
    pacer.start(20.0);
    EXPECT_EQ(pacer.takeSilenceBlocksDue(20.6), 60u);
    EXPECT_EQ(pacer.takeSilenceBlocksBeforeFirstAudio(20.6, 960, 960), 0u);
}

}  // namespace
}  // namespace velto
