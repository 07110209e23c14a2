#include "capture/MicrophoneCapture.hpp"

#include "logging/LogThinning.hpp"
#include "model/AudioEngineRecorderError.hpp"
#include "platform/fake/FakePlatformServices.hpp"
#include "capture/RingReadBack.hpp"
#include "support/CapturedLogs.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

namespace velto {
namespace {

using namespace platform;
using testing::CapturedLogs;
using testing::readAllFrames;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr const char* kCategory = "MicrophoneCapture";

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
    MicrophoneCaptureTest() {
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
    CapturedLogs logs;
    const MicrophoneDevice usbMicrophone{"USB-Mic-1", "USB Microphone", false};
};

TEST_F(MicrophoneCaptureTest, StartSetsUpAFreshEngineAndReportsTheFormatsAndAnyRateMismatch) {
    auto capture = makeCapture();
    EXPECT_TRUE(logs.contains(LogLevel::debug, kCategory, "Created MicrophoneCapture with 1 channels, 96000 frame capacity"));
    capture->start(1024);

    EXPECT_TRUE(capture->isCapturing());
    EXPECT_THAT(engine->calls(), ElementsAre("reset", "removeTap(0)", "installTap(0,1024)", "start"));
    // Without a preference the engine stays on the default input.
    EXPECT_FALSE(engine->currentDevice().has_value());
    EXPECT_TRUE(fakes.audioHardware->calls().empty());
    ASSERT_TRUE(capture->inputFormat().has_value());
    EXPECT_EQ(capture->inputFormat()->sampleRate, 48000.0);

    const std::string format = PcmFormat{48000.0, 1, false}.description();
    EXPECT_THAT(logs.messages(kCategory),
                ::testing::IsSupersetOf(std::vector<std::string>{
                    "Starting microphone capture with system default input device",
                    "Creating fresh PulseAudio input engine for isolated microphone capture", "Hardware input format: " + format,
                    "Installed audio tap with buffer size: 1024", "Hardware format: " + format, "Tap format: " + format,
                    "✅ Sample rates match: 48000.0Hz", "Microphone capture started with format: " + format}));

    // A tap whose rate differs from the hardware's is reported, and capture goes on.
    fakes.audioEngineFactory = FakeAudioEngineFactory::create(
        script([](auto& s) { s.outputFormat = PcmFormat{44100.0, 1, false}; }));
    auto mismatched = makeCapture();
    mismatched->start(1024);
    EXPECT_TRUE(mismatched->isCapturing());
    EXPECT_TRUE(logs.contains(LogLevel::error, kCategory, "Sample rate mismatch detected! Hardware: 48000.0Hz, Tap: 44100.0Hz"));
}

TEST_F(MicrophoneCaptureTest, RepeatedCallsDoNothingAndStopRemovesTheTapBeforeStoppingTheEngine) {
    auto capture = makeCapture();
    capture->stop();
    EXPECT_THAT(engine->calls(), IsEmpty());
    capture->start(1024);
    capture->start(1024);
    EXPECT_TRUE(logs.contains(LogLevel::error, kCategory, "Microphone capture already active"));
    auto calls = engine->calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "start"), 1);
    engine->deliver(*channelNumberedBuffer(1, 1024));
    ASSERT_EQ(capture->ringBuffer()->availableFrames(), 1024);

    capture->stop();
    calls = engine->calls();
    EXPECT_THAT(std::vector<std::string>(calls.end() - 2, calls.end()), ElementsAre("removeTap(0)", "stop"));
    EXPECT_FALSE(capture->isCapturing());
    EXPECT_EQ(capture->ringBuffer()->availableFrames(), 0);
    EXPECT_FALSE(engine->deliver(*channelNumberedBuffer(1, 1024)));
    EXPECT_THAT(logs.messages(kCategory), ::testing::IsSupersetOf(std::vector<std::string>{
                                                 "Stopping microphone capture", "Cleanup completed",
                                                 "Microphone capture stopped"}));
}

