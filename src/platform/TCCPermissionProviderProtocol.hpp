#pragma once

#include "veltoaudio/PermissionState.hpp"

namespace velto::platform {

// Reports and requests the system-audio capture permission. The recording service and
// SystemAudioPermissionManager take any provider, so tests can substitute one.
class TCCPermissionProviderProtocol {
public:
    virtual ~TCCPermissionProviderProtocol() = default;

    // The permission's present state; never notRequired. Asks the system every time.
    virtual PermissionState checkPermissionStatus() = 0;
    // Asks for the permission and blocks until answered: true when granted. Throws when the
    // request cannot be made at all.
    virtual bool requestAudioCapturePermission() = 0;
};

}  // namespace velto::platform
