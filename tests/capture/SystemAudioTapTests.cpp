#include "capture/SystemAudioTap.hpp"

#include "logging/LogThinning.hpp"
#include "platform/fake/FakePlatformServices.hpp"
#include "capture/RingReadBack.hpp"
#include "support/CapturedLogs.hpp"
#include "veltoaudio/RecordingError.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

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

TEST_F(SystemAudioTapTest, StartCreatesAMixdownTapAnOutputClockedDeviceAndTheIOBlockInOrder) {
    auto tap = makeTap();
    tap->start();

    EXPECT_TRUE(tap->isCapturing());
    std::vector<std::string> creations;
    for (const auto& call : fakes.audioHardware->calls()) {
        if (call.rfind("create", 0) == 0 || call.rfind("deviceStart", 0) == 0) creations.push_back(call);
    }
    EXPECT_THAT(creations, ElementsAre("createProcessTap", "createAggregateDevice", "createIOProcIDWithBlock(88)",
                                       "deviceStart(88)"));

    for (const auto& [level, line] : std::vector<std::pair<LogLevel, std::string>>{
             {LogLevel::info, "Starting real PulseAudio system audio tap"},
             {LogLevel::debug, "Found 2 audio processes for tapping"},
             {LogLevel::info, "Created process tap with ID: 77"},
             {LogLevel::info, "Retrieved tap format: SR=48000.0, Channels=2, Format=0x6c70636d"},
             {LogLevel::info, "Created aggregate device with ID: 88"},
             {LogLevel::info, "System audio tap started successfully"},
             {LogLevel::info, "Tap format: SR: 48000.0Hz, Ch: 2, Format: 0x6c70636d, Flags: 0x9"}}) {
        EXPECT_TRUE(logs.contains(level, kCategory, line)) << line;
    }
    EXPECT_TRUE(logs.containsPrefix(kCategory, "Installed IOProc on aggregate device with procID: 0x"));

    // The tap: an audible private mixdown of every process.
    const auto description = fakes.audioHardware->lastTapDescription();
    ASSERT_TRUE(description.has_value());
    EXPECT_THAT(description->processes, ElementsAre(101u, 102u));
    EXPECT_FALSE(description->isExclusive);
    EXPECT_TRUE(description->isPrivate);
    EXPECT_EQ(description->muteBehavior, TapMuteBehavior::unmuted);
    EXPECT_EQ(description->name, "Ondrel-SystemAudioTap");
    EXPECT_TRUE(std::regex_match(description->uuid,
                                 std::regex("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}")));
    EXPECT_TRUE(logs.contains(LogLevel::debug, kCategory, "Creating process tap with UUID: " + description->uuid));

    // The aggregate device: clocked by the output, carrying the tap; logged entry by entry as given.
    const auto aggregate = fakes.audioHardware->lastAggregateDescription();
    ASSERT_TRUE(aggregate.has_value());
    std::vector<std::string> given{"Aggregate device configuration:"};
    for (const auto& [key, value] : aggregate->entries()) {
        given.push_back("  " + key + ": " + value.description());
    }
    EXPECT_EQ(given, (std::vector<std::string>{
                         "Aggregate device configuration:", "  name: Ondrel-SystemAudioTap",
                         "  uid: io.veltoaudio.SystemAudioTap.TAP-UID-1", "  master: BuiltInSpeakerDevice",
                         "  private: true", "  stacked: false", "  tapautostart: true",
                         "  subdevices: [[\"uid\": \"BuiltInSpeakerDevice\"]]",
                         "  taps: [[\"drift\": true, \"uid\": \"TAP-UID-1\"]]"}));
    const auto messages = logs.messages(kCategory);
    const auto header = std::find(messages.begin(), messages.end(),
                                  "Creating aggregate device with output UID: BuiltInSpeakerDevice, tap UUID: TAP-UID-1");
    ASSERT_GE(messages.end() - header, 10);
    EXPECT_EQ(std::vector<std::string>(header + 1, header + 10), given);
}

