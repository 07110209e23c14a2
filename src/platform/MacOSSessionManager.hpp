#pragma once
// The session manager: lists the audio input devices as MicrophoneDevices (marking the
// default one), remembers the microphone the next recording should use, and writes a
// device report to the log.
//
// Threads: no lock; the recording service calls it from its own serialised context.

#include "platform/CaptureDeviceDiscovery.hpp"
#include "platform/AudioSessionManagerProtocol.hpp"

#include <memory>
#include <optional>
#include <vector>

namespace velto {

class MacOSSessionManager final : public AudioSessionManagerProtocol {
public:
    static std::shared_ptr<MacOSSessionManager> create(std::shared_ptr<platform::CaptureDeviceDiscovery> discovery);

    explicit MacOSSessionManager(std::shared_ptr<platform::CaptureDeviceDiscovery> discovery);

    std::vector<MicrophoneDevice> availableMicrophones() override;
    // Never fails.
    void configureSession(std::optional<MicrophoneDevice> preferredMicrophone) override;
    void logDeviceInformation() override;
    std::optional<MicrophoneDevice> preferredMicrophone() const override;

private:
    std::shared_ptr<platform::CaptureDeviceDiscovery> discovery_;
    std::optional<MicrophoneDevice> preferredMicrophone_;
};

}  // namespace velto
