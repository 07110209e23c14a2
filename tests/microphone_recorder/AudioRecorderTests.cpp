#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "microphone_recorder/AudioRecorder.hpp"
#include "RecorderTestSupport.hpp"

#include <fstream>
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
    std::shared_ptr<AudioRecorder> makeRecorder(std::filesystem::path file, AudioFormat format,
                                                std::optional<MicrophoneDevice> microphone = std::nullopt) {
        auto recorder = AudioRecorder::create(std::move(file), format, std::move(microphone), fakes.services(), clock);
        events = recorder->events();
        recorder->state();  // the start has run once this returns
        return recorder;
    }
    std::shared_ptr<platform::FakeAudioInputEngine> engine() { return fakes.audioEngineFactory->lastEngine(); }
    void useMicrophoneFormat(double rateHertz, uint32_t channels = 1, bool interleaved = false) {
        platform::FakeAudioInputEngine::Script script;
        script.inputFormat = PcmFormat{rateHertz, channels, interleaved};
        fakes.audioEngineFactory = platform::FakeAudioEngineFactory::create(script);
    }
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
    useMicrophoneFormat(16000.0);
    auto recorder = makeRecorder(directory.path() / "take.m4a", AudioFormat::wav);
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
    const auto file = directory.path() / "take.wav";
    EXPECT_EQ(drained.events.back().fileURL, file);

    // A ramp read back unchanged: no frame dropped, duplicated or reordered.
    const auto recorded = readRecording(file);
    ASSERT_TRUE(recorded.opened);
    EXPECT_EQ(recorded.sampleRate, 16000.0);
    EXPECT_EQ(recorded.channels, 1);
    ASSERT_EQ(recorded.samples.size(), 5u * 1024u);
    for (size_t i = 0; i < recorded.samples.size(); ++i) ASSERT_FLOAT_EQ(recorded.samples[i], rampAt(i)) << i;
    EXPECT_EQ(velto::testing::permissionsOf(file), 0600u);
    EXPECT_EQ(engine()->hasTap(), false);
    EXPECT_EQ(engine()->tapBufferSizeFrames(), 1024u);
}

TEST_F(AudioRecorderTest, AnInterleavedStereoMicrophoneIsFoldedToTheMonoFileFrameForFrame) {
    useMicrophoneFormat(16000.0, 2, true);
    auto recorder = makeRecorder(directory.path() / "stereo.wav", AudioFormat::wav);
    auto block = PcmBuffer::make(PcmFormat{16000.0, 2, true}, 3000);  // longer than the tap's size
    block->setFrameLength(3000);
    for (uint32_t f = 0; f < 3000; ++f) {  // left: a ramp; right: 0.2 above it
        block->floatChannelData()[0][2 * f] = rampAt(f);
        block->floatChannelData()[0][2 * f + 1] = rampAt(f) + 0.2f;
    }
    engine()->deliver(*block);
    recorder->stop();
    const auto recorded = readRecording(directory.path() / "stereo.wav");
    ASSERT_EQ(recorded.samples.size(), 3000u);
    for (size_t f = 0; f < 3000; ++f) ASSERT_FLOAT_EQ(recorded.samples[f], rampAt(f) + 0.1f) << f;
}