TEST_F(SystemAudioTapTest, StartWhileCapturingAndStopWhileIdleDoNothing) {
    auto tap = makeTap();
    tap->stop();
    EXPECT_THAT(fakes.audioHardware->calls(), IsEmpty());
    EXPECT_THAT(logs.messages(kCategory), ElementsAre("Created SystemAudioTap with 2 channels, 96000 frame capacity"));

    tap->start();
    fakes.audioHardware->clearCalls();
    tap->start();
    EXPECT_THAT(fakes.audioHardware->calls(), IsEmpty());
    EXPECT_TRUE(logs.contains(LogLevel::error, kCategory, "System audio tap already active"));
}

TEST_F(SystemAudioTapTest, EmptyProcessListStillCreatesATap) {
    fakes.audioHardware->processes.clear();
    auto tap = makeTap();
    tap->start();
    EXPECT_TRUE(tap->isCapturing());
    EXPECT_THAT(fakes.audioHardware->lastTapDescription()->processes, IsEmpty());
    EXPECT_TRUE(logs.contains(LogLevel::error, kCategory,
                              "No audio processes found for tapping - system audio capture may not work as expected"));
}

struct StartFailure {
    const char* name;
    std::string operation;  // FakeAudioHardware status key; empty: the aggregate device comes back as ID 0
    OSStatus status;
    RecordingError expected;
    const char* criticalLine;  // nullptr: the step logs nothing of its own
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
    if (failure.criticalLine != nullptr) {
        EXPECT_TRUE(logs.contains(LogLevel::critical, kCategory, failure.criticalLine));
    }
    EXPECT_TRUE(logs.contains(LogLevel::critical, kCategory,
                              "Failed to start system audio tap: " + failure.expected.caseDescription()));
}

INSTANTIATE_TEST_SUITE_P(
    EachStep, SystemAudioTapStartFailureTest,
    ::testing::Values(
        StartFailure{"ProcessListSize", FakeAudioHardware::sizeKey(kAudioHardwarePropertyProcessObjectList),
                     kAudioHardwareNotRunningError,
                     RecordingError::systemAudioTapCreationFailed(kAudioHardwareNotRunningError), nullptr, 0},
        StartFailure{"ProcessListData", FakeAudioHardware::dataKey(kAudioHardwarePropertyProcessObjectList), -1,
                     RecordingError::systemAudioTapCreationFailed(-1), nullptr, 0},
        StartFailure{"CreateProcessTap", "createProcessTap", -4, RecordingError::systemAudioTapCreationFailed(-4),
                     "AudioHardwareCreateProcessTap failed: -4", 0},
        StartFailure{"TapFormat", FakeAudioHardware::dataKey(kAudioTapPropertyFormat), -5,
                     RecordingError::systemAudioTapCreationFailed(-5), nullptr, 1},
        StartFailure{"DefaultOutput", FakeAudioHardware::dataKey(kAudioHardwarePropertyDefaultSystemOutputDevice), -6,
                     RecordingError::systemAudioTapCreationFailed(-6), nullptr, 1},
        StartFailure{"TapUID", FakeAudioHardware::dataKey(kAudioTapPropertyUID), -7,
                     RecordingError::systemAudioTapCreationFailed(-7), "AudioObjectGetPropertyData (tap UUID) failed: -7", 1},
        StartFailure{"CreateAggregateDevice", "createAggregateDevice", -8,
                     RecordingError::systemAudioDeviceCreationFailed(-8), "AudioHardwareCreateAggregateDevice failed: -8", 1},
        // A success status with device ID 0: there is no device to destroy.
        StartFailure{"ZeroAggregateDeviceID", "", noErr, RecordingError::systemAudioDeviceCreationFailed(0),
                     "Aggregate device ID is 0 - creation may have failed silently", 1},
        StartFailure{"CreateIOProc", "createIOProcIDWithBlock", -9, RecordingError::systemAudioTapCreationFailed(-9),
                     "AudioDeviceCreateIOProcIDWithBlock failed: -9", 2},
        StartFailure{"DeviceStart", "deviceStart", -50, RecordingError::systemAudioDeviceStartFailed(-50),
                     "AudioDeviceStart failed: -50, invalid parameter", 4}),
    [](const ::testing::TestParamInfo<StartFailure>& info) { return std::string(info.param.name); });

