#pragma once

#include <functional>
#include <memory>

#include "platform/AudioHardware.hpp"
#include "platform/OperatingSystemVersion.hpp"
#include "platform/TCCPermissionProviderProtocol.hpp"

namespace velto::platform {

// Asks for the system-audio capture permission: through the provider, and when the
// provider cannot ask, by creating and at once destroying a private process tap, which
// is what makes the system ask the user.
//
// Threads: no lock; called from the recording service's serialised context. Both
// operations block until answered and never throw.
class SystemAudioPermissionManager {
public:
    SystemAudioPermissionManager(std::shared_ptr<TCCPermissionProviderProtocol> tccPermissionProvider,
                                 std::shared_ptr<AudioHardware> audioHardware,
                                 std::function<OperatingSystemVersion()> operatingSystemVersion =
                                     currentOperatingSystemVersion);

    // True when system audio may be recorded.
    bool requestPermission();
    // Creates and destroys the throw-away tap; true when that succeeded.
    bool triggerPermissionDialog();

    const std::shared_ptr<TCCPermissionProviderProtocol>& tccPermissionProvider() const {
        return tccPermissionProvider_;
    }

private:
    const std::shared_ptr<TCCPermissionProviderProtocol> tccPermissionProvider_;
    const std::shared_ptr<AudioHardware> audioHardware_;
    const std::function<OperatingSystemVersion()> operatingSystemVersion_;
};

}  // namespace velto::platform
