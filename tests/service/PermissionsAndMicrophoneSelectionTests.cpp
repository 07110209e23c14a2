// Permission queries and requests, device listing, and the preferred microphone.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "service/ServiceHarness.hpp"
#include "support/CapturedLogs.hpp"
#include "veltoaudio/RecordingError.hpp"

namespace velto::testing {
namespace {

using ::testing::ElementsAre;

const MicrophoneDevice kDeviceA{"X", "Microphone A", false};
const MicrophoneDevice kDeviceB{"B", "Microphone B", true};
const MicrophoneDevice kDeviceC{"C", "Microphone C", true};

class PermissionsAndMicrophonesTest : public ::testing::Test {
protected:
    RecordingService& service() { return harness.service(); }
    std::optional<RecordingError::Code> preferenceRefusal(const MicrophoneDevice& device) {
        return thrownCode([&] { service().setPreferredMicrophone(device); });
    }
    PermissionStatus statusFor(AudioSources sources) { return service().getPermissionStatus(makeConfiguration(sources)); }
    CapturedLogs logs;
    ServiceHarness harness;
};

TEST_F(PermissionsAndMicrophonesTest, preferenceStoresOnlyTheIdOfAnAttachedDeviceAndClearingAlwaysSucceeds) {
    harness.sessionManager->setDevices({});
    EXPECT_FALSE(service().getCurrentMicrophone().has_value());
    EXPECT_EQ(preferenceRefusal(kDeviceA), RecordingError::Code::deviceNotFound);
    EXPECT_FALSE(harness.storage->getSelectedMicrophoneId().has_value());
    harness.storage->setSelectedMicrophoneId("X");
    service().setPreferredMicrophone(std::nullopt);
    EXPECT_FALSE(service().hasStoredMicrophonePreference());

    harness.sessionManager->setDevices({kDeviceA, kDeviceB});
    EXPECT_EQ(preferenceRefusal(MicrophoneDevice{"B", "Another name", false}), std::nullopt);
    EXPECT_EQ(harness.storage->getSelectedMicrophoneId(), "B");
    EXPECT_TRUE(harness.sessionManager->configuredMicrophones().empty());  // applied at the next start
    harness.storage->setSelectedMicrophoneId(std::string());
    EXPECT_TRUE(service().hasStoredMicrophonePreference());
}

TEST_F(PermissionsAndMicrophonesTest, storedDeviceWinsWhileAttachedThenTheFirstDefault) {
    harness.sessionManager->setDevices({kDeviceA, kDeviceB, kDeviceC});
    harness.storage->setSelectedMicrophoneId("X");
    EXPECT_EQ(service().getCurrentMicrophone(), kDeviceA);
    EXPECT_THAT(service().getAvailableMicrophones(), ElementsAre(kDeviceA, kDeviceB, kDeviceC));

    harness.sessionManager->setDevices({kDeviceB, kDeviceC});  // A unplugged; two defaults
    EXPECT_EQ(service().getCurrentMicrophone(), kDeviceB);
    EXPECT_TRUE(service().hasStoredMicrophonePreference());
    EXPECT_EQ(harness.storage->getSelectedMicrophoneId(), "X");
}

TEST_F(PermissionsAndMicrophonesTest, preferenceCannotChangeDuringARecordingButCanBeCleared) {
    harness.sessionManager->setDevices({kDeviceA, kDeviceB});
    harness.storage->setSelectedMicrophoneId("B");
    auto stream = service().startRecording(makeConfiguration(AudioSources::microphoneOnly()));
    harness.recorder()->emit(RecordingEvent::progress(0.1, AudioLevels::silence()));
    ASSERT_TRUE(eventually([&] { return service().isRecording(); }));
    service().pauseRecording();
    ASSERT_TRUE(service().isPaused());
    EXPECT_EQ(preferenceRefusal(kDeviceA), RecordingError::Code::invalidState);
    EXPECT_EQ(harness.storage->getSelectedMicrophoneId(), "B");
    service().clearPreferredMicrophone();
    EXPECT_FALSE(harness.storage->getSelectedMicrophoneId().has_value());
}

TEST_F(PermissionsAndMicrophonesTest, permissionStatusFollowsTheSourcesAndTheSystem) {
    using State = PermissionState;
    using platform::AuthorizationStatus;
    harness.microphoneStatus = AuthorizationStatus::restricted;
    EXPECT_EQ(statusFor(AudioSources::microphoneOnly()), (PermissionStatus{State::denied, State::notRequired}));
    EXPECT_EQ(harness.tcc->statusQueries.load(), 0);
    EXPECT_EQ(statusFor(AudioSources::systemAudioOnly()), (PermissionStatus{State::notRequired, State::granted}));
    harness.microphoneStatus = AuthorizationStatus::notDetermined;
    harness.tcc->status = State::denied;
    EXPECT_EQ(statusFor(AudioSources::both()), (PermissionStatus{State::notDetermined, State::denied}));
    harness.microphoneStatus = AuthorizationStatus::authorized;
    EXPECT_EQ(statusFor(AudioSources::microphoneOnly()).microphone, State::granted);
}

}  // namespace
}  // namespace velto::testing
