// The session state machine: start checks, event forwarding, control operations,
// restart and the end of a recording.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <cmath>
#include <limits>

#include <thread>

#include "service/ServiceHarness.hpp"
#include "support/CapturedLogs.hpp"
#include "veltoaudio/RecordingError.hpp"

namespace velto::testing {
namespace {

using ::testing::ElementsAre;
using Kind = RecordingEvent::Kind;
using Code = RecordingError::Code;

const MicrophoneDevice kBuiltIn{"built-in", "Built-in Microphone", true};
const MicrophoneDevice kUsb{"usb-1", "USB Microphone", false};

struct Session {
    EventStream<RecordingEvent> stream;
    std::shared_ptr<ScriptedRecorder> recorder;
};

class RecordingServiceTest : public ::testing::Test {
protected:
    RecordingServiceTest() { harness.sessionManager->setDevices({kBuiltIn, kUsb}); }
    RecordingService& service() { return harness.service(); }

    // Starts a recording and waits until its recorder runs and, when asked, until the
    // service has seen its first progress.
    Session start(bool untilRecording = true) {
        const auto index = harness.recorderCount();
        Session session{service().startRecording(makeConfiguration(AudioSources::microphoneOnly())), nullptr};
        session.recorder = harness.recorder(index);
        if (untilRecording) reachRecordingState(session.recorder);
        return session;
    }
    void reachRecordingState(const std::shared_ptr<ScriptedRecorder>& recorder) {
        recorder->emit(RecordingEvent::progress(0.1, AudioLevels::silence()));
        EXPECT_TRUE(eventually([&] { return service().isRecording(); }));
    }
    bool becomesIdle() {
        return eventually([&] { return service().recordingState() == RecordingState::idle; });
    }

    CapturedLogs logs;  // quiet, and every debug line is built
    ServiceHarness harness;
};

// MARK: - Start checks

TEST_F(RecordingServiceTest, startsThatCannotRecordAreRefusedAndTheServiceStaysIdle) {
    EXPECT_EQ(thrownCode([&] { service().restartRecording(); }), Code::invalidState);
    for (const auto& sources : {AudioSources::microphoneOnly(), AudioSources::systemAudioOnly()}) {
        auto configuration = makeConfiguration(sources);
        configuration.trackLayout = TrackLayout::separate;
        EXPECT_EQ(thrownCode([&] { service().startRecording(configuration); }), Code::separateTracksNeedBothSources);
    }
    for (const double limit : {0.0, -1.0, std::numeric_limits<double>::infinity(), std::nan("")}) {
        auto configuration = makeConfiguration(AudioSources::microphoneOnly());
        configuration.maximumDurationSeconds = limit;
        EXPECT_EQ(thrownCode([&] { service().startRecording(configuration); }), Code::invalidMaximumDuration) << limit;
    }
    EXPECT_EQ(service().recordingState(), RecordingState::idle);
    EXPECT_EQ(harness.recorderCount(), 0u);
}

TEST_F(RecordingServiceTest, aSecondStartIsRefusedWhileOneIsStartingOrRecording) {
    auto session = start(false);
    EXPECT_EQ(thrownCode([&] { service().startRecording(makeConfiguration(AudioSources::microphoneOnly())); }),
              Code::invalidState);
    reachRecordingState(session.recorder);
    EXPECT_EQ(thrownCode([&] { service().startRecording(); }), Code::invalidState);
    EXPECT_EQ(harness.recorderCount(), 1u);
}

// A refused start leaves nothing behind: the service is idle, refuses the control
// operations as it does when idle, and the next start records.
TEST_F(RecordingServiceTest, aRefusedStartLeavesTheServiceIdleAndTheNextStartRecords) {
    harness.microphoneStatus = platform::AuthorizationStatus::denied;
    EXPECT_EQ(thrownCode([&] { service().startRecording(makeConfiguration(AudioSources::both())); }),
              Code::permissionDenied);
    EXPECT_EQ(service().recordingState(), RecordingState::idle);
    EXPECT_FALSE(service().isRecordingActive());
    EXPECT_TRUE(harness.generatedFiles().empty());
    service().stopRecording();
    service().cancelRecording();
    service().pauseRecording();
    service().resumeRecording();
    EXPECT_EQ(service().recordingState(), RecordingState::idle);
    EXPECT_EQ(harness.recorderCount(), 0u);

    harness.microphoneStatus = platform::AuthorizationStatus::authorized;
    harness.sessionManager->failConfigurationWith(std::make_exception_ptr(PlatformError("PulseAudio", 3, "Bad device")));
    const auto error = thrown([&] { service().startRecording(); });
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->code(), Code::sessionConfigurationFailed);
    EXPECT_EQ(error->errorDescription(), "Failed to configure audio session: Bad device");
    EXPECT_EQ(service().recordingState(), RecordingState::idle);

