#include "platform/MacOSSessionManager.hpp"

#include "platform/fake/FakeCaptureDeviceDiscovery.hpp"
#include "support/CapturedLogs.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace velto {
namespace {

using namespace platform;
using testing::CapturedLogs;
using ::testing::ElementsAre;

constexpr const char* kCategory = "MacOSSessionManager";

CaptureDevice device(std::string id, std::string name, std::vector<std::optional<double>> rates = {}) {
    CaptureDevice d{std::move(id), std::move(name), {}};
    for (auto rate : rates) d.formats.push_back(CaptureDeviceFormat{rate});
    return d;
}

class MacOSSessionManagerTest : public ::testing::Test {
protected:
    std::shared_ptr<FakeCaptureDeviceDiscovery> discovery = FakeCaptureDeviceDiscovery::create();
    std::shared_ptr<MacOSSessionManager> manager = MacOSSessionManager::create(discovery);
    CapturedLogs logs;
};

TEST_F(MacOSSessionManagerTest, ListsDevicesInDiscoveryOrderMarkingTheDefaultIfThereIsOne) {
    discovery->setDevices({device("A", "Built-in"), device("B", "USB")});
    EXPECT_THAT(manager->availableMicrophones(),
                ElementsAre(MicrophoneDevice{"A", "Built-in", false}, MicrophoneDevice{"B", "USB", false}));
    discovery->setDefaultDevice(device("B", "USB"));
    EXPECT_THAT(manager->availableMicrophones(),
                ElementsAre(MicrophoneDevice{"A", "Built-in", false}, MicrophoneDevice{"B", "USB", true}));
    EXPECT_EQ(discovery->defaultDeviceQueries(), 2);  // once per listing, not once per device
    EXPECT_THAT(discovery->discoveries().front(), ElementsAre(CaptureDeviceType::microphone, CaptureDeviceType::external));

    // Without devices the default is not even asked for.
    discovery->setDevices({});
    EXPECT_TRUE(manager->availableMicrophones().empty());
    EXPECT_EQ(discovery->defaultDeviceQueries(), 2);
}

TEST_F(MacOSSessionManagerTest, ConfigureSessionRemembersOrClearsThePreference) {
    const MicrophoneDevice usb{"B", "USB", false};
    manager->configureSession(usb);
    EXPECT_EQ(manager->preferredMicrophone(), usb);
    EXPECT_TRUE(logs.contains(LogLevel::info, kCategory, "🎙️ PulseAudio: Configured to use device 'USB' (ID: B)"));

    manager->configureSession(std::nullopt);
    EXPECT_FALSE(manager->preferredMicrophone().has_value());
    EXPECT_TRUE(logs.contains(LogLevel::info, kCategory, "🎙️ PulseAudio: Configured to use system default device"));
}

TEST_F(MacOSSessionManagerTest, DeviceReportListsDevicesWithTheirWholeHertzRates) {
    discovery->setDevices({device("A", "Built-in", {48000.0, 44100.0, 48000.0}),
                           device("B", "USB", {44100.9, std::nullopt}), device("C", "Virtual"),
                           // Rates that are not finite or too large for whole hertz are left out.
                           device("D", "Odd", {std::numeric_limits<double>::quiet_NaN(),
                                               std::numeric_limits<double>::infinity(), 1e300, -16000.5})});
    discovery->setDefaultDevice(device("B", "USB"));
    manager->logDeviceInformation();
    EXPECT_THAT(logs.messages(kCategory), ElementsAre("🎙️ Microphone Device Information (PulseAudio):",
                                                      "Default Input Device: 'USB' (ID: B)",
                                                      "Available Input Devices (4 total):",
                                                      "  1. 'Built-in' (ID: A)",
                                                      "    Supported Sample Rates: 44100Hz, 48000Hz",
                                                      "  2. 'USB' (ID: B) [DEFAULT]",
                                                      "    Supported Sample Rates: 44100Hz",
                                                      "  3. 'Virtual' (ID: C)",
                                                      "  4. 'Odd' (ID: D)",
                                                      "    Supported Sample Rates: -16000Hz"));
}

TEST_F(MacOSSessionManagerTest, DeviceReportStopsWhenThereAreNoDevicesOrNoDefault) {
    manager->logDeviceInformation();
    EXPECT_THAT(logs.messages(kCategory),
                ElementsAre("🎙️ Microphone Device Information (PulseAudio):", "No audio input devices found"));
    EXPECT_TRUE(logs.contains(LogLevel::error, kCategory, "No audio input devices found"));

    logs.clear();
    discovery->setDevices({device("A", "Built-in")});
    manager->logDeviceInformation();
    EXPECT_THAT(logs.messages(kCategory),
                ElementsAre("🎙️ Microphone Device Information (PulseAudio):", "No default audio input device found"));
}

}  // namespace
}  // namespace velto