TEST_F(MicrophoneCaptureTest, FailedEngineStartCleansUpAndPassesThePlatformErrorOn) {
    fakes.audioEngineFactory = FakeAudioEngineFactory::create(script([](auto& s) { s.startFailure = "No input device"; }));
    auto capture = makeCapture();
    try {
        capture->start(1024);
        FAIL() << "start() should have failed";
    } catch (const PlatformError& error) {
        EXPECT_EQ(error.errorDescription(), "No input device");
    }
    EXPECT_FALSE(capture->isCapturing());
    EXPECT_FALSE(engine->hasTap());
    EXPECT_EQ(engine->calls().back(), "removeTap(0)");
    EXPECT_TRUE(logs.contains(LogLevel::debug, kCategory, "Cleanup completed"));
}

TEST_F(MicrophoneCaptureTest, ChannelsAreMappedOntoTheRingAndTheSampledLineSaysHow) {
    ScopedLogThinning alwaysLog(true);
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
    EXPECT_TRUE(logs.contains(LogLevel::debug, kCategory,
                              "Channel mapping: input 1 channels, ring buffer expects 2 channels, created 2 source pointers"));
}

TEST_F(MicrophoneCaptureTest, EmptyBlockIsIgnoredAndAnOverrunKeepsWhatFitsAndIsReported) {
    ScopedLogThinning alwaysLog(true);
    auto capture = makeCapture(1, 1324);
    capture->start(1024);
    logs.clear();
    auto empty = channelNumberedBuffer(1, 1024);
    empty->setFrameLength(0);
    engine->deliver(*empty);
    EXPECT_EQ(capture->ringBuffer()->availableFrames(), 0);
    EXPECT_THAT(logs.messages(kCategory), IsEmpty());
    engine->deliver(*channelNumberedBuffer(1, 1024));
    engine->deliver(*channelNumberedBuffer(1, 1024));
    engine->deliver(*channelNumberedBuffer(1, 1024));
    EXPECT_EQ(capture->ringBuffer()->availableFrames(), 1324);
    EXPECT_TRUE(logs.containsPrefix(kCategory, "Ring buffer overrun: wrote 300/1024 frames"));
}

TEST_F(MicrophoneCaptureTest, CountingSignalFromTheDeliveryThreadArrivesWithoutGaps) {
    // The ring holds the whole run, so the delivery thread never has to wait for the reader.
    constexpr int kBlocks = 300;
    auto capture = makeCapture(1, kBlocks * 256);
    capture->start(256);
    std::vector<std::shared_ptr<PcmBuffer>> blocks;
    for (int b = 0; b < kBlocks; ++b) {
        auto block = PcmBuffer::make(PcmFormat{48000.0, 1, false}, 256);
        for (int f = 0; f < 256; ++f) block->floatChannelData()[0][f] = static_cast<float>(b * 256 + f);
        block->setFrameLength(256);
        blocks.push_back(block);
    }
    engine->deliverOnDeliveryThread(std::move(blocks));
    testing::expectCountingSignal(*capture->ringBuffer(), kBlocks * 256);
    engine->joinDelivery();
    capture->stop();
}

// ---- input-device selection ----

TEST_F(MicrophoneCaptureTest, AConfiguredDeviceIsSelectedNowAndAgainAfterEachStartsReset) {
    auto capture = makeCapture();
    capture->configureInputDevice(usbMicrophone);
    EXPECT_EQ(engine->currentDevice(), 42u);
    EXPECT_EQ(capture->selectedMicrophone(), usbMicrophone);
    EXPECT_EQ(capture->selectedMicrophoneID(), 42u);
    EXPECT_THAT(logs.messages(kCategory),
                ::testing::IsSupersetOf(std::vector<std::string>{
                    "🎙️ Configuring PulseAudio input device: 'USB Microphone' (ID: USB-Mic-1)",
                    "🎙️ Successfully configured PulseAudio input device: 'USB Microphone'"}));
    EXPECT_THAT(fakes.captureDeviceDiscovery->discoveries().front(),
                ElementsAre(CaptureDeviceType::microphone, CaptureDeviceType::external));

    capture->start(1024);
    EXPECT_THAT(engine->calls(), ElementsAre("setCurrentDevice(42)", "reset", "setCurrentDevice(42)", "removeTap(0)",
                                             "installTap(0,1024)", "start"));
}

struct SelectionFailure {
    const char* name;
    std::function<void(FakePlatformServices&, FakeAudioInputEngine&)> arrange;
    std::vector<std::string> criticalLines;
};

