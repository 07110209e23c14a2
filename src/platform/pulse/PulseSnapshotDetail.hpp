#pragma once
// The server's whole answer, carried inside the platform snapshot that PulseAudioHardware
// reads. The other PulseAudio objects of an operation (its input engine, its capture-device
// discovery, the process tap) find there the sources' formats, types and defaults that the
// platform's own fields do not hold, and so ask the server nothing more.

#include "platform/AudioSystemSnapshot.hpp"
#include "platform/pulse/PulseConnection.hpp"

namespace velto::pulse {

struct PulseSnapshotDetail final : platform::AudioSystemSnapshot::PlatformDetail {
    explicit PulseSnapshotDetail(PulseServerSnapshot answer) : server(std::move(answer)) {}
    const PulseServerSnapshot server;

    // The server's answer inside `system`; null when it holds none (a failed read).
    static const PulseServerSnapshot* in(const platform::AudioSystemSnapshot& system);
};

}  // namespace velto::pulse