    harness.sessionManager->failConfigurationWith(nullptr);
    auto session = start();
    EXPECT_TRUE(service().isRecording());
    service().stopRecording();
    EXPECT_EQ(drain(session.stream).kinds().back(), Kind::finished);
    EXPECT_TRUE(becomesIdle());
}

// With no server, every later check would answer wrongly (permission missing, tap
// failing): the start and the permission query say what is wrong instead.
TEST_F(RecordingServiceTest, noSoundServerIsItsOwnErrorAtStartAndForThePermissionQuery) {
    harness.setUnreachableServer("unix:/run/user/1000/pulse/native");
    for (auto sources : {AudioSources::microphoneOnly(), AudioSources::systemAudioOnly(), AudioSources::both()}) {
        EXPECT_EQ(thrown([&] { service().startRecording(makeConfiguration(sources)); }),
                  RecordingError::soundServerUnreachable("unix:/run/user/1000/pulse/native"));
        EXPECT_EQ(thrownCode([&] { service().getPermissionStatus(makeConfiguration(sources)); }),
                  Code::soundServerUnreachable);
    }
    EXPECT_EQ(service().recordingState(), RecordingState::idle);
    EXPECT_EQ(harness.recorderCount(), 0u);

    harness.setUnreachableServer(std::nullopt);
    EXPECT_EQ(service().getPermissionStatus(makeConfiguration(AudioSources::microphoneOnly())).microphone,
              PermissionState::granted);
    auto session = start();
    EXPECT_TRUE(service().isRecording());
}

TEST_F(RecordingServiceTest, systemAudioAloneNeedsNoPermissionCheckAtStart) {
    harness.microphoneStatus = platform::AuthorizationStatus::denied;
    harness.tcc->status = PermissionState::denied;
    auto stream = service().startRecording(makeConfiguration(AudioSources::systemAudioOnly()));
    EXPECT_NE(harness.recorder(), nullptr);
    EXPECT_EQ(harness.tcc->statusQueries.load(), 0);
    EXPECT_EQ(harness.microphoneStatusQueries.load(), 0);
    EXPECT_TRUE(harness.sessionManager->configuredMicrophones().empty());
}

// The stored microphone is configured for a recording, unless the configuration names
// one; an explicit file wins over a fresh location.
TEST_F(RecordingServiceTest, configuredMicrophoneAndExplicitFileWinOverTheStoredOneAndAFreshLocation) {
    harness.storage->setSelectedMicrophoneId("usb-1");
    start(false);
    EXPECT_EQ(harness.sessionManager->configuredMicrophones().back(), std::optional<MicrophoneDevice>(kUsb));
    service().cancelRecording();

    const MicrophoneDevice detached{"gone", "Detached", false};
    auto stream = service().startRecording(makeConfiguration(AudioSources::microphoneOnly(), AudioFormat::flac, detached),
                                           std::filesystem::path("/tmp/named.flac"));
    EXPECT_EQ(harness.sessionManager->configuredMicrophones().back(), std::optional<MicrophoneDevice>(detached));
    EXPECT_EQ(harness.recorder(1)->fileURL(), "/tmp/named.flac");
    EXPECT_EQ(harness.generatedFiles().size(), 1u);
}

// MARK: - Forwarding and the end of a recording

// Every event is relayed in order, and a stop delivers the recorder's finished before the
// end however the relaying and the stop interleave; the live audio goes with the recording.
TEST_F(RecordingServiceTest, eventsAreRelayedInOrderAndStopDeliversFinishedBeforeTheEnd) {
    for (int round = 0; round < 25; ++round) {
        auto [stream, recorder] = start();
        ASSERT_TRUE(service().audioStream().has_value());
        for (int i = 1; i <= 20; ++i) recorder->emit(RecordingEvent::progress(i, AudioLevels::silence()));
        service().stopRecording();
        auto drained = drain(stream);
        ASSERT_EQ(drained.error, nullptr);
        ASSERT_EQ(drained.events.size(), 22u);
        for (int i = 1; i <= 20; ++i) ASSERT_EQ(drained.events[static_cast<size_t>(i)].elapsedSeconds, i);
        ASSERT_EQ(drained.events.back().kind, Kind::finished) << "round " << round;
        ASSERT_EQ(drained.events.back().fileURL, recorder->fileURL());
        ASSERT_EQ(service().recordingState(), RecordingState::idle);
        ASSERT_FALSE(service().audioStream().has_value());
    }
}

TEST_F(RecordingServiceTest, aRecorderThatFailsOrCannotBeBuiltEndsTheStreamWithItsOwnError) {
    auto [stream, recorder] = start();
    recorder->fail(std::make_exception_ptr(RecordingError::systemAudioDeviceStartFailed(-50)));
    // Not wrapped: the consumer gets the recorder's own error object.
    EXPECT_EQ(recordingErrorCode(drain(stream).error), Code::systemAudioDeviceStartFailed);
    ASSERT_TRUE(becomesIdle());

    harness.recorderConstructionFails = true;
    auto next = service().startRecording();
    EXPECT_EQ(describeError(drain(next).error), "Failed to initialize audio recorder");
    ASSERT_TRUE(becomesIdle());
}

TEST_F(RecordingServiceTest, consumerThatStopsListeningReturnsTheServiceToIdleWithoutStoppingTheRecorder) {
    auto [stream, recorder] = start();
    stream.cancel();
    ASSERT_TRUE(becomesIdle());
    EXPECT_FALSE(recorder->wasCalled("stop"));
    // The forwarding task's wait was cancelled, which the recorder sees as its consumer leaving.
    EXPECT_TRUE(eventually([&, r = recorder] { return r->eventsTerminated(); }));
}

TEST_F(RecordingServiceTest, destroyingTheServiceCancelsTheRecordingAndEndsTheStream) {
    auto [stream, recorder] = start();
    harness.destroyService();
    auto drained = drain(stream);
    EXPECT_EQ(drained.error, nullptr);
    EXPECT_TRUE(recorder->wasCalled("cancel"));
    ASSERT_FALSE(drained.events.empty());
    EXPECT_EQ(drained.events.back().kind, Kind::cancelled);
}

TEST_F(RecordingServiceTest, aStopThatNeverEndsTheSequenceStillReturnsAndCleansUp) {
    auto clock = std::make_shared<ManualClock>();
    harness.clock = clock;
    harness.rebuild();
    auto session = start();
    session.recorder->endsOnStopAndCancel = false;
    // The stop waits for the recorder's last events until its grace period has passed.
    std::thread timeKeeper([&] {
        eventually([&] { return session.recorder->wasCalled("stop"); });
        clock->advance(60.0);
    });
    service().stopRecording();
    timeKeeper.join();
    EXPECT_EQ(service().recordingState(), RecordingState::idle);
    auto drained = drain(session.stream);  // the cleanup cancelled the forwarding: a normal end
    EXPECT_EQ(drained.error, nullptr);
    EXPECT_THAT(drained.kinds(), ElementsAre(Kind::progress));
}

// MARK: - Control operations

TEST_F(RecordingServiceTest, controlOperationsInStartingFollowTheTable) {
    auto [stream, recorder] = start(false);
    service().stopRecording();
    service().pauseRecording();
    EXPECT_EQ(service().recordingState(), RecordingState::starting);

    service().resumeRecording();
    EXPECT_EQ(service().recordingState(), RecordingState::recording);
    service().pauseRecording();
    EXPECT_TRUE(service().isPaused());
    service().pauseRecording();
    EXPECT_EQ(service().recordingState(), RecordingState::paused);
    // A progress report the recorder made just before the pause, relayed after it,
    // does not undo the pause.
    recorder->emit(RecordingEvent::progress(0.2, AudioLevels::silence()));
    recorder->emit(RecordingEvent::paused(0.2));
    for (int relayed = 0; relayed < 2; ++relayed) {
        ASSERT_TRUE(stream.waitFor(std::chrono::seconds(5)));
        stream.next();
    }
    EXPECT_TRUE(service().isPaused());
    service().resumeRecording();
    EXPECT_TRUE(service().isRecording());
}

TEST_F(RecordingServiceTest, cancelInStartingIsAcceptedAndRelaysTheCancelledEvent) {
    auto session = start(false);
    service().cancelRecording();
    EXPECT_THAT(drain(session.stream).kinds(), ElementsAre(Kind::cancelled));
    EXPECT_EQ(service().recordingState(), RecordingState::idle);
}

TEST_F(RecordingServiceTest, restartReleasesTheOldRecorderAndKeepsTheNewSessionThenRestartsFromIdle) {
    auto first = start();
    auto second = service().restartRecording();
    auto newRecorder = harness.recorder(1);
    ASSERT_NE(newRecorder, nullptr);
    // The old stream ends normally; its late cleanup must not touch the new session.
    EXPECT_EQ(drain(first.stream).error, nullptr);
    reachRecordingState(newRecorder);
    service().stopRecording();
    EXPECT_THAT(drain(second).kinds(), ElementsAre(Kind::progress, Kind::finished));

    // Once idle, a restart records again with the last configuration, into a new file.
    ASSERT_TRUE(becomesIdle());
    auto third = service().restartRecording();
    ASSERT_EQ(harness.generatedFiles().size(), 3u);
    EXPECT_EQ(harness.recorder(2)->fileURL(), harness.generatedFiles().back());
}

}  // namespace
}  // namespace velto::testing
