#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "support/RecorderTestSupport.hpp"
#include "platform/fake/FakePlatformServices.hpp"
#include "signal/VariableRatioResampler.hpp"
#include "support/CapturedLogs.hpp"
#include "unified_recorder/UnifiedAudioRecorder.hpp"

namespace velto {
namespace {

using ::testing::ElementsAre;
using Kind = RecordingEvent::Kind;
using State = UnifiedAudioRecorder::RecorderState;
using velto::testing::CapturedLogs;
using velto::testing::drainUntilEnd;
using velto::testing::readRecording;
using velto::testing::takeAvailable;

constexpr int64_t kJitterFrames = 512;

class UnifiedAudioRecorderTest : public ::testing::Test {
public:
    // Echo cancellation off unless asked for: it makes a two-source mix run at 16 kHz.
    std::shared_ptr<UnifiedAudioRecorder> start(AudioSources sources,
                                                std::optional<MicrophoneDevice> microphone = std::nullopt,
                                                std::optional<bool> echoCancellation = false) {
        RecordingConfiguration configuration(AudioFormat::wav, sources, std::move(microphone),
                                             BufferConfiguration(96000, kJitterFrames, 1024));
        configuration.echoCancellation = echoCancellation;
        configuration.maximumDurationSeconds = maximumDurationSeconds;
        auto recorder = UnifiedAudioRecorder::create(file(), configuration, fakes.services(), clock, queue,
                                                     MixingTicks::caller);
        events = recorder->events();
        recorder->state();  // the start has run
        return recorder;
    }
    std::filesystem::path file() const { return directory.path() / "Recording.wav"; }
    std::shared_ptr<platform::FakeAudioInputEngine> microphoneEngine() {
        return fakes.audioEngineFactory->lastEngine();
    }

    // 1024 frames of a constant at 48 kHz: a microphone block, interleaved stereo system audio.
    static std::shared_ptr<PcmBuffer> microphoneBlock(float value) {
        auto block = PcmBuffer::make(*PcmFormat::make(48000.0, 1, false), 1024);
        std::fill_n(block->floatChannelData()[0], 1024, value);
        block->setFrameLength(1024);
        return block;
    }
    static std::vector<float> systemCycle(float left, float right) {
        std::vector<float> samples(2 * 1024);
        for (size_t i = 0; i < samples.size(); i += 2) {
            samples[i] = left;
            samples[i + 1] = right;
        }
        return samples;
    }
    // Feeds `frames` of a constant into the microphone, in 1024-frame blocks.
    void feedMicrophone(float value, int64_t frames) {
        auto block = microphoneBlock(value);
        for (int64_t done = 0; done < frames; done += 1024) {
            block->setFrameLength(static_cast<uint32_t>(std::min<int64_t>(1024, frames - done)));
            microphoneEngine()->deliver(*block);
        }
    }
    // Feeds system audio, in 1024-frame cycles.
    void feedSystem(float left, float right, int64_t frames) {
        auto samples = systemCycle(left, right);
        for (int64_t done = 0; done < frames; done += 1024) {
            const auto cycle = static_cast<uint32_t>(std::min<int64_t>(1024, frames - done));
            platform::AudioBuffer buffer{2, cycle * 2 * 4, samples.data()};
            platform::AudioBufferList list{1, &buffer};
            fakes.audioHardware->deliverInput(list);
        }
    }
    // Lets `seconds` pass and ticks the current mixer until it has caught up.
    int64_t mixFor(UnifiedAudioRecorder& recorder, double seconds) {
        auto mixer = recorder.mixer();
        if (!mixer) return 0;
        const double step = 1.0 / 60.0;
        for (double passed = 0; passed < seconds; passed += step) {
            clock->advance(step);
            mixer->tick();
            // A tick may end the recording (a failed write): the recorder then stops the
            // mixer on its queue, and no tick of ours may overlap that.
            const auto state = recorder.state();
            if (state != State::recording && state != State::paused) break;
        }
        return mixer->totalFramesProcessed();
    }

