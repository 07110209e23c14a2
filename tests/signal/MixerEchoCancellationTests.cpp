#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "MixerTestRig.hpp"
#include "SignalQuality.hpp"
#include "support/CapturedLogs.hpp"

namespace velto {
namespace {

constexpr int64_t kRate = 16000;
constexpr int64_t kFrames = 5 * kRate;

double energy(const std::vector<float>& s, size_t from, size_t to) {
    double e = 0;
    for (size_t i = from; i < to; ++i) e += static_cast<double>(s[i]) * s[i];
    return e;
}

// Both sources at 16 kHz laid side by side, so the microphone's channel shows
// what the canceller did and the system audio's shows where it put the frames.
TEST(MixerEchoCancellationTest, MicrophoneLosesTheEchoAndNoFrameIsLostOrMoved) {
    testing::CapturedLogs logs;
    testing::MixerRig rig;
    auto system = FloatRingBuffer::create(1, kFrames);
    auto microphone = FloatRingBuffer::create(1, kFrames);
    auto inputs = testing::dualInputs(system, kRate, 1, microphone, kRate, nullptr, *PcmFormat::make(kRate, 2, true));
    inputs.layout = MixerTrackLayout::separate;
    inputs.echoCancellation = true;
    auto stream = rig.mixer->audioStream();
    rig.mixer->start(inputs);
    EXPECT_EQ(rig.mixer->mixingSampleRate(), 16000.0);

    const std::vector<float> far = testing::speechLikeNoise(kFrames, kRate);
    std::vector<float> echo(far.size(), 0.0f);
    for (size_t i = 1640; i < far.size(); ++i) echo[i] = 0.5f * far[i - 1600] - 0.2f * far[i - 1640];
    const std::vector<const float*> systemChannels{far.data()}, microphoneChannels{echo.data()};
    ASSERT_EQ(system->write(systemChannels, kFrames), kFrames);
    ASSERT_EQ(microphone->write(microphoneChannels, kFrames), kFrames);
    rig.step(4 * 60);
    rig.mixer->stopMixing();

    std::vector<float> microphoneOut, systemOut;
    testing::forEachFrame(stream, [&](const float* frame) {
        microphoneOut.push_back(frame[0]);
        systemOut.push_back(frame[1]);
    });
    EXPECT_EQ(systemOut, far);  // every frame, in place: the canceller's latency is neither added nor cut
    ASSERT_EQ(microphoneOut.size(), echo.size());
    const double reductionDb = 10 * std::log10(energy(echo, 3 * kRate, kFrames) / energy(microphoneOut, 3 * kRate, kFrames));
    EXPECT_GE(reductionDb, 25.0);
    // The end-of-recording report is seen nowhere else.
    EXPECT_TRUE(logs.containsPrefix("AudioMixer", "Echo cancellation: echo delay 100 ms, suppression "));
}

}  // namespace
}  // namespace velto
