#include "platform/MacOSSessionManager.hpp"

#include "platform/fake/FakeCaptureDeviceDiscovery.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace velto {
namespace {

using namespace platform;
using ::testing::ElementsAre;

CaptureDevice device(std::string id, std::string name) { return CaptureDevice{std::move(id), std::move(name), {}}; }

class MacOSSessionManagerTest : public ::testing::Test {
protected:
    std::shared_ptr<FakeCaptureDeviceDiscovery> discovery = FakeCaptureDeviceDiscovery::create();
    std::shared_ptr<MacOSSessionManager> manager = MacOSSessionManager::create(discovery);
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

    manager->configureSession(std::nullopt);
    EXPECT_FALSE(manager->preferredMicrophone().has_value());
}

}  // namespace
}  // namespace velto
