#pragma once
// What the lookups of one operation (a start or a restart of a source) need to know of the
// system at one moment: the processes that play, the devices with their UIDs, and the
// default output. The operation reads it once and hands it to every lookup, which then
// reads this value rather than asking the system again: on a sound server each look is a
// round trip, and lookups that each look for themselves may also see different moments.

#include "platform/CoreAudioTypes.hpp"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velto::platform {

struct AudioSystemSnapshot {
    struct Device {
        AudioObjectID id = kAudioObjectUnknown;
        std::string uid;
    };
    // What a platform read at the same moment for lookups of its own that the fields here
    // do not answer (PulseAudio: the server's whole answer, with the sources' formats and
    // the default input). Each platform derives its own.
    class PlatformDetail {
    public:
        virtual ~PlatformDetail() = default;
    };

    std::vector<AudioObjectID> processes;
    std::vector<Device> devices;  // in the hardware's order; a device that cannot tell its UID is left out
    AudioObjectID defaultSystemOutputDevice = kAudioObjectUnknown;
    // Null on a platform whose objects look things up by local calls (Core Audio), which
    // have no reason to share an answer.
    std::shared_ptr<const PlatformDetail> platformDetail;
    // noErr, or why the system could not be read: the snapshot is then empty, and every
    // lookup in it finds nothing.
    OSStatus readStatus = noErr;

    // The first device with this UID.
    std::optional<AudioObjectID> deviceWithUID(std::string_view uid) const;
    std::optional<std::string> uidOf(AudioObjectID device) const;
};

}  // namespace velto::platform
