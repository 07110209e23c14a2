#include <gtest/gtest.h>

#include <type_traits>

#include "model/AudioSettings.hpp"
#include "veltoaudio/veltoaudio.hpp"

namespace velto {
namespace {

TEST(BufferConfiguration, RaisesEachSizeToItsMinimumAndKeepsLargeOnes) {
    BufferConfiguration raised(0, -5, 256);
    EXPECT_EQ(raised.ringBufferCapacity(), 1024);
    EXPECT_EQ(raised.jitterBufferFrames(), 512);
    EXPECT_EQ(raised.mixingBufferCapacity(), 256);
    BufferConfiguration above(1025, 513, INT64_MAX);
    EXPECT_EQ(above.ringBufferCapacity(), 1025);
    EXPECT_EQ(above.jitterBufferFrames(), 513);
    EXPECT_EQ(above.mixingBufferCapacity(), INT64_MAX);
}

TEST(PermissionStatus, PendingBlocksWithoutCountingAsDenied) {
    EXPECT_TRUE((PermissionStatus{PermissionState::notRequired, PermissionState::granted}).allGranted());
    PermissionStatus pending{PermissionState::granted, PermissionState::notDetermined};
    EXPECT_FALSE(pending.allGranted() || pending.anyDenied());
    EXPECT_TRUE((PermissionStatus{PermissionState::denied, PermissionState::granted}).anyDenied());
}

// What a user reads: the description of each error, of a wrapped one and of a captured one.
TEST(RecordingError, DescriptionsSayWhatWentWrong) {
    auto underlying = std::make_shared<PlatformError>("pulse", 7, "Connection refused");
    const std::pair<RecordingError, const char*> cases[] = {
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
        {RecordingError::fileSystemError(captureError(std::make_exception_ptr(std::runtime_error("full")))),
         "File system error: full"},
    };
    for (const auto& [error, text] : cases) EXPECT_EQ(error.errorDescription(), text);
    auto captured = captureError(std::make_exception_ptr(RecordingError::systemAudioDeviceStartFailed(-50)));
    EXPECT_EQ(captured->errorDescription(), "Failed to start system audio device (error: -50, invalid parameter).");
    EXPECT_THROW(std::rethrow_exception(std::static_pointer_cast<const CapturedError>(captured)->original()),
                 RecordingError);
    EXPECT_EQ(describeError(std::make_exception_ptr(std::runtime_error("disk on fire"))), "disk on fire");
}

TEST(PcmBuffer, LayoutFollowsTheFormat) {
    auto planar = PcmBuffer::make(*PcmFormat::standard(48000, 2), 256);
    ASSERT_TRUE(planar);
    EXPECT_EQ(planar->floatChannelData()[1] - planar->floatChannelData()[0], 256);
    planar->setFrameLength(1000);
    EXPECT_EQ(planar->frameLength(), 256u);
    EXPECT_EQ(PcmBuffer::make(*PcmFormat::make(16000, 2, true), 10)->floatChannelData().size(), 1u);
    EXPECT_FALSE(PcmBuffer::make(PcmFormat{0, 1, false}, 10));
    EXPECT_FALSE(PcmFormat::make(std::numeric_limits<double>::infinity(), 1, true));
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