TEST_F(SystemAudioTapTest, StopAndReleaseTearDownInReverseOrderAndStartAgainMakesANewTap) {
    auto tap = makeTap();
    tap->start();
    const auto firstUUID = fakes.audioHardware->lastTapDescription()->uuid;
    fakes.audioHardware->clearCalls();
    tap->stop();
    EXPECT_EQ(fakes.audioHardware->calls(), kTeardown);
    EXPECT_FALSE(tap->isCapturing());
    EXPECT_TRUE(logs.contains(LogLevel::info, kCategory, "Stopping system audio tap"));
    EXPECT_TRUE(logs.contains(LogLevel::debug, kCategory, "System audio tap stopped"));

    tap->start();
    EXPECT_TRUE(tap->isCapturing());
    EXPECT_NE(fakes.audioHardware->lastTapDescription()->uuid, firstUUID);

    // Released while capturing, it stops first.
    fakes.audioHardware->clearCalls();
    tap.reset();
    EXPECT_EQ(fakes.audioHardware->calls(), kTeardown);
    EXPECT_EQ(logs.messages(kCategory).back(), "SystemAudioTap deallocated");
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

TEST_F(SystemAudioTapInputTest, MalformedCyclesWriteNothingAndUnsampledCyclesLogNothing) {
    {
        ScopedLogThinning neverLog(false);
        logs.clear();
        fakes.audioHardware->deliverInput(AudioBufferList{0, nullptr});
        std::vector<float> interleaved(2 * 512, 0.1f);
        AudioBuffer buffer{2, 4096, interleaved.data()};
        ASSERT_TRUE(fakes.audioHardware->deliverInput(AudioBufferList{1, &buffer}));
        EXPECT_THAT(logs.messages(kCategory), IsEmpty());
        tap->ringBuffer()->reset();
    }
    ScopedLogThinning alwaysLog(true);
    fakes.audioHardware->deliverInput(AudioBufferList{0, nullptr});
    EXPECT_TRUE(logs.contains(LogLevel::error, kCategory, "SystemAudioTap IOProc called but no audio buffers available"));

    AudioBuffer noData{2, 4096, nullptr};
    fakes.audioHardware->deliverInput(AudioBufferList{1, &noData});

    std::vector<float> left(256);
    AudioBuffer oneMissing[] = {{1, 1024, left.data()}, {1, 1024, nullptr}};
    fakes.audioHardware->deliverInput(AudioBufferList{2, oneMissing});

    // A single mono buffer is offered as one channel, which the two-channel ring refuses.
    AudioBuffer mono{1, 1024, left.data()};
    fakes.audioHardware->deliverInput(AudioBufferList{1, &mono});
    EXPECT_TRUE(logs.contains(LogLevel::critical, "FloatRingBuffer",
                              "Source channel count (1) doesn't match buffer channels (2)"));

    EXPECT_EQ(tap->ringBuffer()->availableFrames(), 0);
}

// The interleaved layout's frame order is what the counting-signal test reads back.
TEST_F(SystemAudioTapInputTest, BothLayoutsAreWrittenAndTheSampledLinesReportTheFill) {
    std::vector<float> interleaved(1024, 0.25f);
    AudioBuffer buffer{2, 4096, interleaved.data()};
    ScopedLogThinning alwaysLog(true);
    ASSERT_TRUE(fakes.audioHardware->deliverInput(AudioBufferList{1, &buffer}));
    EXPECT_TRUE(logs.contains(LogLevel::debug, kCategory, "SystemAudioTap buffer: 512 frames, 2 channels, 1 buffers"));
    EXPECT_TRUE(logs.contains(LogLevel::debug, kCategory,
                              "SystemAudioTap (interleaved) wrote 512/512 frames to ring buffer (available: 512/8192)"));

    std::vector<float> left(128, -0.5f), right(128, 0.75f);
    AudioBuffer buffers[] = {{1, 512, left.data()}, {1, 512, right.data()}};
    fakes.audioHardware->deliverInput(AudioBufferList{2, buffers});
    EXPECT_TRUE(logs.contains(LogLevel::debug, kCategory,
                              "SystemAudioTap (non-interleaved) wrote 128/128 frames to ring buffer (available: 640/8192)"));

    const auto channels = readAllFrames(*tap->ringBuffer());
    ASSERT_EQ(channels[0].size(), 640u);
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