    // Drains the events, which must end, the last one of kind `last` and naming the file.
    velto::testing::DrainedEvents endedWith(Kind last) {
        auto drained = drainUntilEnd(events);
        EXPECT_TRUE(drained.ended);
        const auto end = drained.events.empty() ? RecordingEvent::progress(0, {}) : drained.events.back();
        EXPECT_EQ(end.kind, last);
        EXPECT_EQ(end.fileURL, file());
        return drained;
    }

    std::optional<double> maximumDurationSeconds;
    CapturedLogs logs;
    velto::testing::TemporaryDirectory directory;
    std::shared_ptr<ManualClock> clock = std::make_shared<ManualClock>(100.0);
    std::shared_ptr<SerialQueue> queue =
        SerialQueue::create("io.veltoaudio.UnifiedAudioRecorder", QualityOfService::userInitiated, clock);
    platform::FakePlatformServices fakes;
    EventStream<RecordingEvent> events;
};

TEST_F(UnifiedAudioRecorderTest, MicrophoneOnlyRecordingMixesAtHalfGainIntoASixteenKilohertzFile) {
    auto recorder = start(AudioSources::microphoneOnly());
    ASSERT_EQ(recorder->state(), State::recording);
    auto audio = recorder->audioStream();
    feedMicrophone(0.8f, 48000 + kJitterFrames);
    // The steered mixer's clock starts at the tick that finds the reserve there.
    EXPECT_EQ(mixFor(*recorder, 1.0), 48000 - 800);
    recorder->stop();
    // The live stream carries exactly the blocks written to the file, then ends.
    const auto streamedFrames = velto::testing::framesUntilEnd(audio);
    EXPECT_TRUE(audio.isTerminated());

    auto drained = endedWith(Kind::finished);
    EXPECT_EQ(drained.error, nullptr);
    EXPECT_THAT(drained.shape(), ElementsAre(Kind::starting, Kind::started, Kind::progress, Kind::finished));

    const auto recorded = readRecording(file());
    EXPECT_EQ(recorded.sampleRate, 16000.0);
    EXPECT_EQ(recorded.channels, 1);
    // Everything the microphone delivered, the reserve the mixer kept and what the
    // output resampler held included: the stop writes it all out.
    EXPECT_EQ(recorded.samples.size(), static_cast<size_t>((48000 + kJitterFrames) / 3));
    EXPECT_EQ(static_cast<size_t>(streamedFrames), recorded.samples.size());
    // A constant 0.8 at gain 0.5 is written as 0.4 once the resampler has settled.
    EXPECT_NEAR(recorded.samples[recorded.samples.size() / 2], 0.4f, 0.01f);
    EXPECT_EQ(velto::testing::permissionsOf(file()), 0600u);
    EXPECT_FALSE(microphoneEngine()->isRunning());
}

// Microphone 0.5 and system (0.4, 0.2) folded to 0.3, each at its gain. By default a
// two-source recording cancels the echo, which moves the mix to 16 kHz; constant sources
// (no echo to find) reach the file unchanged.
TEST_F(UnifiedAudioRecorderTest, EachSourceCaseMixesItsSourcesAtItsGains) {
    struct Case {
        AudioSources sources;
        std::optional<bool> echoCancellation;
        float mixedValue;
        int64_t mixedFrames;  // in half a second
    };
    for (const auto& c : {Case{AudioSources::systemAudioOnly(), false, 0.3f * 0.5f, 24000},
                          Case{AudioSources::both(), false, 0.5f * 0.3f + 0.3f * 0.3f, 24000},
                          Case{AudioSources::both(), std::nullopt, 0.5f * 0.3f + 0.3f * 0.3f, 8000}}) {
        SCOPED_TRACE(c.mixedFrames);
        auto recorder = start(c.sources, std::nullopt, c.echoCancellation);
        ASSERT_EQ(recorder->state(), State::recording);
        if (c.sources.includeMicrophone()) feedMicrophone(0.5f, 24000 + kJitterFrames);
        feedSystem(0.4f, 0.2f, 24000 + kJitterFrames);
        EXPECT_EQ(mixFor(*recorder, 0.5), c.mixedFrames);
        recorder->stop();
        EXPECT_FALSE(fakes.audioHardware->hasIOBlock());
        drainUntilEnd(events);
        const auto recorded = readRecording(file());
        ASSERT_GT(recorded.samples.size(), 4000u);
        EXPECT_NEAR(recorded.samples[recorded.samples.size() / 2], c.mixedValue, 0.01f);
    }
}

// Sources may hand on what they captured a little after the fact: the stop fetches it
// from both before the mixer takes its last frames.
TEST_F(UnifiedAudioRecorderTest, TheStopFetchesWhatTheSourcesStillHoldBeforeTheLastMix) {
    auto recorder = start(AudioSources::both());
    feedMicrophone(0.5f, 24000 + kJitterFrames);
    feedSystem(0.4f, 0.2f, 24000 + kJitterFrames);
    EXPECT_EQ(mixFor(*recorder, 0.5), 24000);
    microphoneEngine()->holdBack(microphoneBlock(0.5f));
    fakes.audioHardware->holdBackInput(systemCycle(0.4f, 0.2f), 2);
    recorder->stop();
    endedWith(Kind::finished);

    const auto recorded = readRecording(file());
    // The sources are steered onto the mixer's clock: a ratio a few ppm from 1 may
    // make one frame more or less of the same audio.
    EXPECT_NEAR(static_cast<double>(recorded.samples.size()), (24000 + kJitterFrames + 1024) / 3, 1.0);
    EXPECT_NEAR(recorded.samples[recorded.samples.size() - 100], 0.5f * 0.3f + 0.3f * 0.3f, 0.01f);
}

// A pause keeps what is said during it out of the file and the live stream, even across
// a device change while paused; elapsed time is the file's length throughout.
TEST_F(UnifiedAudioRecorderTest, APauseKeepsItsAudioOutOfTheFileAndItsTimeOutOfElapsed) {
    auto recorder = start(AudioSources::microphoneOnly());
    auto audio = recorder->audioStream();
    feedMicrophone(0.6f, 24000 + kJitterFrames);
    mixFor(*recorder, 0.5);
    recorder->pause();
    recorder->pause();  // already paused: nothing
    feedMicrophone(-0.4f, 24000);
    mixFor(*recorder, 0.5);

    const auto mixerBeforeChange = recorder->mixer();
    fakes.configurationChangeCenter->post();
    recorder->state();
    EXPECT_NE(recorder->mixer(), mixerBeforeChange);  // applied while paused
    EXPECT_TRUE(microphoneEngine()->isRunning());
    feedMicrophone(-0.4f, 24000 + kJitterFrames);
    mixFor(*recorder, 0.5);
    recorder->state();  // every progress tick of the pause has run

    recorder->resume();
    feedMicrophone(0.2f, 24000);
    mixFor(*recorder, 0.5);
    recorder->stop();
    const auto streamedFrames = velto::testing::framesUntilEnd(audio);

    auto drained = endedWith(Kind::finished);
    EXPECT_EQ(drained.error, nullptr);
    ASSERT_EQ(drained.count(Kind::paused), 1);
    ASSERT_EQ(drained.count(Kind::resumed), 1);
    const auto& all = drained.events;
    const auto pausedAt = std::find_if(all.begin(), all.end(), [](const auto& e) { return e.kind == Kind::paused; });
    ASSERT_EQ(std::next(pausedAt)->kind, Kind::resumed);  // no progress while paused
    EXPECT_DOUBLE_EQ(std::next(pausedAt)->elapsedSeconds, pausedAt->elapsedSeconds);
    EXPECT_GT(pausedAt->elapsedSeconds, 0.45);
    EXPECT_LE(pausedAt->elapsedSeconds, 0.5);
    EXPECT_GT(all[all.size() - 2].elapsedSeconds, pausedAt->elapsedSeconds + 0.4);  // the last progress

    // Two seconds were fed, one of them while paused. What reaches the file of the pause
    // is only what the mixer still held at the resume (where it goes is the mixer's own
    // pause test): its jitter reserve and its output resampler's delay.
    const auto recorded = readRecording(file());
    EXPECT_EQ(static_cast<size_t>(streamedFrames), recorded.samples.size());
    EXPECT_LT(recorded.samples.size(), 16000u + kJitterFrames / 3 + 400u);
}

TEST_F(UnifiedAudioRecorderTest, CancelKeepsTheFileAndEndsWithCancelled) {
    auto recorder = start(AudioSources::microphoneOnly());
    feedMicrophone(0.2f, 9600 + kJitterFrames);
    mixFor(*recorder, 0.2);
    recorder->cancel();
    recorder->stop();  // already over: nothing

    auto drained = endedWith(Kind::cancelled);
    EXPECT_EQ(drained.error, nullptr);
    EXPECT_EQ(drained.count(Kind::finished), 0);
    EXPECT_TRUE(std::filesystem::exists(file()));
    EXPECT_EQ(recorder->state(), State::cancelled);
}

// The system audio device, or the microphone of a two-source recording, cannot start.
TEST_F(UnifiedAudioRecorderTest, StartFailuresEndTheStreamWithTheErrorAndLeaveNothingRunning) {
    for (const bool microphoneFails : {false, true}) {
        SCOPED_TRACE(microphoneFails ? "microphone" : "system audio");
        fakes = platform::FakePlatformServices{};
        platform::FakeAudioInputEngine::Script script;
        script.startFailure = "No such entity";
        if (microphoneFails) fakes.audioEngineFactory = platform::FakeAudioEngineFactory::create(script);
        else fakes.audioHardware->setStatus("deviceStart", -50);
        auto recorder = start(microphoneFails ? AudioSources::both() : AudioSources::systemAudioOnly());
        auto drained = drainUntilEnd(events);
        ASSERT_TRUE(drained.ended);
        EXPECT_THAT(drained.shape(), ElementsAre(Kind::starting));
        ASSERT_NE(drained.error, nullptr);
        EXPECT_EQ(describeError(drained.error),
                  microphoneFails ? "No such entity" : RecordingError::systemAudioDeviceStartFailed(-50).errorDescription());
        EXPECT_EQ(recorder->state(), State::finished);
        EXPECT_EQ(recorder->mixer(), nullptr);
        EXPECT_FALSE(fakes.audioHardware->hasIOBlock());
        EXPECT_EQ(fakes.configurationChangeCenter->observerCount(), 0u);
        recorder->stop();  // finished: nothing
    }
}

TEST_F(UnifiedAudioRecorderTest, AConfigurationChangeRebuildsCaptureIntoTheSameFile) {
    auto recorder = start(AudioSources::microphoneOnly());
    feedMicrophone(0.6f, 24000 + kJitterFrames);
    const int64_t firstFrames = mixFor(*recorder, 0.5);
    auto firstMixer = recorder->mixer();
    auto firstEngine = microphoneEngine();
    takeAvailable(events);

    clock->advance(0.25);
    fakes.configurationChangeCenter->post();
    recorder->state();  // the restart has run
    auto secondMixer = recorder->mixer();
    ASSERT_NE(secondMixer, nullptr);
    EXPECT_NE(secondMixer, firstMixer);
    EXPECT_FALSE(firstEngine->isRunning());
    EXPECT_NE(microphoneEngine(), firstEngine);
    EXPECT_TRUE(microphoneEngine()->isRunning());
    auto afterRestart = takeAvailable(events);
    ASSERT_FALSE(afterRestart.empty());
    EXPECT_EQ(afterRestart.back().kind, Kind::progress);
    // The file's length: the first mixer wrote out all it had when it stopped.
    EXPECT_NEAR(afterRestart.back().elapsedSeconds, (24000 + kJitterFrames) / 3.0 / 16000.0, 1e-3);

    // The first mixer wrote out everything when it stopped: nothing is carried over.
    feedMicrophone(0.6f, 24000);
    const int64_t secondFrames = mixFor(*recorder, 0.5);
    // Once mixing has begun, steered sources are held at their fill rather than above
    // the reserve: with no more deliveries the mixer reads all but the resampler's look-ahead.
    EXPECT_NEAR(secondFrames, 24000 - VariableRatioResampler::kTaps, VariableRatioResampler::kTaps);
    recorder->stop();
    EXPECT_EQ(endedWith(Kind::finished).error, nullptr);

    // Both mixers' audio is in the one file, one after the other, every frame fed:
    // each mixer wrote out its reserve and its resampler's tail when it stopped.
    const auto recorded = readRecording(file());
    EXPECT_EQ(firstFrames, 24000);
    EXPECT_EQ(recorded.samples.size(), static_cast<size_t>((24000 + kJitterFrames) / 3 + 24000 / 3));
}

TEST_F(UnifiedAudioRecorderTest, AFailedRestartFinishesWithTheFileThenEndsWithTheError) {
    auto recorder = start(AudioSources::systemAudioOnly());
    feedSystem(0.5f, 0.5f, 24000 + kJitterFrames);
    mixFor(*recorder, 0.5);
    fakes.audioHardware->setStatus("deviceStart", -50);  // the sound server has gone
    fakes.configurationChangeCenter->post();
    recorder->state();

    const auto error = endedWith(Kind::finished).error;
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(caseDescriptionOf(error), "systemAudioDeviceStartFailed(-50)");
    EXPECT_EQ(recorder->state(), State::finished);
    // The file holds what was mixed before the restart.
    EXPECT_GT(readRecording(file()).samples.size(), 7000u);
}

TEST_F(UnifiedAudioRecorderTest, AFileThatCanNoLongerBeWrittenEndsTheRecordingAfterFinished) {
    auto recorder = start(AudioSources::microphoneOnly());
    feedMicrophone(0.3f, 24000 + kJitterFrames);
    mixFor(*recorder, 0.5);
    {
        velto::testing::ScopedFileSizeLimit limit(40 * 1024);
        feedMicrophone(0.3f, 96000);
        mixFor(*recorder, 1.5);
        recorder->state();  // the failure report has hopped onto the work queue
    }
    EXPECT_EQ(velto::testing::recordingErrorCode(endedWith(Kind::finished).error), RecordingError::Code::fileSystemError);
    EXPECT_EQ(recorder->state(), State::finished);
    EXPECT_EQ(recorder->mixer(), nullptr);
    EXPECT_FALSE(microphoneEngine()->isRunning());
    EXPECT_GE(readRecording(file()).samples.size(), 7000u);
}

// The recording ends by itself on the frame, as a stop would end it, whatever the
// sources still hold.
TEST_F(UnifiedAudioRecorderTest, AMaximumDurationEndsTheRecordingOnItsFrame) {
    maximumDurationSeconds = 0.25;
    auto recorder = start(AudioSources::microphoneOnly());
    feedMicrophone(0.3f, 48000 + kJitterFrames);
    mixFor(*recorder, 1.0);
    const auto drained = endedWith(Kind::finished);
    EXPECT_EQ(drained.error, nullptr);
    EXPECT_EQ(recorder->state(), State::finished);
    EXPECT_FALSE(microphoneEngine()->isRunning());
    EXPECT_EQ(readRecording(file()).samples.size(), 4000u);
}

TEST_F(UnifiedAudioRecorderTest, ReleasingARunningRecorderStopsItsSources) {
    auto recorder = start(AudioSources::both());
    auto engine = microphoneEngine();
    ASSERT_TRUE(engine->isRunning());
    // The first progress tick is due at the start and holds the recorder while it runs;
    // let it finish, so that the release below is the last one.
    recorder->state();
    recorder.reset();
    EXPECT_FALSE(engine->isRunning());
    EXPECT_FALSE(fakes.audioHardware->hasIOBlock());
    EXPECT_EQ(fakes.configurationChangeCenter->observerCount(), 0u);
    EXPECT_TRUE(drainUntilEnd(events).ended);
}

}  // namespace
}  // namespace velto
