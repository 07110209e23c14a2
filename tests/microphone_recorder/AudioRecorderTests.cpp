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
    std::shared_ptr<AudioRecorder> makeRecorder(const std::string& name = "take.wav") {
        auto recorder = AudioRecorder::create(directory.path() / name, AudioFormat::wav, std::nullopt,
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
    auto recorder = makeRecorder("take.m4a");
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
    EXPECT_FALSE(engine()->isRunning());
    // What was written before the failure is still a readable recording.
    EXPECT_GE(readRecording(file()).samples.size(), 2u * 1024u);
}

}  // namespace
}  // namespace velto
