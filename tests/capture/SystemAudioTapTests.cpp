#include "capture/SystemAudioTap.hpp"

#include "platform/fake/FakePlatformServices.hpp"
#include "capture/RingReadBack.hpp"
#include "support/CapturedLogs.hpp"
#include "veltoaudio/RecordingError.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace velto {
namespace {

using namespace platform;
using testing::CapturedLogs;
using testing::readAllFrames;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAreArray;

// Everything a start created, destroyed on the stop.
const std::vector<std::string> kTeardown{"deviceStop(88)", "destroyIOProcID(88)", "destroyAggregateDevice(88)",
                                         "destroyProcessTap(77)"};

class SystemAudioTapTest : public ::testing::Test {
protected:
    std::shared_ptr<SystemAudioTap> makeTap(std::int64_t capacityFrames = 96000) {
        return SystemAudioTap::create(2, capacityFrames, fakes.services());
    }
    std::vector<std::string> teardownCalls() {
        std::vector<std::string> teardown;
        for (const auto& call : fakes.audioHardware->calls()) {
            if (call.rfind("destroy", 0) == 0 || call.rfind("deviceStop", 0) == 0) teardown.push_back(call);
        }
        return teardown;
    }

    FakePlatformServices fakes;
    CapturedLogs logs;
};

// The tap must hear every process, unmuted. A second start does nothing; a stop or the
// release tears down all the start created; a start with no process to tap still records.
TEST_F(SystemAudioTapTest, StartTapsEveryProcessAndStopOrReleaseLeavesNothingBehind) {
    auto tap = makeTap();
    tap->start();
    EXPECT_TRUE(tap->isCapturing());
    const auto description = fakes.audioHardware->lastTapDescription();
    ASSERT_TRUE(description.has_value());
    EXPECT_THAT(description->processes, ElementsAre(101u, 102u));
    EXPECT_EQ(description->muteBehavior, TapMuteBehavior::unmuted);
    fakes.audioHardware->clearCalls();
    tap->start();
    EXPECT_THAT(fakes.audioHardware->calls(), IsEmpty());
    tap->stop();
    EXPECT_THAT(teardownCalls(), UnorderedElementsAreArray(kTeardown));
    EXPECT_FALSE(tap->isCapturing());
    EXPECT_FALSE(fakes.audioHardware->hasIOBlock());

    fakes.audioHardware->processes.clear();
    tap->start();
    EXPECT_TRUE(tap->isCapturing());
    fakes.audioHardware->clearCalls();
    tap.reset();
    EXPECT_THAT(teardownCalls(), UnorderedElementsAreArray(kTeardown));
}

// Whatever step fails, the error names it, everything created before is torn down and
// the ring is emptied.
TEST_F(SystemAudioTapTest, AFailedStartReportsItsStepAndLeavesNothingBehind) {
    struct Case {
        std::string operation;  // status key; empty: the aggregate device comes back as ID 0
        OSStatus status;
        RecordingError expected;
        std::size_t created;  // how much of kTeardown the objects created so far need
    };
    const Case cases[] = {
        {"createProcessTap", -4, RecordingError::systemAudioTapCreationFailed(-4), 0},
        {FakeAudioHardware::dataKey(kAudioTapPropertyFormat), -5, RecordingError::systemAudioTapCreationFailed(-5), 1},
        {"createAggregateDevice", -8, RecordingError::systemAudioDeviceCreationFailed(-8), 1},
        {"", noErr, RecordingError::systemAudioDeviceCreationFailed(0), 1},
        {"createIOProcIDWithBlock", -9, RecordingError::systemAudioTapCreationFailed(-9), 2},
        {"deviceStart", -50, RecordingError::systemAudioDeviceStartFailed(-50), 4}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.operation);
        fakes = FakePlatformServices{};
        if (c.operation.empty()) fakes.audioHardware->nextAggregateID = 0;
        else fakes.audioHardware->setStatus(c.operation, c.status);
        auto tap = makeTap();
        std::vector<float> samples(64, 0.5f);
        const float* sources[] = {samples.data(), samples.data()};
        tap->ringBuffer()->write(sources, 64);
        try {
            tap->start();
            ADD_FAILURE() << "start() should have failed";
        } catch (const RecordingError& error) {
            EXPECT_EQ(error, c.expected) << error.caseDescription();
        }
        EXPECT_FALSE(tap->isCapturing());
        EXPECT_FALSE(fakes.audioHardware->hasIOBlock());
        EXPECT_EQ(tap->ringBuffer()->availableFrames(), 0);
        EXPECT_THAT(teardownCalls(), UnorderedElementsAreArray(kTeardown.end() - static_cast<std::ptrdiff_t>(c.created),
                                                               kTeardown.end()));
    }
}

// Both layouts are written; channels beyond the ring's are dropped, and so are malformed
// cycles and cycles over 2048 frames, whole.
TEST_F(SystemAudioTapTest, WellFormedCyclesAreWrittenAndOthersDropped) {
    auto tap = makeTap(8192);
    tap->start();
    fakes.audioHardware->deliverInput(AudioBufferList{0, nullptr});
    AudioBuffer noData{2, 4096, nullptr};
    fakes.audioHardware->deliverInput(AudioBufferList{1, &noData});
    std::vector<float> left(128, -0.5f), right(128, 0.75f);
    AudioBuffer oneMissing[] = {{1, 512, left.data()}, {1, 512, nullptr}};
    fakes.audioHardware->deliverInput(AudioBufferList{2, oneMissing});
    // A single mono buffer is offered as one channel, which the two-channel ring refuses.
    AudioBuffer mono{1, 512, left.data()};
    fakes.audioHardware->deliverInput(AudioBufferList{1, &mono});
    std::vector<float> interleaved(3 * 2049, 0.25f);
    AudioBuffer oversized{2, 2049 * 8, interleaved.data()};
    fakes.audioHardware->deliverInput(AudioBufferList{1, &oversized});
    EXPECT_EQ(tap->ringBuffer()->availableFrames(), 0);

    for (std::size_t f = 0; f < 100; ++f) interleaved[3 * f + 1] = 0.5f;
    AudioBuffer threeChannels{3, 3 * 100 * 4, interleaved.data()};
    fakes.audioHardware->deliverInput(AudioBufferList{1, &threeChannels});
    AudioBuffer buffers[] = {{1, 512, left.data()}, {1, 512, right.data()}};
    fakes.audioHardware->deliverInput(AudioBufferList{2, buffers});
    const auto channels = readAllFrames(*tap->ringBuffer());
    ASSERT_EQ(channels[0].size(), 228u);
    EXPECT_THAT(std::vector<float>(channels[0].begin(), channels[0].begin() + 100), ::testing::Each(0.25f));
    EXPECT_THAT(std::vector<float>(channels[1].begin(), channels[1].begin() + 100), ::testing::Each(0.5f));
    EXPECT_EQ(std::vector<float>(channels[0].begin() + 100, channels[0].end()), left);
    EXPECT_EQ(std::vector<float>(channels[1].begin() + 100, channels[1].end()), right);
    AudioBuffer largest{2, 2048 * 8, interleaved.data()};
    fakes.audioHardware->deliverInput(AudioBufferList{1, &largest});
    EXPECT_EQ(tap->ringBuffer()->availableFrames(), 2048);
}

}  // namespace
}  // namespace velto
