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
    discovery->setDevices({});
    EXPECT_TRUE(manager->availableMicrophones().empty());
}

}  // namespace
}  // namespace velto
