#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "microphone_recorder/AudioRecorder.hpp"
#include "support/RecorderTestSupport.hpp"

#include "platform/fake/FakePlatformServices.hpp"
#include "support/CapturedLogs.hpp"

namespace velto {
namespace {

using ::testing::ElementsAre;
using Kind = RecordingEvent::Kind;
using State = AudioRecorder::RecorderState;
using velto::testing::CapturedLogs;
using velto::testing::drainUntilEnd;
using velto::testing::rampAt;
using velto::testing::rampBlock;
using velto::testing::readRecording;

class AudioRecorderTest : public ::testing::Test {
public:
    // The microphone delivers 16 kHz mono unless a test changes the engine's script.
    AudioRecorderTest() {
        platform::FakeAudioInputEngine::Script script;
        script.inputFormat = PcmFormat{16000.0, 1, false};
        fakes.audioEngineFactory = platform::FakeAudioEngineFactory::create(script);
    }
    // Records into `name` (take.wav unless given) in WAV.
    std::shared_ptr<AudioRecorder> makeRecorder(std::optional<MicrophoneDevice> microphone = std::nullopt,
                                                const std::string& name = "take.wav") {
        auto recorder = AudioRecorder::create(directory.path() / name, AudioFormat::wav, std::move(microphone),
                                              fakes.services(), clock);
        events = recorder->events();
        recorder->state();  // the start has run once this returns
        return recorder;
    }
    std::filesystem::path file() const { return directory.path() / "take.wav"; }
    std::shared_ptr<platform::FakeAudioInputEngine> engine() { return fakes.audioEngineFactory->lastEngine(); }
    void deliverRamp(AudioRecorder& recorder, double rateHertz, int blocks) {
        for (int i = 0; i < blocks; ++i) engine()->deliver(*rampBlock(rateHertz, 1024, rampIndex));
        recorder.state();  // every queued block has been handled
    }

