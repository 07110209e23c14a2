#pragma once
// The capture devices on PulseAudio: every source that is not a monitor. uniqueID = the
// source name, localizedName = its description, one format at the source's rate.
// USB, Bluetooth, FireWire and Thunderbolt sources count as external devices, the
// others as microphones (and as built-in microphones).
//
// Authorisation is answered from the server: authorized when a non-monitor source can
// be opened for recording, denied when the server refuses access, notDetermined when
// no server answers or there is no input to judge by.
//
// A lookup given an operation's snapshot reads the server's answer in it; one without
// reads a snapshot of its own, a round trip.
//
// Threads: every method may be called from any thread.

#include "platform/CaptureDeviceDiscovery.hpp"
#include "platform/pulse/PulseConnection.hpp"

namespace velto::pulse {

class PulseCaptureDeviceDiscovery final : public platform::CaptureDeviceDiscovery {
public:
    explicit PulseCaptureDeviceDiscovery(std::shared_ptr<PulseConnection> connection)
        : connection_(std::move(connection)) {}

    std::vector<platform::CaptureDevice> devices(std::span<const platform::CaptureDeviceType> deviceTypes) override;
    std::optional<platform::CaptureDevice> defaultAudioDevice() override;
    std::vector<platform::CaptureDevice> devices(std::span<const platform::CaptureDeviceType> deviceTypes,
                                                 const platform::AudioSystemSnapshot& system) override;
    std::optional<platform::CaptureDevice> defaultAudioDevice(const platform::AudioSystemSnapshot& system) override;
    platform::AuthorizationStatus authorizationStatus() override;
    bool requestAccess() override;

    static platform::CaptureDeviceType deviceType(const PulseSourceInfo& source);

private:
    static std::vector<platform::CaptureDevice> devicesOfTypes(const PulseServerSnapshot& server,
                                                               std::span<const platform::CaptureDeviceType> deviceTypes);
    static std::optional<platform::CaptureDevice> defaultDevice(const PulseServerSnapshot& server);

    std::shared_ptr<PulseConnection> connection_;
};

}  // namespace velto::pulse
