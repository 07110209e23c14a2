#include "capture/MicrophoneCapture.hpp"

#include "logging/LogThinning.hpp"
#include "model/AudioEngineRecorderError.hpp"
#include "platform/fake/FakePlatformServices.hpp"
#include "capture/RingReadBack.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

namespace velto {
namespace {

using namespace platform;
using testing::readAllFrames;

template <class Edit>
FakeAudioInputEngineScript script(Edit edit) {
    FakeAudioInputEngineScript script;
    edit(script);
    return script;
}

// A non-interleaved block whose channel c holds the value c + 1 in every frame.
std::shared_ptr<PcmBuffer> channelNumberedBuffer(std::uint32_t channels, std::uint32_t frames) {
    auto buffer = PcmBuffer::make(PcmFormat{48000.0, channels, false}, frames);
    const auto data = buffer->floatChannelData();
    for (std::uint32_t c = 0; c < channels; ++c) std::fill(data[c], data[c] + frames, static_cast<float>(c + 1));
    buffer->setFrameLength(frames);
    return buffer;
}

class MicrophoneCaptureTest : public ::testing::Test {
protected:
    MicrophoneCaptureTest() { attachDevices(); }
    void attachDevices() {
        fakes.captureDeviceDiscovery->setDevices({{"BuiltInMicrophoneDevice", "MacBook Pro Microphone", {}},
                                                  {"USB-Mic-1", "USB Microphone", {}}});
        fakes.audioHardware->devices = {{40, std::string("BuiltInSpeakerDevice")},
                                        {41, std::string("BuiltInMicrophoneDevice")},
                                        {42, std::string("USB-Mic-1")}};
    }

    std::shared_ptr<MicrophoneCapture> makeCapture(std::int64_t channels = 1, std::int64_t capacityFrames = 96000) {
        auto capture = MicrophoneCapture::create(channels, capacityFrames, fakes.services());
        engine = fakes.audioEngineFactory->lastEngine();
        return capture;
    }

