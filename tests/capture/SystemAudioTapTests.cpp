#include "capture/SystemAudioTap.hpp"

#include "logging/LogThinning.hpp"
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

constexpr const char* kCategory = "SystemAudioTap";
// Everything a start created, destroyed in reverse order.
const std::vector<std::string> kTeardown{"deviceStop(88)", "destroyIOProcID(88)", "destroyAggregateDevice(88)",
                                         "destroyProcessTap(77)"};

class SystemAudioTapTest : public ::testing::Test {
protected:
    std::shared_ptr<SystemAudioTap> makeTap(std::int64_t capacityFrames = 96000) {
        return SystemAudioTap::create(2, capacityFrames, fakes.services());
    }

    FakePlatformServices fakes;
    CapturedLogs logs;
};

// The tap must be an audible mixdown of every process, on a device clocked by the output.
TEST_F(SystemAudioTapTest, StartTapsEveryProcessAudiblyOnAnOutputClockedDevice) {
    auto tap = makeTap();
    tap->stop();
    EXPECT_THAT(fakes.audioHardware->calls(), IsEmpty());
    tap->start();
    EXPECT_TRUE(tap->isCapturing());

    const auto description = fakes.audioHardware->lastTapDescription();
    ASSERT_TRUE(description.has_value());
    EXPECT_THAT(description->processes, ElementsAre(101u, 102u));
    EXPECT_FALSE(description->isExclusive);
    EXPECT_TRUE(description->isPrivate);
    EXPECT_EQ(description->muteBehavior, TapMuteBehavior::unmuted);
    const auto aggregate = fakes.audioHardware->lastAggregateDescription();
    ASSERT_TRUE(aggregate.has_value());
    EXPECT_EQ(aggregate->string("master"), "BuiltInSpeakerDevice");
    const PropertyValue* taps = aggregate->find("taps");
    ASSERT_TRUE(taps != nullptr && taps->list() != nullptr && taps->list()->size() == 1);
    EXPECT_EQ(taps->list()->front().string("uid"), "TAP-UID-1");
    EXPECT_EQ(taps->list()->front().boolean("drift"), true);

    fakes.audioHardware->clearCalls();
    tap->start();
    EXPECT_THAT(fakes.audioHardware->calls(), IsEmpty());

    // With no process to tap yet, the start still succeeds.
    fakes.audioHardware->processes.clear();
    auto another = makeTap();
    another->start();
    EXPECT_TRUE(another->isCapturing());
    EXPECT_THAT(fakes.audioHardware->lastTapDescription()->processes, IsEmpty());
}

struct StartFailure {
    const char* name;
    std::string operation;  // FakeAudioHardware status key; empty: the aggregate device comes back as ID 0
    OSStatus status;
    RecordingError expected;
    std::size_t teardownCalls;  // how much of kTeardown the objects created so far need
};

class SystemAudioTapStartFailureTest : public SystemAudioTapTest, public ::testing::WithParamInterface<StartFailure> {};

// Whatever step fails, the error names it, everything created before is torn
// down in reverse order and the ring is emptied.
TEST_P(SystemAudioTapStartFailureTest, FailureMapsToItsErrorAndLeavesNothingBehind) {
    const auto& failure = GetParam();
    if (failure.operation.empty()) fakes.audioHardware->nextAggregateID = 0;
    else fakes.audioHardware->setStatus(failure.operation, failure.status);
    auto tap = makeTap();
    std::vector<float> samples(64, 0.5f);
    const float* sources[] = {samples.data(), samples.data()};
    tap->ringBuffer()->write(sources, 64);
    try {
        tap->start();
        FAIL() << "start() should have failed";
    } catch (const RecordingError& error) {
        EXPECT_EQ(error, failure.expected) << error.caseDescription();
    }
    EXPECT_FALSE(tap->isCapturing());
    EXPECT_EQ(tap->tapID(), 0u);
    EXPECT_EQ(tap->aggregateID(), 0u);
    EXPECT_FALSE(fakes.audioHardware->hasIOBlock());
    EXPECT_EQ(tap->ringBuffer()->availableFrames(), 0);
    std::vector<std::string> teardown;
    for (const auto& call : fakes.audioHardware->calls()) {
        if (call.rfind("destroy", 0) == 0 || call.rfind("deviceStop", 0) == 0) teardown.push_back(call);
    }
    EXPECT_EQ(teardown, std::vector<std::string>(kTeardown.end() - static_cast<std::ptrdiff_t>(failure.teardownCalls),
                                                 kTeardown.end()));
}

INSTANTIATE_TEST_SUITE_P(
    EachStep, SystemAudioTapStartFailureTest,
    ::testing::Values(
        StartFailure{"CreateProcessTap", "createProcessTap", -4, RecordingError::systemAudioTapCreationFailed(-4), 0},
        StartFailure{"TapFormat", FakeAudioHardware::dataKey(kAudioTapPropertyFormat), -5,
                     RecordingError::systemAudioTapCreationFailed(-5), 1},
        StartFailure{"CreateAggregateDevice", "createAggregateDevice", -8,
                     RecordingError::systemAudioDeviceCreationFailed(-8), 1},
        // A success status with device ID 0: there is no device to destroy.
        StartFailure{"ZeroAggregateDeviceID", "", noErr, RecordingError::systemAudioDeviceCreationFailed(0), 1},
        StartFailure{"CreateIOProc", "createIOProcIDWithBlock", -9, RecordingError::systemAudioTapCreationFailed(-9), 2},
        StartFailure{"DeviceStart", "deviceStart", -50, RecordingError::systemAudioDeviceStartFailed(-50), 4}),
    [](const ::testing::TestParamInfo<StartFailure>& info) { return std::string(info.param.name); });

