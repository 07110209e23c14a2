#include "platform/AudioSystemSnapshot.hpp"

namespace velto::platform {

std::optional<AudioObjectID> AudioSystemSnapshot::deviceWithUID(std::string_view uid) const {
    for (const auto& device : devices) {
        if (device.uid == uid) return device.id;
    }
    return std::nullopt;
}

std::optional<std::string> AudioSystemSnapshot::uidOf(AudioObjectID id) const {
    for (const auto& device : devices) {
        if (device.id == id) return device.uid;
    }
    return std::nullopt;
}

}  // namespace velto::platform
