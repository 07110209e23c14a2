#pragma once
// Every platform service as a fake, with typed access for scripting and inspection.

#include "platform/PlatformServices.hpp"
#include "platform/fake/FakeAudioHardware.hpp"
#include "platform/fake/FakeAudioInputEngine.hpp"
#include "platform/fake/FakeCaptureDeviceDiscovery.hpp"
#include "platform/fake/FakeConfigurationChangeCenter.hpp"

namespace velto::platform {

struct FakePlatformServices {
    std::shared_ptr<FakeAudioHardware> audioHardware = FakeAudioHardware::create();
    std::shared_ptr<FakeAudioEngineFactory> audioEngineFactory = FakeAudioEngineFactory::create();
    std::shared_ptr<FakeCaptureDeviceDiscovery> captureDeviceDiscovery = FakeCaptureDeviceDiscovery::create();
    std::shared_ptr<FakeConfigurationChangeCenter> configurationChangeCenter = FakeConfigurationChangeCenter::create();

    PlatformServices services() const {
        return {audioHardware, audioEngineFactory, captureDeviceDiscovery, configurationChangeCenter};
    }
};

}  // namespace velto::platform
