// The capture sources on the real sound server: a tone played into the sandbox speakers
// must arrive in the system-audio tap's ring buffer at the right pitch, level and without
// gaps; a microphone is chosen by its name.

#include "capture/MicrophoneCapture.hpp"
#include "capture/SystemAudioTap.hpp"
#include "capture_sandbox_signals.hpp"
#include "platform/pulse/PulseConnection.hpp"
#include "support/RecorderTestSupport.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <chrono>
#include <functional>
#include <thread>

namespace velto {
namespace {

using namespace std::chrono_literals;
using testing::measureTone;
using testing::playSine;

// Plays the tone on a thread while this thread drains the ring like the mixer does;
// once the tone has played, has the source hand over what it holds, as a recorder does
// before it stops, and returns each channel's samples.
// `heard` (when given) is set once the tone shows in the ring.
std::vector<std::vector<float>> captureWhilePlaying(FloatRingBuffer& ring, const std::function<void()>& flushCaptured,
                                                    const std::string& sink, std::uint32_t sinkChannels,
                                                    double frequencyHertz, float amplitude,
                                                    std::atomic<bool>* heard = nullptr) {
    std::atomic<bool> played{false};
    std::atomic<bool> playedOK{false};
    std::thread player([&] {
        playedOK = playSine(sink, frequencyHertz, amplitude, 0.8, sinkChannels);
        played = true;
    });
    const auto channels = static_cast<std::size_t>(ring.channels());
    std::vector<std::vector<float>> captured(channels);
    std::vector<std::vector<float>> block(channels, std::vector<float>(4800));
    std::vector<float*> destinations;
    for (auto& b : block) destinations.push_back(b.data());
    auto drainAvailable = [&] {
        const auto frames = std::min<std::int64_t>(ring.availableFrames(), 4800);
        if (frames == 0) return;
        ring.read(destinations, frames);
        for (std::size_t c = 0; c < channels; ++c) captured[c].insert(captured[c].end(), block[c].begin(), block[c].begin() + frames);
        if (heard && std::any_of(block[0].begin(), block[0].begin() + frames, [&](float x) { return x > amplitude / 2; })) {
            *heard = true;
        }
    };
    while (!played) {
        drainAvailable();
        std::this_thread::sleep_for(16ms);  // the mixer's tick
    }
    player.join();
    flushCaptured();
    while (ring.availableFrames() > 0) drainAvailable();
    EXPECT_TRUE(playedOK.load()) << "pacat could not play into " << sink;
    return captured;
}

// The main loop is held up, inside the tone, for longer than a source may stay quiet
// before it counts as idle (a starved process). What the server sent meanwhile is read
// once the loop runs again, and it is audio, not a gap filled with silence and then
// dropped as backlog.
TEST(SystemAudioTapSandboxTest, ToneOnTheSpeakersArrivesWholeThoughTheMainLoopIsHeldUp) {
    auto tap = SystemAudioTap::create(2, 96000, platform::PlatformServices::pulse());
    tap->start();
    ASSERT_TRUE(tap->isCapturing());
    EXPECT_EQ(tap->asbd().mSampleRate, 48000.0);
    EXPECT_EQ(tap->asbd().mChannelsPerFrame, 2u);
    std::atomic<bool> heard{false};
    std::thread staller([&heard] {
        while (!heard) std::this_thread::sleep_for(1ms);
        std::this_thread::sleep_for(100ms);
        pulse::PulseConnection::MainloopLock lock(*pulse::PulseConnection::shared());
        std::this_thread::sleep_for(350ms);
    });
    const auto captured = captureWhilePlaying(*tap->ringBuffer(), [&] { tap->flushCapturedAudio(); }, "velto_speakers",
                                              2, 1000.0, 0.5f, &heard);
    staller.join();
    tap->stop();
    EXPECT_FALSE(tap->isCapturing());

    for (std::size_t channel = 0; channel < 2; ++channel) {
        SCOPED_TRACE("channel " + std::to_string(channel));
        const auto tone = measureTone(captured[channel], 48000.0);
        std::printf("system audio channel %zu: %s\n", channel, testing::describe(tone).c_str());
        EXPECT_NEAR(static_cast<double>(tone.soundingFrames), 0.8 * 48000, 0.05 * 48000);
        EXPECT_NEAR(tone.rms, 0.5 / std::sqrt(2.0), 0.02);
        EXPECT_NEAR(tone.frequencyHertz, 1000.0, 10.0);
        EXPECT_GT(tone.weakestWindowPeak, 0.45);
    }
}

TEST(SystemAudioTapSandboxTest, StartsAgainAfterStopAndReadsNothingWhileSilent) {
    auto tap = SystemAudioTap::create(2, 96000, platform::PlatformServices::pulse());
    tap->start();
    tap->stop();
    tap->start();
    // An idle sink's monitor sends nothing; the tap keeps its pace with silence all the same,
    // as a device would, so that the mixer waiting for every source is not held up.
    ASSERT_TRUE(testing::eventually([&] { return tap->ringBuffer()->availableFrames() >= 4800; }, 2s));
    std::vector<float> left(4800), right(4800);
    float* destinations[] = {left.data(), right.data()};
    tap->ringBuffer()->read(destinations, 4800);
    for (float sample : left) ASSERT_EQ(sample, 0.0f);
    tap->stop();
    EXPECT_EQ(tap->ringBuffer()->availableFrames(), 0);
}

// (A tone into the virtual microphone reaching the file is measured on whole recordings.)
TEST(MicrophoneCaptureSandboxTest, AMicrophoneIsChosenByItsNameAndAMonitorIsNotAMicrophone) {
    auto capture = MicrophoneCapture::create(1, 96000, platform::PlatformServices::pulse());
    const MicrophoneDevice microphone{"velto_mic", "Velto-Microphone", true};
    capture->configureInputDevice(microphone);
    ASSERT_TRUE(capture->selectedMicrophoneID().has_value());
    EXPECT_ANY_THROW(capture->configureInputDevice(MicrophoneDevice{"velto_speakers.monitor", "Monitor", false}));
    EXPECT_EQ(capture->selectedMicrophone(), microphone);
}

}  // namespace
}  // namespace velto
