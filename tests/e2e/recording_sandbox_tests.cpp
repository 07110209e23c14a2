// The multi-source recorder on the real sound server: tones played into the sandbox
// speakers and the virtual microphone must reach the recording file at the levels the gains
// imply, for the length of the recording; pause, separate tracks and a device appearing
// mid-recording behave as the recorder promises.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <future>
#include <numbers>
#include <optional>
#include <thread>

#include <unistd.h>

#include "support/RecorderTestSupport.hpp"
#include "capture_sandbox_signals.hpp"
#include "platform/PlatformServices.hpp"
#include "platform/fake/FakeConfigurationChangeCenter.hpp"
#include "platform/pulse/PulseConnection.hpp"
#include "unified_recorder/UnifiedAudioRecorder.hpp"
#include "veltoaudio/RecordingError.hpp"

namespace velto {
namespace {

using namespace std::chrono_literals;
using Kind = RecordingEvent::Kind;
using SteadyClock = std::chrono::steady_clock;
using velto::testing::readRecording;
using velto::testing::run;
using velto::testing::sine;

constexpr const char* kSpeakers = "velto_speakers";    // system audio
constexpr const char* kMicrophoneIn = "velto_mic_in";  // what the virtual microphone hears
constexpr double kMicrophoneToneHertz = 1000.0;
constexpr double kSystemToneHertz = 440.0;
constexpr float kToneAmplitude = 0.5f;
// An idle sandbox sink takes up to two seconds before a new player's first sample sounds:
// players start this much before the recording (start() waits it), which hears them from its first moment.
constexpr auto kPlayerLead = std::chrono::milliseconds(2000);

// Plays into a sink on a thread of its own (see playInto); get() tells whether pacat played
// it all. Each player plays past the recording's stop, so waiting for it costs nothing.
std::future<bool> play(std::string sink, std::uint32_t channels, double seconds, std::function<float(double)> sample) {
    return std::async(std::launch::async, [=] { return velto::testing::playInto(sink, channels, seconds, sample); });
}

// Amplitude of the `frequencyHertz` component of samples[begin, end) (Goertzel).
double toneAmplitude(const std::vector<float>& samples, std::size_t begin, std::size_t end, double frequencyHertz,
                     double rateHertz = 16000.0) {
    const double w = 2.0 * std::numbers::pi * frequencyHertz / rateHertz;
    double s1 = 0, s2 = 0;
    for (std::size_t i = begin; i < end; ++i) {
        const double s0 = samples[i] + 2.0 * std::cos(w) * s1 - s2;
        s2 = s1;
        s1 = s0;
    }
    const double power = s1 * s1 + s2 * s2 - 2.0 * std::cos(w) * s1 * s2;
    return 2.0 * std::sqrt(std::max(power, 0.0)) / static_cast<double>(end - begin);
}

double seconds(SteadyClock::duration d) { return std::chrono::duration<double>(d).count(); }

class RecordingSandboxTest : public ::testing::Test {
protected:
    // Lets the players' lead pass, starts a recording into `name` and waits for its start.
    std::shared_ptr<UnifiedAudioRecorder> start(const std::string& name, AudioSources sources,
                                                AudioFormat format = AudioFormat::wav,
                                                TrackLayout layout = TrackLayout::mixed) {
        std::this_thread::sleep_for(kPlayerLead);
        file = directory.path() / name;
        RecordingConfiguration configuration(format, sources, std::nullopt, BufferConfiguration::defaultConfiguration());
        configuration.trackLayout = layout;
        auto recorder = UnifiedAudioRecorder::create(file, configuration, services);
        awaitStart(*recorder);
        started = SteadyClock::now();
        return recorder;
    }
    // Reads the events up to the start; the rest stay buffered until end() drains them.
    void awaitStart(UnifiedAudioRecorder& recorder) {
        stream = recorder.events();
        events = {};
        while (events.events.empty() || events.events.back().kind != Kind::started) {
            ASSERT_TRUE(stream.waitFor(10s)) << "the recording did not start";
            const auto event = stream.next();
            ASSERT_TRUE(event) << "the recording ended before it started";
            events.events.push_back(*event);
        }
    }
    // Stops the recording, which must then end without an error.
    void end(UnifiedAudioRecorder& recorder) {
        recorder.stop();
        stopped = SteadyClock::now();
        auto rest = velto::testing::drainUntilEnd(stream, 10s);
        EXPECT_TRUE(rest.ended) << "the recording did not end";
        EXPECT_EQ(rest.error, nullptr);
        events.events.insert(events.events.end(), rest.events.begin(), rest.events.end());
    }

