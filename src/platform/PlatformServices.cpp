#include "platform/PlatformServices.hpp"

#include "platform/pulse/PulseAudioHardware.hpp"
#include "platform/pulse/PulseAudioInputEngine.hpp"
#include "platform/pulse/PulseCaptureDeviceDiscovery.hpp"
#include "platform/pulse/PulseConfigurationChangeCenter.hpp"
#include "platform/pulse/PulseConnection.hpp"

namespace velto::platform {

PlatformServices PlatformServices::pulse() {
    // One bundle per process, on one connection: taps and devices created through one
    // service are visible to the next caller.
    static const PlatformServices services = [] {
        auto connection = pulse::PulseConnection::shared();
        // Restarts after a configuration change take over the streams they stopped.
        auto handover = pulse::PulseStreamHandover::create(connection);
        return PlatformServices{pulse::PulseAudioHardware::create(connection, handover),
                                std::make_shared<pulse::PulseAudioEngineFactory>(connection, handover),
                                std::make_shared<pulse::PulseCaptureDeviceDiscovery>(connection),
                                std::make_shared<pulse::PulseConfigurationChangeCenter>(connection, handover)};
    }();
    return services;
}

}  // namespace velto::platform