TEST_F(AudioRecorderTest, ConvertsA48KilohertzMicrophoneToSixteenKilohertzFlac) {
    auto recorder = makeRecorder(directory.path() / "take", AudioFormat::flac);
    int64_t index = 0;
    const auto sine = [](int64_t i) { return 0.5f * static_cast<float>(std::sin(2.0 * M_PI * 440.0 * i / 48000.0)); };
    for (int i = 0; i < 30; ++i) engine()->deliver(*velto::testing::monoBlock(48000.0, 1024, index, sine));
    recorder->stop();

    auto drained = drainUntilEnd(events);
    ASSERT_TRUE(drained.ended);
    EXPECT_EQ(drained.error, nullptr);
    ASSERT_EQ(drained.events.back().kind, Kind::finished);
    EXPECT_EQ(drained.events.back().fileURL, directory.path() / "take.flac");

    const auto recorded = readRecording(directory.path() / "take.flac");
    ASSERT_TRUE(recorded.opened);
    EXPECT_EQ(recorded.sampleRate, 16000.0);
    EXPECT_EQ(recorded.channels, 1);
    EXPECT_EQ(recorded.format & SF_FORMAT_TYPEMASK, SF_FORMAT_FLAC);
    // A third of the frames, less what the resampler still holds back at the end.
    EXPECT_LE(recorded.samples.size(), 30u * 1024u / 3u);
    EXPECT_GE(recorded.samples.size(), 30u * 1024u / 3u - 400u);
    float peak = 0;
    for (size_t i = 2000; i < recorded.samples.size(); ++i) peak = std::max(peak, std::fabs(recorded.samples[i]));
    EXPECT_NEAR(peak, 0.5f, 0.01f);
}

// Elapsed time is the file's length: the pause neither adds audio nor time.
TEST_F(AudioRecorderTest, PausedBlocksAreDroppedAndElapsedTimeIsTheRecordedTime) {
    useMicrophoneFormat(16000.0);
    auto recorder = makeRecorder(directory.path() / "take.wav", AudioFormat::wav);
    deliverRamp(*recorder, 16000.0, 2);  // frames 0..2047 recorded
    clock->advance(2.0);
    recorder->pause();
    recorder->pause();  // already paused: nothing
    deliverRamp(*recorder, 16000.0, 3);  // dropped
    clock->advance(10.0);
    recorder->resume();
    recorder->resume();  // already recording: nothing
    clock->advance(1.0);
    deliverRamp(*recorder, 16000.0, 1);
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
    EXPECT_DOUBLE_EQ(drained.events[drained.events.size() - 2].elapsedSeconds, 3072.0 / 16000.0);

    const auto recorded = readRecording(directory.path() / "take.wav");
    ASSERT_EQ(recorded.samples.size(), 3u * 1024u);
    EXPECT_FLOAT_EQ(recorded.samples[2048], rampAt(5 * 1024));  // the ramp where it was at the resume
}

// A muted microphone is reported once it has given nothing but zeros for ten seconds of
// recording, and again when it comes back; the recording goes on throughout.
TEST_F(AudioRecorderTest, TenSecondsOfDigitalSilenceAreReportedOnceAndTheSignalsReturnToo) {
    useMicrophoneFormat(16000.0);
    auto recorder = makeRecorder(directory.path() / "take.wav", AudioFormat::wav);
    deliverRamp(*recorder, 16000.0, 1);  // a signal first: the silence starts after it
    const int silentBlocks = 160;        // 10.24 s
    for (int i = 0; i < silentBlocks; ++i) {
        engine()->deliver(*velto::testing::monoBlock(16000.0, 1024, rampIndex, [](int64_t) { return 0.0f; }));
        if (i % 10 == 0) recorder->state();  // handled before the engine's inlet fills up
    }
    deliverRamp(*recorder, 16000.0, 1);
    recorder->stop();

    auto drained = drainUntilEnd(events);
    ASSERT_EQ(drained.count(Kind::silence), 1);
    ASSERT_EQ(drained.count(Kind::signal), 1);
    for (const auto& event : drained.events) {
        if (event.kind == Kind::silence) {
            EXPECT_EQ(event.source, RecordingEvent::Source::microphone);
            EXPECT_DOUBLE_EQ(event.elapsedSeconds, 1024.0 / 16000.0);
        }
        if (event.kind == Kind::signal) {
            EXPECT_DOUBLE_EQ(event.elapsedSeconds, (1 + silentBlocks) * 1024.0 / 16000.0);
        }
    }
    EXPECT_EQ(drained.events.back().kind, Kind::finished);
    EXPECT_EQ(readRecording(directory.path() / "take.wav").samples.size(), (2u + silentBlocks) * 1024u);
}