    platform::PlatformServices services = platform::PlatformServices::pulse();
    velto::testing::TemporaryDirectory directory;
    std::filesystem::path file;
    EventStream<RecordingEvent> stream;
    velto::testing::DrainedEvents events;
    SteadyClock::time_point started, stopped;
};

// Every source case, each format in turn (the formats' own round trips are unit tests).
TEST_F(RecordingSandboxTest, EverySourceCaseRecordsTheTonesAtTheirGains) {
    struct Case {
        const char* name;
        AudioSources sources;
        AudioFormat format;
        double microphoneAmplitude;  // expected in the file: played amplitude × gain
        double systemAmplitude;
    };
    const std::vector<Case> cases = {
        {"microphoneOnly", AudioSources::microphoneOnly(), AudioFormat::wav, 0.5 * kToneAmplitude, 0.0},
        {"systemAudioOnly", AudioSources::systemAudioOnly(), AudioFormat::flac, 0.0, 0.5 * kToneAmplitude},
        {"both", AudioSources::both(), AudioFormat::wav, 0.3 * kToneAmplitude, 0.3 * kToneAmplitude},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.name) + " " + fileExtension(c.format));
        auto microphone = play(kMicrophoneIn, 1, 5.6, sine(kMicrophoneToneHertz, kToneAmplitude));
        auto speakers = play(kSpeakers, 2, 5.6, sine(kSystemToneHertz, kToneAmplitude));
            auto recorder = start(std::string(c.name) + "." + fileExtension(c.format), c.sources, c.format);
        std::this_thread::sleep_until(started + 4s);
        end(*recorder);
        EXPECT_THAT(events.shape(), ::testing::ElementsAre(Kind::starting, Kind::started, Kind::progress, Kind::finished));
        EXPECT_NEAR(events.count(Kind::progress), 40, 4);

        const auto recorded = readRecording(file);
        ASSERT_TRUE(recorded.opened);
        EXPECT_EQ(recorded.sampleRate, 16000.0);
        EXPECT_EQ(recorded.channels, 1);
        // The file covers the whole recording: silence where the sources had nothing yet,
        // and at the stop everything captured, down to the resamplers' last frames.
        const double fileSeconds = static_cast<double>(recorded.samples.size()) / 16000.0;
        EXPECT_NEAR(fileSeconds, seconds(stopped - started), 0.3);
        // The sources sound within a second of the start: the first progress that carries levels.
        const auto all = events.events;
        const auto sounding = std::find_if(all.begin(), all.end(), [](const RecordingEvent& e) {
            return e.kind == Kind::progress && e.audioLevels.average > -159.0f;
        });
        ASSERT_NE(sounding, all.end());
        EXPECT_LT(sounding->elapsedSeconds, 1.0);
        // The virtual microphone sometimes takes up to a second to carry the first tone
        // after its stream opens; levels are taken from 2 s on.
        const std::size_t first = 32000, last = recorded.samples.size() - 1600;
        ASSERT_GT(last, first + 8000);
        const double mic = toneAmplitude(recorded.samples, first, last, kMicrophoneToneHertz);
        const double system = toneAmplitude(recorded.samples, first, last, kSystemToneHertz);
        std::printf("[ measure  ] %s %s: file %.3f s for %.3f s, microphone tone %.4f (want %.4f), system tone %.4f (want "
                    "%.4f)\n",
                    c.name, fileExtension(c.format).c_str(), fileSeconds, seconds(stopped - started), mic,
                    c.microphoneAmplitude, system, c.systemAmplitude);
        EXPECT_NEAR(mic, c.microphoneAmplitude, 0.1 * kToneAmplitude);
        EXPECT_NEAR(system, c.systemAmplitude, 0.1 * kToneAmplitude);
        EXPECT_TRUE(microphone.get());
        EXPECT_TRUE(speakers.get());
    }
}

