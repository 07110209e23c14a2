#pragma once
// The operating-system services, bundled so that a component takes them in its
// constructor: the real ones for the process (pulse()) or fakes in tests.

#include "platform/AudioConfigurationChangeCenter.hpp"
#include "platform/AudioHardware.hpp"
#include "platform/AudioInputEngine.hpp"
#include "platform/CaptureDeviceDiscovery.hpp"

#include <memory>

namespace velto::platform {

struct PlatformServices {
    std::shared_ptr<AudioHardware> audioHardware;
    std::shared_ptr<AudioEngineFactory> audioEngineFactory;
    std::shared_ptr<CaptureDeviceDiscovery> captureDeviceDiscovery;
    std::shared_ptr<AudioConfigurationChangeCenter> configurationChangeCenter;

    // The PulseAudio services of this process, all on one shared server connection
    // (created on first use, reconnecting on demand). Never throws: an unreachable
    // server shows up as failing calls.
    static PlatformServices pulse();
};

}  // namespace velto::platform
