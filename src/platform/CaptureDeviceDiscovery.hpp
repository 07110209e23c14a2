#pragma once
// The audio capture devices of the machine (the AVCaptureDevice subset): discovery by
// device type, the default device, and the microphone authorisation.
//
// Threads: every method may be called from any thread; requestAccess() blocks until answered.

#include "platform/AudioSystemSnapshot.hpp"

#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace velto::platform {

enum class CaptureDeviceType { builtInMicrophone, microphone, external };

enum class AuthorizationStatus { notDetermined, restricted, denied, authorized };

struct CaptureDeviceFormat {
    // Absent when the format carries no audio stream description.
    std::optional<double> sampleRateHertz;
};

struct CaptureDevice {
    std::string uniqueID;
    std::string localizedName;
    std::vector<CaptureDeviceFormat> formats;
};

class CaptureDeviceDiscovery {
public:
    virtual ~CaptureDeviceDiscovery() = default;

    // Audio devices of any of the given types, in the platform's order.
    virtual std::vector<CaptureDevice> devices(std::span<const CaptureDeviceType> deviceTypes) = 0;
    virtual std::optional<CaptureDevice> defaultAudioDevice() = 0;
    // The same within an operation that has read `system`: a platform whose devices are
    // known to a server (PulseAudio) answers from the snapshot. Where discovery is a local
    // call (AVCaptureDevice) the snapshot adds nothing.
    virtual std::vector<CaptureDevice> devices(std::span<const CaptureDeviceType> deviceTypes,
                                               const AudioSystemSnapshot& /*system*/) {
        return devices(deviceTypes);
    }
    virtual std::optional<CaptureDevice> defaultAudioDevice(const AudioSystemSnapshot& /*system*/) {
        return defaultAudioDevice();
    }

    virtual AuthorizationStatus authorizationStatus() = 0;
    // May ask the user; answers whether access is granted.
    virtual bool requestAccess() = 0;
};

const char* toString(AuthorizationStatus status);

}  // namespace velto::platform