// The tone's amplitude rises steadily with wall time, so audio lost at the restart shows
// as a step in the envelope: step ÷ slope is the lost time. Both capture paths: the
// microphone's input engine and the system audio's tap device.
TEST_F(RecordingSandboxTest, ADeviceLoadedMidRecordingRestartsCaptureWithoutAGap) {
    struct Case {
        const char* name;
        const char* sink;  // where the tone is played
        std::uint32_t channels;
        AudioSources sources;
    };
    for (const auto& c : {Case{"microphone", kMicrophoneIn, 1, AudioSources::microphoneOnly()},
                          Case{"system audio", kSpeakers, 2, AudioSources::systemAudioOnly()}}) {
        SCOPED_TRACE(c.name);
        constexpr double kPlaySeconds = 6.0;
        constexpr double kSlopePerSecond = 0.15;  // played amplitude per second
        // 1 kHz: a whole number of periods in every 20 ms window of the envelope below.
        auto player = play(c.sink, c.channels, kPlaySeconds, [](double t) {
            return static_cast<float>((0.1 + kSlopePerSecond * t) * std::sin(2.0 * std::numbers::pi * 1000.0 * t));
        });
            auto recorder = start("restart-" + std::to_string(c.channels) + ".wav", c.sources);
        std::this_thread::sleep_until(started + 2s);
        const auto firstMixer = recorder->mixer();
        const std::string module = run("pactl load-module module-null-sink sink_name=velto_recording_extra_" +
                                       std::to_string(::getpid()) + " 2>/dev/null");
        std::this_thread::sleep_until(started + 4s);
        end(*recorder);
        if (!module.empty()) run("pactl unload-module " + module);

        // Envelope per 20 ms window (20 periods of the tone), in file time.
        const auto recorded = readRecording(file);
        const std::size_t window = 320;
        std::vector<double> times, envelope;
        for (std::size_t start = 0; start + window <= recorded.samples.size(); start += window) {
            times.push_back((start + window / 2.0) / 16000.0);
            envelope.push_back(toneAmplitude(recorded.samples, start, start + window, 1000.0));
        }
        // The restart is where the envelope steps; fit a line on each side, away from the step.
        const double fileSlope = 0.5 * kSlopePerSecond;  // the single-source gain
        std::size_t step = 0;
        double largestRise = 0;
        // The first mixer wrote its frames (at 48 kHz, a third of them at 16 kHz) before the
        // splice; the search looks around there (the output resampler held some back).
        ASSERT_NE(firstMixer, nullptr);
        const auto spliceWindow = static_cast<std::size_t>(firstMixer->totalFramesProcessed() / 3 / window);
        for (std::size_t i = spliceWindow > 8 ? spliceWindow - 8 : 1; i + 10 < envelope.size() && i < spliceWindow + 8; ++i) {
            const double rise = envelope[i + 1] - envelope[i - 1];
            if (rise > largestRise) {
                largestRise = rise;
                step = i;
            }
        }
        ASSERT_GT(step, 20u);
        ASSERT_LT(step + 20, envelope.size());
        // The slope is known; each side's offset is the mean of envelope − slope × time.
        const auto offset = [&](std::size_t from, std::size_t to) {
            double sum = 0;
            for (std::size_t i = from; i < to; ++i) sum += envelope[i] - fileSlope * times[i];
            return sum / static_cast<double>(to - from);
        };
        const double before = offset(step > 47 ? step - 45 : 2, step - 2);
        const double after = offset(step + 3, std::min(envelope.size() - 5, step + 45));
        const double lostMilliseconds = 1000.0 * (after - before) / fileSlope;
        std::printf("[ measure  ] restart at %.3f s of the file: %.1f ms of audio lost\n", times[step], lostMilliseconds);
        // The restarted capture takes over the stream the old one stopped, so nothing is lost
        // (0.0 to 0.1 ms measured). A new stream instead loses the restart's own time rounded
        // up to the source's 21 ms posting period: 21 to 80 ms.
        EXPECT_LT(std::fabs(lostMilliseconds), 5.0);
    }
}