TEST_F(SystemAudioTapTest, StopAndReleaseTearDownInReverseOrderAndStartAgainMakesANewTap) {
    auto tap = makeTap();
    tap->start();
    const auto firstUUID = fakes.audioHardware->lastTapDescription()->uuid;
    fakes.audioHardware->clearCalls();
    tap->stop();
    EXPECT_EQ(fakes.audioHardware->calls(), kTeardown);
    EXPECT_FALSE(tap->isCapturing());

    tap->start();
    EXPECT_TRUE(tap->isCapturing());
    EXPECT_NE(fakes.audioHardware->lastTapDescription()->uuid, firstUUID);

    // Released while capturing, it stops first.
    fakes.audioHardware->clearCalls();
    tap.reset();
    EXPECT_EQ(fakes.audioHardware->calls(), kTeardown);
}

// ---- the IO block ----

class SystemAudioTapInputTest : public SystemAudioTapTest {
protected:
    void SetUp() override {
        tap = makeTap(8192);
        tap->start();
    }

    std::shared_ptr<SystemAudioTap> tap;
};

TEST_F(SystemAudioTapInputTest, InterleavedChannelsBeyondTheRingAndCyclesOver2048FramesAreDropped) {
    std::vector<float> interleaved(3 * 2049);
    for (std::size_t f = 0; f < 100; ++f) {
        interleaved[3 * f] = 1.0f;
        interleaved[3 * f + 1] = 2.0f;
        interleaved[3 * f + 2] = 3.0f;
    }
    AudioBuffer threeChannels{3, 3 * 100 * 4, interleaved.data()};
    fakes.audioHardware->deliverInput(AudioBufferList{1, &threeChannels});
    const auto channels = readAllFrames(*tap->ringBuffer());
    ASSERT_EQ(channels[0].size(), 100u);
    EXPECT_THAT(channels[0], ::testing::Each(1.0f));
    EXPECT_THAT(channels[1], ::testing::Each(2.0f));

    // A cycle over 2048 frames is dropped whole; 2048 frames still fit.
    AudioBuffer oversized{2, 2049 * 8, interleaved.data()};
    fakes.audioHardware->deliverInput(AudioBufferList{1, &oversized});
    EXPECT_EQ(tap->ringBuffer()->availableFrames(), 0);
    AudioBuffer largest{2, 2048 * 8, interleaved.data()};
    fakes.audioHardware->deliverInput(AudioBufferList{1, &largest});
    EXPECT_EQ(tap->ringBuffer()->availableFrames(), 2048);
}

// The IO block runs in real time: an unsampled cycle, well-formed or not, logs nothing.
TEST_F(SystemAudioTapInputTest, BothLayoutsAreWrittenAndMalformedCyclesWriteNothing) {
    ScopedLogThinning neverLog(false);
    logs.clear();
    fakes.audioHardware->deliverInput(AudioBufferList{0, nullptr});
    AudioBuffer noData{2, 4096, nullptr};
    fakes.audioHardware->deliverInput(AudioBufferList{1, &noData});
    std::vector<float> left(128, -0.5f), right(128, 0.75f);
    AudioBuffer oneMissing[] = {{1, 512, left.data()}, {1, 512, nullptr}};
    fakes.audioHardware->deliverInput(AudioBufferList{2, oneMissing});
    // A single mono buffer is offered as one channel, which the two-channel ring refuses.
    AudioBuffer mono{1, 512, left.data()};
    fakes.audioHardware->deliverInput(AudioBufferList{1, &mono});
    EXPECT_EQ(tap->ringBuffer()->availableFrames(), 0);

    std::vector<float> interleaved(1024, 0.25f);
    AudioBuffer buffer{2, 4096, interleaved.data()};
    ASSERT_TRUE(fakes.audioHardware->deliverInput(AudioBufferList{1, &buffer}));
    AudioBuffer buffers[] = {{1, 512, left.data()}, {1, 512, right.data()}};
    fakes.audioHardware->deliverInput(AudioBufferList{2, buffers});
    EXPECT_THAT(logs.messages(kCategory), IsEmpty());

    const auto channels = readAllFrames(*tap->ringBuffer());
    ASSERT_EQ(channels[0].size(), 640u);
    EXPECT_THAT(std::vector<float>(channels[0].begin(), channels[0].begin() + 512), ::testing::Each(0.25f));
    EXPECT_EQ(std::vector<float>(channels[0].begin() + 512, channels[0].end()), left);
    EXPECT_EQ(std::vector<float>(channels[1].begin() + 512, channels[1].end()), right);
}

TEST_F(SystemAudioTapInputTest, CountingSignalFromTheIOQueueArrivesWithoutGapsWhileTheMixerDrains) {
    // Producer: the IO queue (through the fake). Consumer: this thread, like the mixer.
    constexpr int kCycles = 400;
    constexpr std::uint32_t kFrames = 256;
    std::thread producer([&] {
        std::vector<float> interleaved(2 * kFrames);
        for (int cycle = 0; cycle < kCycles; ++cycle) {
            for (std::uint32_t f = 0; f < kFrames; ++f) {
                const float value = static_cast<float>(cycle * kFrames + f);
                interleaved[2 * f] = value;
                interleaved[2 * f + 1] = -value;
            }
            AudioBuffer buffer{2, kFrames * 8, interleaved.data()};
            while (tap->ringBuffer()->capacityFrames() - tap->ringBuffer()->availableFrames() < kFrames) {
                std::this_thread::yield();
            }
            fakes.audioHardware->deliverInput(AudioBufferList{1, &buffer});
        }
    });
    testing::expectCountingSignal(*tap->ringBuffer(), kCycles * kFrames);
    producer.join();
}

}  // namespace
}  // namespace velto
