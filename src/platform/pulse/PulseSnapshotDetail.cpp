#include "platform/pulse/PulseSnapshotDetail.hpp"

namespace velto::pulse {

const PulseServerSnapshot* PulseSnapshotDetail::in(const platform::AudioSystemSnapshot& system) {
    const auto* detail = dynamic_cast<const PulseSnapshotDetail*>(system.platformDetail.get());
    return detail != nullptr ? &detail->server : nullptr;
}

}  // namespace velto::pulse
