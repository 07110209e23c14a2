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
    CapturedLogs logs;
    ServiceHarness harness;
};

TEST_F(PermissionsAndMicrophonesTest, withoutDevicesNothingIsCurrentAndOnlyClearingSucceeds) {
    harness.sessionManager->setDevices({});
    EXPECT_TRUE(service().getAvailableMicrophones().empty());
    EXPECT_FALSE(service().getCurrentMicrophone().has_value());
    try {
        service().setPreferredMicrophone(kDeviceA);
        FAIL() << "accepted a device that is not attached";
    } catch (const RecordingError& error) {
        EXPECT_EQ(error.code(), RecordingError::Code::deviceNotFound);
    }
    EXPECT_FALSE(harness.storage->getSelectedMicrophoneId().has_value());
    harness.storage->setSelectedMicrophoneId("X");
    service().setPreferredMicrophone(std::nullopt);
    EXPECT_FALSE(service().hasStoredMicrophonePreference());
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

TEST_F(PermissionsAndMicrophonesTest, preferenceStoresOnlyTheIdOfAnAttachedDevice) {
    harness.sessionManager->setDevices({kDeviceA, kDeviceB});
    MicrophoneDevice renamed{"B", "Another name", false};
    service().setPreferredMicrophone(renamed);
    EXPECT_EQ(harness.storage->getSelectedMicrophoneId(), "B");
    EXPECT_TRUE(harness.sessionManager->configuredMicrophones().empty());
    harness.storage->setSelectedMicrophoneId(std::string());
    EXPECT_TRUE(service().hasStoredMicrophonePreference());
}

TEST_F(PermissionsAndMicrophonesTest, preferenceCannotChangeDuringARecordingButCanBeCleared) {
    harness.sessionManager->setDevices({kDeviceA, kDeviceB});
    harness.storage->setSelectedMicrophoneId("B");
    auto stream = service().startRecording(makeConfiguration(AudioSources::microphoneOnly()));
    auto recorder = harness.recorder();
    recorder->emit(RecordingEvent::progress(0.1, AudioLevels::silence()));
    ASSERT_TRUE(eventually([&] { return service().isRecording(); }));
    service().pauseRecording();
    ASSERT_TRUE(service().isPaused());
    try {
        service().setPreferredMicrophone(kDeviceA);
        FAIL() << "changed the preference while paused";
    } catch (const RecordingError& error) {
        EXPECT_EQ(error.code(), RecordingError::Code::invalidState);
    }
    EXPECT_EQ(harness.storage->getSelectedMicrophoneId(), "B");
    service().clearPreferredMicrophone();
    EXPECT_FALSE(harness.storage->getSelectedMicrophoneId().has_value());
}

TEST_F(PermissionsAndMicrophonesTest, permissionStatusFollowsTheSourcesAndTheSystem) {
    harness.microphoneStatus = platform::AuthorizationStatus::restricted;
    harness.tcc->status = PermissionState::granted;
    EXPECT_EQ(service().getPermissionStatus(makeConfiguration(AudioSources::microphoneOnly())),
              (PermissionStatus{PermissionState::denied, PermissionState::notRequired}));
    EXPECT_EQ(harness.tcc->statusQueries.load(), 0);
    EXPECT_EQ(service().getPermissionStatus(makeConfiguration(AudioSources::systemAudioOnly())),
              (PermissionStatus{PermissionState::notRequired, PermissionState::granted}));
    harness.microphoneStatus = platform::AuthorizationStatus::notDetermined;
    harness.tcc->status = PermissionState::denied;
    EXPECT_EQ(service().getPermissionStatus(makeConfiguration(AudioSources::both())),
              (PermissionStatus{PermissionState::notDetermined, PermissionState::denied}));
    harness.microphoneStatus = platform::AuthorizationStatus::authorized;
    EXPECT_EQ(service().getPermissionStatus(makeConfiguration(AudioSources::microphoneOnly())).microphone,
              PermissionState::granted);

    harness.setVersion(14, 3);
    const int queries = harness.tcc->statusQueries.load();
    EXPECT_EQ(service().getPermissionStatus(makeConfiguration(AudioSources::systemAudioOnly())),
              (PermissionStatus{PermissionState::notRequired, PermissionState::denied}));
    EXPECT_EQ(harness.tcc->statusQueries.load(), queries);
}

TEST_F(PermissionsAndMicrophonesTest, systemAudioRequestGoesThroughTheManagerOnlyOnNewerSystems) {
    harness.setVersion(14, 3);
    EXPECT_FALSE(service().requestSystemAudioPermission());
    EXPECT_EQ(harness.tcc->requests.load(), 0);
    EXPECT_TRUE(logs.records().empty());

    harness.setVersion(14, 4);
    harness.tcc->requestAnswer = false;
    EXPECT_FALSE(service().requestSystemAudioPermission());
    EXPECT_TRUE(logs.contains(LogLevel::info, "RecordingService", "Requesting system audio permission"));
    harness.tcc->requestAnswer = true;
    EXPECT_TRUE(service().requestSystemAudioPermission());
    EXPECT_EQ(harness.tcc->requests.load(), 2);
}

}  // namespace
}  // namespace velto::testing