// An engine may hand on what it captured a little after the fact. Audio from before a
// pause or a stop is still recorded; audio from the pause, handed on at the resume, is not.
TEST_F(AudioRecorderTest, AudioTheEngineStillHoldsCountsForTheStateItWasCapturedIn) {
    useMicrophoneFormat(16000.0);
    auto recorder = makeRecorder(directory.path() / "take.wav", AudioFormat::wav);
    deliverRamp(*recorder, 16000.0, 1);                       // frames 0..1023
    engine()->holdBack(rampBlock(16000.0, 1024, rampIndex));  // 1024..2047, before the pause
    recorder->pause();
    engine()->holdBack(rampBlock(16000.0, 1024, rampIndex));  // 2048..3071, during the pause
    recorder->resume();
    deliverRamp(*recorder, 16000.0, 1);                       // 3072..4095
    engine()->holdBack(rampBlock(16000.0, 1024, rampIndex));  // 4096..5119, before the stop
    recorder->stop();
    ASSERT_TRUE(drainUntilEnd(events).ended);

    const auto recorded = readRecording(directory.path() / "take.wav");
    ASSERT_EQ(recorded.samples.size(), 4u * 1024u);
    const auto rampAt = [](int64_t frame) { return static_cast<float>(frame % 1000) / 1000.0f; };
    EXPECT_FLOAT_EQ(recorded.samples[2047], rampAt(2047));
    EXPECT_FLOAT_EQ(recorded.samples[2048], rampAt(3072));
    EXPECT_FLOAT_EQ(recorded.samples[4095], rampAt(5119));
}

// A cancel, or a reader that walks away, ends the recording without finished or
// cancelled and takes the file away; the engine stops either way.
TEST_F(AudioRecorderTest, CancelAndAReaderWalkingAwayRemoveTheFileWithoutAnEvent) {
    for (const bool readerLeaves : {false, true}) {
        SCOPED_TRACE(readerLeaves ? "reader leaves" : "cancel");
        auto recorder = makeRecorder(directory.path() / "take.wav", AudioFormat::wav);
        deliverRamp(*recorder, 48000.0, 3);
        ASSERT_TRUE(std::filesystem::exists(directory.path() / "take.wav"));
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
        EXPECT_FALSE(std::filesystem::exists(directory.path() / "take.wav"));
        EXPECT_FALSE(engine()->isRunning());
    }
}

