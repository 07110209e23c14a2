#pragma once

#include "veltoaudio/MicrophoneDevice.hpp"

#include <optional>
#include <vector>

namespace velto {

// The session-manager contract: input devices and the microphone the next recording uses.
class AudioSessionManagerProtocol {
public:
    virtual ~AudioSessionManagerProtocol() = default;

    // The input devices in the platform's order, each with its isDefault flag.
    virtual std::vector<MicrophoneDevice> availableMicrophones() = 0;
    // Absent = the system default input. May throw.
    virtual void configureSession(std::optional<MicrophoneDevice> preferredMicrophone) = 0;
    virtual void logDeviceInformation() = 0;
    virtual std::optional<MicrophoneDevice> preferredMicrophone() const = 0;
};

}  // namespace velto
