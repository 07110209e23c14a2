#include <gtest/gtest.h>

#include <type_traits>
#include <unordered_set>

#include "logging/NumberFormat.hpp"
#include "model/AudioSettings.hpp"
#include "veltoaudio/veltoaudio.hpp"

namespace velto {
namespace {

TEST(BufferConfiguration, RaisesEachSizeToItsMinimumAndKeepsLargeOnes) {
    BufferConfiguration raised(0, -5, 256);
    EXPECT_EQ(raised.ringBufferCapacity(), 1024);
    EXPECT_EQ(raised.jitterBufferFrames(), 512);
    EXPECT_EQ(raised.mixingBufferCapacity(), 256);

    BufferConfiguration above(1025, 513, 257);
    EXPECT_EQ(above.ringBufferCapacity(), 1025);
    EXPECT_EQ(above.jitterBufferFrames(), 513);
    EXPECT_EQ(above.mixingBufferCapacity(), 257);
    EXPECT_EQ(BufferConfiguration(INT64_MAX, INT64_MAX, INT64_MAX).ringBufferCapacity(), INT64_MAX);
}

TEST(ValueTypes, PermissionsEqualityAndHashingUseEveryField) {
    EXPECT_TRUE((PermissionStatus{PermissionState::notRequired, PermissionState::granted}).allGranted());
    PermissionStatus pending{PermissionState::granted, PermissionState::notDetermined};
    EXPECT_FALSE(pending.allGranted() || pending.anyDenied());  // blocks without counting as denied
    EXPECT_TRUE((PermissionStatus{PermissionState::denied, PermissionState::granted}).anyDenied());

    MicrophoneDevice a{"X", "Built-in", false};
    MicrophoneDevice b{"X", "USB", false};
    EXPECT_NE(a, b);
    EXPECT_EQ(a, (MicrophoneDevice{"X", "Built-in", false}));
    EXPECT_EQ((std::unordered_set<MicrophoneDevice>{a, b, a}).size(), 2u);
    float nan = std::numeric_limits<float>::quiet_NaN();
    AudioLevels notANumber{nan, 0};
    EXPECT_FALSE(notANumber == notANumber);
}

TEST(RecordingError, DescriptionsAreFixedTexts) {
    auto underlying = std::make_shared<PlatformError>("pulse", 7, "Connection refused");
    const std::pair<RecordingError, const char*> cases[] = {
        {RecordingError::recorderInitializationFailed(), "Failed to initialize audio recorder"},
        {RecordingError::permissionDenied(), "Microphone permission is required to record audio."},
        // Status codes: the decimal number, then in words what the code means where known.
        {RecordingError::systemAudioDeviceStartFailed(-50),
         "Failed to start system audio device (error: -50, invalid parameter)."},
        {RecordingError::systemAudioTapCreationFailed(0x73746F70),
         "Failed to create system audio tap (error: 1937010544 'stop', sound server not running)."},
        {RecordingError::systemAudioDeviceCreationFailed(0x61626364), "Failed to create system audio device (error: 1633837924 'abcd')."},
        {RecordingError::systemAudioDeviceCreationFailed(7), "Failed to create system audio device (error: 7)."},
        {RecordingError::soundServerUnreachable("unix:/run/user/1000/pulse/native"),
         "No sound server could be reached at unix:/run/user/1000/pulse/native. Start PulseAudio or PipeWire, or set "
         "PULSE_SERVER to the address of a running server."},
        {RecordingError::sessionConfigurationFailed(underlying), "Failed to configure audio session: Connection refused"},
        {RecordingError::recordingFailed(nullptr), "Recording failed: Unknown error"},
    };
    for (const auto& [error, text] : cases) EXPECT_EQ(error.errorDescription(), text);
    EXPECT_EQ(RecordingError::systemAudioDeviceStartFailed(-50).caseDescription(), "systemAudioDeviceStartFailed(-50)");
    EXPECT_EQ(RecordingError::systemAudioPermissionDenied().caseDescription(), "systemAudioPermissionDenied");
}

TEST(RecordingError, WrappedErrorsCompareByDescriptionAndStatusesByValue) {
    auto a = std::make_shared<PlatformError>("pulse", 1, "Broken pipe");
    auto b = std::make_shared<PlatformError>("errno", 32, "Broken pipe");
    auto c = std::make_shared<PlatformError>("errno", 32, "No space left on device");
    EXPECT_EQ(RecordingError::recordingFailed(a), RecordingError::recordingFailed(b));
    EXPECT_NE(RecordingError::recordingFailed(a), RecordingError::recordingFailed(c));
    EXPECT_NE(RecordingError::recordingFailed(a), RecordingError::unknown(a));
    EXPECT_NE(RecordingError::systemAudioTapCreationFailed(1), RecordingError::systemAudioDeviceCreationFailed(1));
    EXPECT_EQ(RecordingError::systemAudioDeviceStartFailed(-10), RecordingError::systemAudioDeviceStartFailed(-10));
    EXPECT_NE(RecordingError::systemAudioDeviceStartFailed(-10), RecordingError::systemAudioDeviceStartFailed(-11));
    EXPECT_EQ(RecordingError::invalidState(), RecordingError::invalidState());
    EXPECT_EQ(RecordingError::soundServerUnreachable("tcp:a"), RecordingError::soundServerUnreachable("tcp:a"));
    EXPECT_NE(RecordingError::soundServerUnreachable("tcp:a"), RecordingError::soundServerUnreachable("tcp:b"));
}

TEST(Errors, CapturedErrorsKeepTheOriginalsTextAndObject) {
    auto captured = captureError(std::make_exception_ptr(RecordingError::systemAudioDeviceStartFailed(-50)));
    EXPECT_EQ(captured->errorDescription(), "Failed to start system audio device (error: -50, invalid parameter).");
    EXPECT_EQ(captured->caseDescription(), "systemAudioDeviceStartFailed(-50)");
    EXPECT_THROW(std::rethrow_exception(std::static_pointer_cast<const CapturedError>(captured)->original()),
                 RecordingError);
    EXPECT_EQ(describeError(std::make_exception_ptr(std::runtime_error("disk on fire"))), "disk on fire");
    EXPECT_EQ(RecordingError::fileSystemError(captureError(std::make_exception_ptr(std::runtime_error("full"))))
                  .errorDescription(),
              "File system error: full");
}

TEST(NumberFormat, ShortestRoundTripAlwaysWithAFraction) {
    for (const auto& [value, text] : std::initializer_list<std::pair<double, const char*>>{
             {48000.0, "48000.0"}, {0.1, "0.1"}, {1.0 / 60.0, "0.016666666666666666"}, {-0.5, "-0.5"}}) {
        EXPECT_EQ(formatDouble(value), text);
    }
    EXPECT_EQ(formatFloat(0.3f), "0.3");
    EXPECT_EQ(formatFloat(0.98f), "0.98");
    EXPECT_EQ(formatFloat(0.0f), "0.0");
    for (double v : {1e-7, 123456.789, 1.0 / 3.0, 6.02214076e23}) EXPECT_EQ(std::stod(formatDouble(v)), v);
}

TEST(PcmBuffer, LayoutFollowsTheFormat) {
    auto planar = PcmBuffer::make(*PcmFormat::standard(48000, 2), 256);
    ASSERT_TRUE(planar);
    EXPECT_EQ(planar->floatChannelData().size(), 2u);
    EXPECT_EQ(planar->floatChannelData()[1] - planar->floatChannelData()[0], 256);
    planar->setFrameLength(1000);
    EXPECT_EQ(planar->frameLength(), 256u);

    EXPECT_EQ(PcmBuffer::make(*PcmFormat::make(16000, 2, true), 10)->floatChannelData().size(), 1u);
    EXPECT_FALSE(PcmBuffer::make(PcmFormat{0, 1, false}, 10));
    EXPECT_FALSE(PcmFormat::make(std::numeric_limits<double>::infinity(), 1, true));
    EXPECT_EQ(PcmFormat::standard(48000, 2)->description(), "<PcmFormat: 2 ch, 48000.0 Hz, Float32, non-interleaved>");
}

// A copy used to keep the original's channel pointers: writing through it after the
// original was released was a heap-use-after-free. Copies are gone; a moved buffer's
// pointers must lead into storage it owns itself.
TEST(PcmBuffer, ChannelPointersFollowTheStorageAcrossMoves) {
    static_assert(!std::is_copy_constructible_v<PcmBuffer> && !std::is_copy_assignable_v<PcmBuffer>);
    auto original = PcmBuffer::make(*PcmFormat::standard(48000, 2), 64);
    original->floatChannelData()[1][63] = 0.5f;
    original->setFrameLength(64);
    PcmBuffer moved = std::move(*original);
    EXPECT_TRUE(original->floatChannelData().empty());
    EXPECT_EQ(original->frameCapacity(), 0u);
    original.reset();
    moved.floatChannelData()[0][0] = 1.0f;
    EXPECT_EQ(moved.floatChannelData()[1][63], 0.5f);
    EXPECT_EQ(moved.frameLength(), 64u);

    PcmBuffer assigned(*PcmFormat::make(16000, 1, true), 8);
    {
        PcmBuffer source(*PcmFormat::standard(16000, 2), 16);
        source.floatChannelData()[1][15] = 0.25f;
        assigned = std::move(source);
    }
    assigned.floatChannelData()[1][15] += 0.5f;
    EXPECT_EQ(assigned.floatChannelData()[1][15], 0.75f);
    EXPECT_EQ(assigned.format(), *PcmFormat::standard(16000, 2));
}

}  // namespace
}  // namespace velto
