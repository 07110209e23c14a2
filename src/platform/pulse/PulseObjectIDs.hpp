#pragma once
// How PulseAudio objects appear as audio object identifiers. Each kind has a range of
// its own, so that index 0 of a source is not mistaken for "no object" (0) or for the
// system object (1), and a source and a sink with the same index stay apart.

#include "platform/CoreAudioTypes.hpp"

#include <cstdint>
#include <optional>

namespace velto::pulse {

enum class PulseObjectKind : std::uint32_t {
    source = 0x01,
    sink = 0x02,
    sinkInput = 0x03,  // a process that plays audio
    tap = 0x04,
    aggregateDevice = 0x05,
};

constexpr platform::AudioObjectID makeObjectID(PulseObjectKind kind, std::uint32_t index) {
    return (static_cast<std::uint32_t>(kind) << 24) | (index & 0x00ffffffu);
}

constexpr std::optional<std::uint32_t> objectIndex(platform::AudioObjectID id, PulseObjectKind kind) {
    if ((id >> 24) != static_cast<std::uint32_t>(kind)) return std::nullopt;
    return id & 0x00ffffffu;
}

}  // namespace velto::pulse