TEST_F(AudioRecorderTest, StartFailuresEndTheStreamWithTheirOwnError) {
    struct Case {
        std::string name;
        std::function<void(AudioRecorderTest&)> script;
        std::optional<MicrophoneDevice> microphone;
        std::string expectedDescription;  // empty: the file system's own words
    };
    const std::vector<Case> cases = {
        {"engine refuses to start",
         [](AudioRecorderTest& t) {
             platform::FakeAudioInputEngine::Script script;
             script.startFailure = "Connection refused";
             t.fakes.audioEngineFactory = platform::FakeAudioEngineFactory::create(script);
         },
         std::nullopt, "Connection refused"},
        {"preferred microphone not discovered", [](AudioRecorderTest&) {},
         MicrophoneDevice{"missing-mic", "Missing", false}, "Unknown recording error occurred"},
        // Last: it takes the output directory away.
        {"output directory missing",
         [](AudioRecorderTest& t) { std::filesystem::remove_all(t.directory.path()); },
         std::nullopt, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        fakes = platform::FakePlatformServices{};
        c.script(*this);
        auto recorder = makeRecorder(directory.path() / "take.wav", AudioFormat::wav, c.microphone);
        auto drained = drainUntilEnd(events);
        ASSERT_TRUE(drained.ended);
        EXPECT_THAT(drained.shape(), ElementsAre(Kind::starting));
        ASSERT_NE(drained.error, nullptr);
        if (!c.expectedDescription.empty()) {
            EXPECT_EQ(describeError(drained.error), c.expectedDescription);
        }
        EXPECT_EQ(recorder->state(), State::idle);
    }
}

TEST_F(AudioRecorderTest, SelectsThePreferredMicrophoneBeforeStarting) {
    fakes.captureDeviceDiscovery->setDevices({{"BuiltInMicrophoneDevice", "Built-in", {}}});
    auto recorder =
        makeRecorder(directory.path() / "take.wav", AudioFormat::wav, MicrophoneDevice{"BuiltInMicrophoneDevice", "Built-in", true});
    EXPECT_EQ(recorder->state(), State::recording);
    EXPECT_EQ(engine()->currentDevice(), std::optional<platform::AudioObjectID>(41));
    recorder->cancel();
}

TEST_F(AudioRecorderTest, StopReportsAMissingOrEmptyFileInsteadOfFinished) {
    for (const bool leaveEmptyFile : {false, true}) {
        const std::string description = leaveEmptyFile ? "Recording file is empty" : "Recording file not found";
        SCOPED_TRACE(description);
        auto recorder = makeRecorder(directory.path() / "take.wav", AudioFormat::wav);
        // The writer keeps its (now unlinked) file; the name points at nothing or at an empty one.
        std::filesystem::remove(directory.path() / "take.wav");
        if (leaveEmptyFile) std::ofstream(directory.path() / "take.wav").close();
        recorder->stop();
        auto drained = drainUntilEnd(events);
        EXPECT_EQ(drained.count(Kind::finished), 0);
        ASSERT_NE(drained.error, nullptr);
        EXPECT_EQ(describeError(drained.error), description);
    }
}

TEST_F(AudioRecorderTest, AFileThatCanNoLongerBeWrittenEndsTheRecordingAfterFinished) {
    useMicrophoneFormat(16000.0);
    auto recorder = makeRecorder(directory.path() / "take.wav", AudioFormat::wav);
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
    EXPECT_EQ(drained.events.back().fileURL, directory.path() / "take.wav");
    EXPECT_EQ(velto::testing::recordingErrorCode(drained.error), RecordingError::Code::fileSystemError);
    EXPECT_THAT(describeError(drained.error), ::testing::StartsWith("File system error: "));
    EXPECT_FALSE(engine()->isRunning());
    // What was written before the failure is still a readable recording.
    const auto recorded = readRecording(directory.path() / "take.wav");
    ASSERT_TRUE(recorded.opened);
    EXPECT_GE(recorded.samples.size(), 2u * 1024u);
}

TEST(AudioRecorderLevels, MeasuresTheFirstChannelInDecibels) {
    const auto levelsOf = [](std::vector<float> samples, uint32_t channels = 1) {
        const auto frames = static_cast<uint32_t>(samples.size() / channels);
        auto buffer = PcmBuffer::make(*PcmFormat::make(16000.0, channels, channels > 1), frames);
        buffer->setFrameLength(frames);
        std::copy(samples.begin(), samples.end(), buffer->floatChannelData()[0]);
        return AudioRecorder::calculateLevels(*buffer);
    };
    EXPECT_EQ(levelsOf(std::vector<float>(512, 0.0f)), AudioLevels::silence());
    EXPECT_EQ(levelsOf({}), AudioLevels::silence());
    std::vector<float> square(512), sine(16000);
    for (size_t i = 0; i < square.size(); ++i) square[i] = i % 2 ? 1.0f : -1.0f;
    EXPECT_EQ(levelsOf(square), (AudioLevels{0.0f, 0.0f}));
    for (size_t i = 0; i < sine.size(); ++i) sine[i] = 0.5f * static_cast<float>(std::sin(2 * M_PI * 1000.0 * i / 16000.0));
    EXPECT_NEAR(levelsOf(sine).peak, -6.02f, 0.01f);
    EXPECT_NEAR(levelsOf(sine).average, -9.03f, 0.01f);
    // Interleaved stereo: only the left samples count.
    EXPECT_NEAR(levelsOf({0.5f, 1.0f, -0.5f, 1.0f, 0.5f, 1.0f, -0.5f, 1.0f}, 2).peak, -6.02f, 0.01f);
}

}  // namespace
}  // namespace velto