    FakePlatformServices fakes;
    std::shared_ptr<FakeAudioInputEngine> engine;
    const MicrophoneDevice usbMicrophone{"USB-Mic-1", "USB Microphone", false};
};

TEST_F(MicrophoneCaptureTest, StartCapturesUntilTheStopWhichEmptiesTheRing) {
    auto capture = makeCapture();
    capture->stop();
    capture->start(1024);
    capture->start(1024);  // already capturing: nothing
    EXPECT_TRUE(capture->isCapturing());
    // Without a preference the engine stays on the default input.
    EXPECT_FALSE(engine->currentDevice().has_value());
    EXPECT_EQ(capture->inputFormat()->sampleRate, 48000.0);
    engine->deliver(*channelNumberedBuffer(1, 1024));
    ASSERT_EQ(capture->ringBuffer()->availableFrames(), 1024);
    capture->stop();
    EXPECT_FALSE(capture->isCapturing());
    EXPECT_EQ(capture->ringBuffer()->availableFrames(), 0);
    EXPECT_FALSE(engine->deliver(*channelNumberedBuffer(1, 1024)));

    // A tap whose rate differs from the hardware's does not stop the capture.
    fakes.audioEngineFactory = FakeAudioEngineFactory::create(
        script([](auto& s) { s.outputFormat = PcmFormat{44100.0, 1, false}; }));
    auto mismatched = makeCapture();
    mismatched->start(1024);
    EXPECT_TRUE(mismatched->isCapturing());
}

TEST_F(MicrophoneCaptureTest, ChannelsAreMappedOntoTheRing) {
    ScopedLogThinning alwaysLog(true);  // the sampled line runs too, under the sanitizers
    struct Case {
        std::uint32_t inputChannels;
        std::int64_t ringChannels;
        std::vector<float> expectedPerRingChannel;
    };
    for (const auto& c : {Case{2, 1, {1.0f}}, Case{1, 2, {1.0f, 1.0f}}, Case{3, 2, {1.0f, 2.0f}}}) {
        SCOPED_TRACE(std::to_string(c.inputChannels) + " into " + std::to_string(c.ringChannels));
        auto capture = makeCapture(c.ringChannels);
        capture->start(1024);
        engine->deliver(*channelNumberedBuffer(c.inputChannels, 480));
        const auto channels = readAllFrames(*capture->ringBuffer());
        ASSERT_EQ(channels.size(), c.expectedPerRingChannel.size());
        for (std::size_t r = 0; r < channels.size(); ++r) {
            ASSERT_EQ(channels[r].size(), 480u);
            EXPECT_THAT(channels[r], ::testing::Each(c.expectedPerRingChannel[r]));
        }
    }
}

TEST_F(MicrophoneCaptureTest, AConfiguredDeviceIsSelectedNowAndAgainAfterEachStartsReset) {
    auto capture = makeCapture();
    capture->configureInputDevice(usbMicrophone);
    EXPECT_EQ(engine->currentDevice(), 42u);
    EXPECT_EQ(capture->selectedMicrophone(), usbMicrophone);
    // The reset engine has forgotten its device: it must be told again before it starts.
    capture->start(1024);
    const auto calls = engine->calls();
    const auto reset = std::find(calls.begin(), calls.end(), "reset");
    EXPECT_NE(std::find(reset, calls.end(), "setCurrentDevice(42)"), calls.end());
}

// A microphone that cannot be selected fails the selection and keeps the earlier one.
TEST_F(MicrophoneCaptureTest, AFailedSelectionKeepsTheEarlierMicrophone) {
    const MicrophoneDevice builtIn{"BuiltInMicrophoneDevice", "MacBook Pro Microphone", true};
    const std::function<void(FakePlatformServices&, FakeAudioInputEngine&)> failures[] = {
        [](auto& f, auto&) { f.captureDeviceDiscovery->setDevices({{"BuiltInMicrophoneDevice", "", {}}}); },
        [](auto& f, auto&) { f.audioHardware->devices = {{41, std::string("BuiltInMicrophoneDevice")}}; },
        [](auto&, auto& e) { e.setScript(script([](auto& s) { s.setCurrentDeviceStatus = -10851; })); }};
    for (const auto& fail : failures) {
        fakes = FakePlatformServices{};
        attachDevices();
        auto capture = makeCapture();
        capture->configureInputDevice(builtIn);
        fail(fakes, *engine);
        EXPECT_THROW(capture->configureInputDevice(usbMicrophone), AudioEngineRecorderError);
        EXPECT_EQ(capture->selectedMicrophone(), builtIn);
        EXPECT_EQ(capture->selectedMicrophoneID(), 41u);
    }
}

// An engine that cannot start passes the platform's error on; a microphone unplugged
// before the start fails it. Neither leaves anything running.
TEST_F(MicrophoneCaptureTest, FailedStartsLeaveNothingRunning) {
    auto capture = makeCapture();
    capture->configureInputDevice(usbMicrophone);
    fakes.captureDeviceDiscovery->setDevices({});  // the microphone was unplugged
    EXPECT_THROW(capture->start(1024), AudioEngineRecorderError);
    EXPECT_FALSE(capture->isCapturing());
    EXPECT_FALSE(engine->hasTap());
    EXPECT_EQ(capture->selectedMicrophone(), usbMicrophone);

    fakes.audioEngineFactory = FakeAudioEngineFactory::create(script([](auto& s) { s.startFailure = "No input device"; }));
    capture = makeCapture();
    try {
        capture->start(1024);
        FAIL() << "start() should have failed";
    } catch (const PlatformError& error) {
        EXPECT_EQ(error.errorDescription(), "No input device");
    }
    EXPECT_FALSE(capture->isCapturing());
    EXPECT_FALSE(engine->hasTap());
}

}  // namespace
}  // namespace velto