    CapturedLogs logs;
    velto::testing::TemporaryDirectory directory;
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>(500.0);
    platform::FakePlatformServices fakes;
    EventStream<RecordingEvent> events;
    int64_t rampIndex = 0;
};

TEST_F(AudioRecorderTest, RecordsEveryDeliveredFrameAtSixteenKilohertzAndFinishesWithTheCorrectedLocation) {
    auto recorder = makeRecorder(std::nullopt, "take.m4a");
    auto audio = recorder->audioStream();
    ASSERT_EQ(recorder->state(), State::recording);  // also: the audio stream's producer end is in place
    deliverRamp(*recorder, 16000.0, 5);
    recorder->stop();
    EXPECT_EQ(velto::testing::framesUntilEnd(audio), 5 * 1024);  // the live stream carries what was written, then ends

    auto drained = drainUntilEnd(events);
    ASSERT_TRUE(drained.ended);
    EXPECT_EQ(drained.error, nullptr);
    EXPECT_THAT(drained.shape(), ElementsAre(Kind::starting, Kind::started, Kind::progress, Kind::finished));
    EXPECT_EQ(drained.count(Kind::progress), 5);  // one per written block
    EXPECT_EQ(drained.events.back().fileURL, file());

    // A ramp read back unchanged: no frame dropped, duplicated or reordered.
    const auto recorded = readRecording(file());
    ASSERT_TRUE(recorded.opened);
    EXPECT_EQ(recorded.sampleRate, 16000.0);
    EXPECT_EQ(recorded.channels, 1);
    ASSERT_EQ(recorded.samples.size(), 5u * 1024u);
    for (size_t i = 0; i < recorded.samples.size(); ++i) ASSERT_FLOAT_EQ(recorded.samples[i], rampAt(i)) << i;
    EXPECT_EQ(velto::testing::permissionsOf(file()), 0600u);
}

// Elapsed time is the file's length. Audio the engine hands on late counts for the state it
// was captured in: from before the pause or the stop it is recorded, from the pause it is not.
TEST_F(AudioRecorderTest, APauseKeepsItsAudioAndItsTimeOutOfTheFile) {
    auto recorder = makeRecorder();
    deliverRamp(*recorder, 16000.0, 1);                       // frames 0..1023
    engine()->holdBack(rampBlock(16000.0, 1024, rampIndex));  // 1024..2047, before the pause
    clock->advance(2.0);
    recorder->pause();
    recorder->pause();  // already paused: nothing
    deliverRamp(*recorder, 16000.0, 2);                       // 2048..4095, dropped
    engine()->holdBack(rampBlock(16000.0, 1024, rampIndex));  // 4096..5119, during the pause
    clock->advance(10.0);
    recorder->resume();
    recorder->resume();  // already recording: nothing
    deliverRamp(*recorder, 16000.0, 1);                       // 5120..6143
    engine()->holdBack(rampBlock(16000.0, 1024, rampIndex));  // 6144..7167, before the stop
    recorder->stop();
    recorder->stop();  // already finished: nothing

    auto drained = drainUntilEnd(events);
    ASSERT_TRUE(drained.ended);
    EXPECT_THAT(drained.shape(), ElementsAre(Kind::starting, Kind::started, Kind::progress, Kind::paused,
                                             Kind::resumed, Kind::progress, Kind::finished));
    for (const auto& event : drained.events) {
        if (event.kind == Kind::paused || event.kind == Kind::resumed) {
            EXPECT_DOUBLE_EQ(event.elapsedSeconds, 2048.0 / 16000.0);
        }
    }
    const auto recorded = readRecording(file());
    ASSERT_EQ(recorded.samples.size(), 4u * 1024u);
    EXPECT_FLOAT_EQ(recorded.samples[2047], rampAt(2047));
    EXPECT_FLOAT_EQ(recorded.samples[2048], rampAt(5120));
    EXPECT_FLOAT_EQ(recorded.samples[4095], rampAt(7167));
}

// A cancel, or a reader that walks away, ends the recording without finished or
// cancelled and takes the file away; the engine stops either way.
TEST_F(AudioRecorderTest, CancelAndAReaderWalkingAwayRemoveTheFileWithoutAnEvent) {
    for (const bool readerLeaves : {false, true}) {
        SCOPED_TRACE(readerLeaves ? "reader leaves" : "cancel");
        auto recorder = makeRecorder();
        deliverRamp(*recorder, 16000.0, 3);
        ASSERT_TRUE(std::filesystem::exists(file()));
        if (readerLeaves) {
            events.cancel();
            recorder->state();  // the cancellation handling has run
        } else {
            recorder->cancel();
            auto drained = drainUntilEnd(events);
            ASSERT_TRUE(drained.ended);
            EXPECT_EQ(drained.error, nullptr);
            EXPECT_EQ(drained.count(Kind::cancelled) + drained.count(Kind::finished), 0);
        }
        recorder->stop();  // over: nothing
        EXPECT_EQ(recorder->state(), readerLeaves ? State::finished : State::cancelled);
        EXPECT_FALSE(std::filesystem::exists(file()));
        EXPECT_FALSE(engine()->isRunning());
    }
}

TEST_F(AudioRecorderTest, StartFailuresEndTheStreamWithTheirOwnError) {
    const auto expectFailure = [&](std::optional<MicrophoneDevice> microphone, const std::string& description) {
        auto recorder = makeRecorder(microphone);
        auto drained = drainUntilEnd(events);
        ASSERT_TRUE(drained.ended);
        EXPECT_THAT(drained.shape(), ElementsAre(Kind::starting));
        ASSERT_NE(drained.error, nullptr);
        if (!description.empty()) {
            EXPECT_EQ(describeError(drained.error), description);
        }
        EXPECT_EQ(recorder->state(), State::idle);
    };
    platform::FakeAudioInputEngine::Script refusing;
    refusing.startFailure = "Connection refused";
    fakes.audioEngineFactory = platform::FakeAudioEngineFactory::create(refusing);
    expectFailure(std::nullopt, "Connection refused");
    fakes = platform::FakePlatformServices{};
    expectFailure(MicrophoneDevice{"missing-mic", "Missing", false}, "Unknown recording error occurred");
    std::filesystem::remove_all(directory.path());  // the output directory is gone: the file system's words
    expectFailure(std::nullopt, "");
}

TEST_F(AudioRecorderTest, AFileThatCanNoLongerBeWrittenEndsTheRecordingAfterFinished) {
    auto recorder = makeRecorder();
    deliverRamp(*recorder, 16000.0, 2);
    {
        velto::testing::ScopedFileSizeLimit limit(12 * 1024);  // room for about one more block
        deliverRamp(*recorder, 16000.0, 4);
    }
    EXPECT_EQ(recorder->state(), State::finished);
    deliverRamp(*recorder, 16000.0, 1);  // nothing is listening any more

    auto drained = drainUntilEnd(events);
    ASSERT_TRUE(drained.ended);
    ASSERT_GE(drained.events.size(), 3u);
    EXPECT_EQ(drained.events.back().kind, Kind::finished);
    EXPECT_EQ(drained.events.back().fileURL, file());
    EXPECT_EQ(velto::testing::recordingErrorCode(drained.error), RecordingError::Code::fileSystemError);
    EXPECT_THAT(describeError(drained.error), ::testing::StartsWith("File system error: "));
    EXPECT_FALSE(engine()->isRunning());
    // What was written before the failure is still a readable recording.
    const auto recorded = readRecording(file());
    ASSERT_TRUE(recorded.opened);
    EXPECT_GE(recorded.samples.size(), 2u * 1024u);
}

}  // namespace
}  // namespace velto
