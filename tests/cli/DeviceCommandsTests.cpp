#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "DeviceCommands.hpp"
#include "ScriptedBackend.hpp"
#include "veltoaudio/RecordingError.hpp"

namespace velto::cli {
namespace {

using testing::ScriptedBackend;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class DeviceCommandsTest : public ::testing::Test {
protected:
    ScriptedBackend backend_;
    std::ostringstream out_;
    std::ostringstream err_;
    Console console_{out_, err_, false};
};

TEST_F(DeviceCommandsTest, DevicesAreListedInTheServiceOrderWithTheDefaultMarked) {
    backend_.devices = {{"alsa_input.usb-mic", "USB Microphone", false}, {"velto_mic", "Velto-Microphone", true}};
    EXPECT_EQ(runDevices({}, backend_, console_), 0);
    EXPECT_EQ(out_.str(),
              "  alsa_input.usb-mic  USB Microphone\n"
              "* velto_mic           Velto-Microphone  (default)\n");
    backend_.devices.clear();
    out_.str("");
    EXPECT_EQ(runDevices({true}, backend_, console_), 0);
    EXPECT_EQ(out_.str(), "[]\n");
}

TEST_F(DeviceCommandsTest, PermissionsAreShownAsTheServiceReportsThem) {
    backend_.permission = {PermissionState::granted, PermissionState::denied};
    EXPECT_EQ(runPermissions({SourceChoice::both, false}, backend_, console_), 0);
    EXPECT_EQ(out_.str(), "microphone: granted\nsystem audio: denied\n");
    EXPECT_THAT(err_.str(), HasSubstr("recording both is not permitted"));
}

TEST_F(DeviceCommandsTest, PreferredMicrophoneIsSetShownAndCleared) {
    backend_.devices = {{"usb", "USB", false}, {"velto_mic", "Velto", true}};
    EXPECT_EQ(runMicrophone({MicrophoneOptions::Action::set, "usb", false}, backend_, console_), 0);
    EXPECT_EQ(backend_.storedMicrophoneId, "usb");
    out_.str("");
    EXPECT_EQ(runMicrophone({MicrophoneOptions::Action::show, "", true}, backend_, console_), 0);
    EXPECT_EQ(out_.str(), R"({"stored":true,"current":{"id":"usb","name":"USB","isDefault":false}})"
                          "\n");
    EXPECT_EQ(runMicrophone({MicrophoneOptions::Action::clear, "", false}, backend_, console_), 0);
    EXPECT_FALSE(backend_.storedMicrophoneId);
    EXPECT_THAT(err_.str(), IsEmpty());
}

TEST_F(DeviceCommandsTest, SettingAnUnknownOrBusyMicrophoneFailsWithOneLine) {
    backend_.devices = {{"velto_mic", "Velto", true}};
    EXPECT_EQ(runMicrophone({MicrophoneOptions::Action::set, "gone", false}, backend_, console_), 1);
    EXPECT_EQ(err_.str(),
              "velto: no microphone has the identifier 'gone'. Run 'velto devices' to list the microphones.\n");
    EXPECT_FALSE(backend_.storedMicrophoneId);

    err_.str("");
    backend_.setPreferredError = std::make_exception_ptr(RecordingError::invalidState());
    EXPECT_EQ(runMicrophone({MicrophoneOptions::Action::set, "velto_mic", false}, backend_, console_), 1);
    EXPECT_EQ(err_.str(),
              "velto: Recording is already active or in invalid state. Another recording is still running; wait "
              "for it to end.\n");
    EXPECT_THAT(out_.str(), IsEmpty());
}

}  // namespace
}  // namespace velto::cli
