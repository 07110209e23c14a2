// Capture streams carried across a restart on the real sound server: a stream stopped
// just after a configuration change goes on recording, and the next start on the same
// source takes it over without a gap or a jump in the signal.

#include "capture_sandbox_signals.hpp"
#include "platform/pulse/PulseStreamHandover.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <mutex>
#include <numbers>
#include <thread>

namespace velto::pulse {
namespace {

using namespace std::chrono_literals;

constexpr double kToneHertz = 1000.0;
constexpr float kToneAmplitude = 0.5f;

PulseCaptureStreamOptions speakersMonitor() {
    PulseCaptureStreamOptions options;
    options.sourceName = "velto_speakers.monitor";
    options.sampleRateHertz = 48000.0;
    options.channels = 2;
    options.blockFrames = 1024;
    options.streamName = "VeltoAudio handover test";
    return options;
}

// The first channel of every delivered block, whichever stream delivered it.
struct Recording {
    std::mutex mutex;
    std::vector<float> samples;
    PulseCaptureStream::Delivery delivery() {
        return [this](const float* interleaved, std::uint32_t frames, double) {
            std::lock_guard lock(mutex);
            for (std::uint32_t f = 0; f < frames; ++f) samples.push_back(interleaved[f * 2]);
        };
    }
    bool heardTone() {
        std::lock_guard lock(mutex);
        for (float x : samples) {
            if (x > kToneAmplitude / 2) return true;
        }
        return false;
    }
};

TEST(PulseStreamHandoverSandboxTest, AStreamStoppedAfterAChangeIsTakenOverWithoutAGap) {
    auto connection = PulseConnection::shared();
    auto handover = PulseStreamHandover::create(connection);
    std::atomic<bool> playedOK{false};
    std::thread player([&] { playedOK = testing::playSine("velto_speakers", kToneHertz, kToneAmplitude, 5.0); });

    Recording recording;
    auto first = PulseCaptureStream::open(connection, speakersMonitor(), recording.delivery());
    for (int i = 0; i < 300 && !recording.heardTone(); ++i) std::this_thread::sleep_for(10ms);
    ASSERT_TRUE(recording.heardTone());
    std::this_thread::sleep_for(300ms);

    handover->openWindow();
    handover->release(std::move(first));
    EXPECT_EQ(handover->parkedCount(), 1u);
    std::this_thread::sleep_for(100ms);  // longer than a restart takes, while the tone goes on
    auto otherOptions = speakersMonitor();
    otherOptions.sourceName = "velto_mic_in.monitor";
    EXPECT_EQ(handover->adopt(otherOptions, recording.delivery()), nullptr) << "another source took it";
    auto second = handover->adopt(speakersMonitor(), recording.delivery());
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(handover->parkedCount(), 0u);
    std::this_thread::sleep_for(300ms);
    second->deliverCapturedSoFar();
    second->close();
    player.join();
    EXPECT_TRUE(playedOK.load());

    // One continuous sine from the first stream into the second: a sample that does not
    // follow from the two before it is a gap, a jump or a repeat.
    std::lock_guard lock(recording.mutex);
    const auto& x = recording.samples;
    std::size_t begin = 0;
    while (begin < x.size() && std::fabs(x[begin]) < kToneAmplitude / 2) ++begin;
    begin += 4800;
    // From 0.1 s after the tone came: 0.2 s of the first stream, 0.1 parked, 0.3 of the second.
    ASSERT_GT(x.size(), begin + 48000 / 2) << "less than the streams recorded after the tone came";
    const double twiceCosine = 2.0 * std::cos(2.0 * std::numbers::pi * kToneHertz / 48000.0);
    double worst = 0.0;
    std::size_t worstAt = 0;
    for (std::size_t n = begin; n + 1 < x.size(); ++n) {
        const double residual = std::fabs(x[n + 1] - twiceCosine * x[n] + x[n - 1]);
        if (residual > worst) {
            worst = residual;
            worstAt = n;
        }
    }
    EXPECT_LT(worst, 1e-3) << "discontinuity at frame " << worstAt << " of " << x.size();
}

TEST(PulseStreamHandoverSandboxTest, StreamsAreClosedOutsideTheWindowAndWhenNoRestartTakesThemOver) {
    auto connection = PulseConnection::shared();
    auto handover = PulseStreamHandover::create(connection, 0.3);
    Recording recording;

    handover->release(PulseCaptureStream::open(connection, speakersMonitor(), recording.delivery()));
    EXPECT_EQ(handover->parkedCount(), 0u) << "parked with no change announced";
    EXPECT_EQ(handover->adopt(speakersMonitor(), recording.delivery()), nullptr);

    handover->openWindow();
    handover->release(PulseCaptureStream::open(connection, speakersMonitor(), recording.delivery()));
    EXPECT_EQ(handover->parkedCount(), 1u);
    // A start this long after the stop is another recording, which must not begin with
    // what was captured before it.
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(handover->adopt(speakersMonitor(), recording.delivery()), nullptr);
    EXPECT_EQ(handover->parkedCount(), 0u) << "a stream no one took over was kept";
}

}  // namespace
}  // namespace velto::pulse