// A start and a restart each wait on the server once, whichever sources they start: every
// lookup (the chosen microphone, its format, the clock's device, the output to tap) reads
// the one snapshot. Each lookup reading one of its own cost 7 round trips for a chosen
// microphone, 2 for system audio, 9 for both. The test posts the configuration change
// itself, so the change centre's own look at the server stays out of the count.
TEST_F(RecordingSandboxTest, AStartAndARestartAskTheServerOnce) {
    const auto changes = platform::FakeConfigurationChangeCenter::create();
    services.configurationChangeCenter = changes;
    const auto connection = pulse::PulseConnection::shared();
    for (const auto& sources : {AudioSources::microphoneOnly(), AudioSources::systemAudioOnly(), AudioSources::both()}) {
        SCOPED_TRACE(caseName(sources.kind()));
        const RecordingConfiguration configuration(AudioFormat::wav, sources,
                                                   MicrophoneDevice{"velto_mic", "Velto-Microphone", true},
                                                   BufferConfiguration::defaultConfiguration());
        auto recorder = UnifiedAudioRecorder::create(directory.path() / "round-trips.wav", configuration, services);
        auto before = connection->roundTrips();
        awaitStart(*recorder);
        EXPECT_EQ(connection->roundTrips() - before, 1u) << "start";
        before = connection->roundTrips();
        changes->post();
        recorder->mixer();  // waits for the restart the post queued
        EXPECT_EQ(connection->roundTrips() - before, 1u) << "restart";
        end(*recorder);
    }
}

TEST_F(RecordingSandboxTest, SeparateTracksKeepEachSourceOnItsOwnChannel) {
    // A tone of its own on each source, at different levels. How the channels line up
    // over time is measured by the drift sandbox test's marks.
    constexpr float kSystemAmplitude = 0.2f;
    auto microphone = play(kMicrophoneIn, 1, 9.0, sine(kMicrophoneToneHertz, kToneAmplitude));
    auto speakers = play(kSpeakers, 2, 9.0, sine(kSystemToneHertz, kSystemAmplitude));
    auto recorder = start("separate.flac", AudioSources::both(), AudioFormat::flac, TrackLayout::separate);
    std::this_thread::sleep_until(started + 6s);
    end(*recorder);

    // Progress carries each source's own level beside the recording's.
    int progressWithBoth = 0;
    for (const auto& event : events.events) {
        if (event.kind == Kind::progress && event.microphoneLevels && event.systemLevels &&
            event.microphoneLevels->peak > -10.0f && event.systemLevels->peak > -20.0f) {
            ++progressWithBoth;
        }
    }
    EXPECT_GT(progressWithBoth, 10);

    const auto recorded = readRecording(file);
    ASSERT_TRUE(recorded.opened);
    ASSERT_EQ(recorded.channels, 2);
    std::vector<float> microphoneChannel, systemChannel;
    for (std::size_t i = 0; i + 1 < recorded.samples.size(); i += 2) {
        microphoneChannel.push_back(recorded.samples[i]);
        systemChannel.push_back(recorded.samples[i + 1]);
    }
    ASSERT_GT(microphoneChannel.size(), 5u * 16000u);
    // File 1-2.5 s: each channel its own tone at its own, unscaled level.
    const std::size_t begin = 16000, end = 40000;
    const auto decibels = [](double amplitude) { return 20.0 * std::log10(std::max(amplitude, 1e-12)); };
    const double microphoneOwn = toneAmplitude(microphoneChannel, begin, end, kMicrophoneToneHertz);
    // Crosstalk from the recorder would sound all the time; a player starved on a loaded
    // machine clicks now and then, and a click holds every frequency. The cleanest quarter
    // of the span tells the channels' separation.
    const auto quietestAmplitude = [&](const std::vector<float>& channel, double frequencyHertz) {
        double quietest = 1.0;
        for (std::size_t quarter = 0; quarter < 4; ++quarter) {
            const std::size_t from = begin + quarter * (end - begin) / 4;
            quietest = std::min(quietest, toneAmplitude(channel, from, from + (end - begin) / 4, frequencyHertz));
        }
        return quietest;
    };
    const double microphoneOther = quietestAmplitude(microphoneChannel, kSystemToneHertz);
    const double systemOwn = toneAmplitude(systemChannel, begin, end, kSystemToneHertz);
    const double systemOther = quietestAmplitude(systemChannel, kMicrophoneToneHertz);
    std::printf("[ measure  ] separate: microphone channel %.4f (other %.1f dB), system channel %.4f (other %.1f dB)\n",
                microphoneOwn, decibels(microphoneOther), systemOwn, decibels(systemOther));
    EXPECT_NEAR(microphoneOwn, kToneAmplitude, 0.05);
    EXPECT_NEAR(systemOwn, kSystemAmplitude, 0.03);
    EXPECT_LT(decibels(microphoneOther), -80.0);
    EXPECT_LT(decibels(systemOther), -80.0);

    EXPECT_TRUE(microphone.get());
    EXPECT_TRUE(speakers.get());
}

}  // namespace
}  // namespace velto
