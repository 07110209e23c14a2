#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace velto {

// One audio input device.
struct MicrophoneDevice {
    std::string id;    // the platform's unique device identifier (on Linux, the PulseAudio source name)
    std::string name;  // human-readable name
    bool isDefault = false;

    friend bool operator==(const MicrophoneDevice&, const MicrophoneDevice&) = default;
};

}  // namespace velto

template <>
struct std::hash<velto::MicrophoneDevice> {
    std::size_t operator()(const velto::MicrophoneDevice& device) const noexcept {
        std::size_t seed = std::hash<std::string>{}(device.id);
        auto mix = [&seed](std::size_t value) { seed ^= value + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2); };
        mix(std::hash<std::string>{}(device.name));
        mix(std::hash<bool>{}(device.isDefault));
        return seed;
    }
};
