#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <thread>
#include <vector>

#include "MixerTestRig.hpp"
#include "support/RecorderTestSupport.hpp"

// The mixer on its own timer and queue, with capture producers on threads of
// their own: what ThreadSanitizer checks. Assertions never depend on how fast
// the machine is, only on what must eventually happen.
namespace velto {
namespace {

using namespace std::chrono_literals;

using velto::testing::eventually;

TEST(AudioMixerTimerTest, TheTimerTicksOnTheMixingQueueAsTheClockMoves) {
    auto clock = std::make_shared<ManualClock>();
    auto mixer = AudioMixer::create(1024, 512, clock);
    auto ring = FloatRingBuffer::create(1, 96000);
    testing::writeConstant(*ring, 0.25f, 48000);
    mixer->start(testing::singleInputs(nullptr, ring, 48000, 1, nullptr, *PcmFormat::make(16000, 1, true)));
    for (int period = 1; period <= 30; ++period) {
        clock->advance(1.0 / 60.0);
        ASSERT_TRUE(eventually([&] { return mixer->totalFramesProcessed() >= period * 800; }))
            << "no tick for period " << period;
    }
    EXPECT_EQ(mixer->totalFramesProcessed(), 30 * 800);
    EXPECT_NEAR(mixer->currentLevels().average, 20 * std::log10(0.25f), 1e-3);
    mixer->stopMixing();
    EXPECT_EQ(mixer->totalFramesProcessed(), 48000);  // the stop mixed what the ring still held
    clock->advance(1.0);
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(mixer->totalFramesProcessed(), 48000);  // no tick after the stop
}

// Real time, real threads: two producers write paced blocks while the timer
// mixes into a file and a consumer drains the stream; the owner reads levels
// and changes gains meanwhile. Everything the stream delivered is in the file,
// and a ramp on the microphone arrives without a gap or a repeat.
TEST(AudioMixerTimerTest, LiveProducersTimerAndConsumerRunTogether) {
    testing::TemporaryDirectory folder;
    auto file = AudioFile::openForWriting(folder.path() / "live.wav", makeAudioSettings(AudioFormat::wav));
    auto mixer = AudioMixer::create(1024, 512);
    auto systemRing = FloatRingBuffer::create(2, 96000);
    auto microphoneRing = FloatRingBuffer::create(1, 96000);
    auto stream = mixer->audioStream();
    mixer->setSystemGain(0.0f);
    mixer->setMicrophoneGain(1.0f);

    std::atomic<bool> producing{true};
    auto producer = [&producing](std::shared_ptr<FloatRingBuffer> ring, int64_t blockFrames, bool ramp) {
        std::vector<float> samples(static_cast<size_t>(blockFrames));
        std::vector<const float*> sources(static_cast<size_t>(ring->channels()), samples.data());
        int64_t counter = 0;
        auto next = std::chrono::steady_clock::now();
        while (producing.load()) {
            // A ramp below the clipping threshold; it wraps to 0 every half second.
            for (auto& sample : samples) sample = ramp ? static_cast<float>(counter++ % 8000) / 16000.0f : 0.0f;
            ring->write(sources, blockFrames);
            next += std::chrono::microseconds(blockFrames * 1'000'000 / 16000);
            std::this_thread::sleep_until(next);
        }
    };
    std::thread systemThread(producer, systemRing, 160, false);
    std::thread microphoneThread(producer, microphoneRing, 320, true);

    std::vector<float> received;
    std::thread consumer([&] {
        for (const auto& block : stream) {
            for (uint32_t i = 0; i < block->frameLength(); ++i) received.push_back(block->floatChannelData()[0][i]);
        }
    });

    mixer->start(testing::dualInputs(systemRing, 16000, 2, microphoneRing, 16000, file, file->processingFormat()));
    ASSERT_TRUE(eventually([&] { return file->framesWritten() >= 8000; }));
    for (int i = 0; i < 20; ++i) {
        mixer->setSystemGain(0.0f);
        (void)mixer->currentLevels();
        std::this_thread::sleep_for(1ms);
    }
    mixer->stopMixing();
    producing = false;
    systemThread.join();
    microphoneThread.join();
    consumer.join();

    EXPECT_EQ(static_cast<int64_t>(received.size()), file->framesWritten());
    ASSERT_GE(received.size(), 8000u);
    int discontinuities = 0;
    for (size_t i = 1; i < received.size(); ++i) {
        const float expected = received[i - 1] + 1.0f / 16000.0f;
        if (std::abs(received[i] - expected) > 1e-6f && received[i] != 0.0f) ++discontinuities;
    }
    EXPECT_EQ(discontinuities, 0);
    EXPECT_EQ(mixer->underrunCount(), 0);
}

}  // namespace
}  // namespace velto