class MicrophoneSelectionFailureTest : public MicrophoneCaptureTest,
                                       public ::testing::WithParamInterface<SelectionFailure> {};

TEST_P(MicrophoneSelectionFailureTest, FailsWithUnknownErrorAndKeepsTheEarlierSelection) {
    auto capture = makeCapture();
    const MicrophoneDevice builtIn{"BuiltInMicrophoneDevice", "MacBook Pro Microphone", true};
    capture->configureInputDevice(builtIn);
    GetParam().arrange(fakes, *engine);
    logs.clear();
    try {
        capture->configureInputDevice(usbMicrophone);
        FAIL() << "configureInputDevice() should have failed";
    } catch (const AudioEngineRecorderError& error) {
        EXPECT_EQ(error, AudioEngineRecorderError::unknownError());
    }
    EXPECT_EQ(capture->selectedMicrophone(), builtIn);
    EXPECT_EQ(capture->selectedMicrophoneID(), 41u);
    for (const auto& line : GetParam().criticalLines) {
        EXPECT_TRUE(logs.contains(LogLevel::critical, kCategory, line)) << line;
    }
}

INSTANTIATE_TEST_SUITE_P(
    EachStep, MicrophoneSelectionFailureTest,
    ::testing::Values(
        SelectionFailure{"NotDiscovered",
                         [](auto& f, auto&) { f.captureDeviceDiscovery->setDevices({{"BuiltInMicrophoneDevice", "", {}}}); },
                         {"Could not find AVCaptureDevice for microphone ID: USB-Mic-1"}},
        SelectionFailure{"DeviceListSize",
                         [](auto& f, auto&) {
                             f.audioHardware->setStatus(FakeAudioHardware::sizeKey(kAudioHardwarePropertyDevices),
                                                        kAudioHardwareNotRunningError);
                         },
                         {"Failed to get audio devices data size: OSStatus = 1937010544 'stop', sound server not running",
                          "Could not get AudioDeviceID for device: USB Microphone"}},
        SelectionFailure{
            "DeviceListData",
            [](auto& f, auto&) { f.audioHardware->setStatus(FakeAudioHardware::dataKey(kAudioHardwarePropertyDevices), -1); },
            {"Failed to get audio devices: OSStatus = -1", "Could not get AudioDeviceID for device: USB Microphone"}},
        SelectionFailure{"NoMatchingUID",
                         [](auto& f, auto&) { f.audioHardware->devices = {{41, std::string("BuiltInMicrophoneDevice")}}; },
                         {"Could not get AudioDeviceID for device: USB Microphone"}},
        SelectionFailure{"NoAudioUnit",
                         [](auto&, auto& e) { e.setScript(script([](auto& s) { s.hasAudioUnit = false; })); },
                         {"Could not get AudioUnit from input node"}},
        SelectionFailure{"SetDeviceRefused",
                         [](auto&, auto& e) { e.setScript(script([](auto& s) { s.setCurrentDeviceStatus = -10851; })); },
                         {"Failed to set input device on AudioUnit: OSStatus = -10851"}}),
    [](const ::testing::TestParamInfo<SelectionFailure>& info) { return std::string(info.param.name); });

TEST_F(MicrophoneCaptureTest, DeviceLookupSkipsUnreadableDevicesAndTakesTheFirstMatch) {
    fakes.audioHardware->devices = {{50, std::string("USB-Mic-1"), -1}, {51, std::nullopt},
                                    {52, std::string("USB-Mic-1"), noErr, -2}, {53, std::string("USB-Mic-1")},
                                    {54, std::string("USB-Mic-1")}};
    auto capture = makeCapture();
    capture->configureInputDevice(usbMicrophone);
    EXPECT_EQ(capture->selectedMicrophoneID(), 53u);
}

TEST_F(MicrophoneCaptureTest, FailedReselectionAtStartEndsTheStartCleanly) {
    auto capture = makeCapture();
    capture->configureInputDevice(usbMicrophone);
    fakes.captureDeviceDiscovery->setDevices({});  // the microphone was unplugged
    EXPECT_THROW(capture->start(1024), AudioEngineRecorderError);
    EXPECT_FALSE(capture->isCapturing());
    EXPECT_FALSE(engine->hasTap());
    EXPECT_EQ(capture->selectedMicrophone(), usbMicrophone);
}

}  // namespace
}  // namespace velto
