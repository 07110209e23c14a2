#pragma once
// What a process tap captures (the CATapDescription subset the library uses).

#include "platform/CoreAudioTypes.hpp"

#include <string>
#include <vector>

namespace velto::platform {

enum class TapMuteBehavior : std::int32_t {
    unmuted = 0,          // the tapped processes stay audible
    muted = 1,
    mutedWhenTapped = 2,
};

struct TapDescription {
    // Exclusive: `processes` lists the processes to leave out; otherwise the ones to include.
    std::vector<AudioObjectID> processes;
    bool isExclusive = false;
    bool isMixdown = true;
    bool isMono = false;
    std::string uuid;  // upper-case hyphenated
    TapMuteBehavior muteBehavior = TapMuteBehavior::unmuted;
    std::string name;
    bool isPrivate = false;

    static TapDescription stereoMixdownOfProcesses(std::vector<AudioObjectID> processes) {
        TapDescription d;
        d.processes = std::move(processes);
        d.isExclusive = false;
        return d;
    }

    static TapDescription stereoGlobalTapButExcludeProcesses(std::vector<AudioObjectID> processes) {
        TapDescription d;
        d.processes = std::move(processes);
        d.isExclusive = true;
        return d;
    }
};

}  // namespace velto::platform
