#pragma once

#include <compare>

namespace velto {

struct OperatingSystemVersion {
    int majorVersion = 0;
    int minorVersion = 0;
    int patchVersion = 0;

    friend auto operator<=>(const OperatingSystemVersion&, const OperatingSystemVersion&) = default;
    bool isAtLeast(int major, int minor, int patch = 0) const {
        return *this >= OperatingSystemVersion{major, minor, patch};
    }
};

// The feature level the platform offers, in the version numbers of the macOS
// release whose services the library mirrors. Linux with PulseAudio offers
// process-wide capture and private capture devices: the level of 14.4.
OperatingSystemVersion currentOperatingSystemVersion();

}  // namespace velto
