#pragma once

#include "veltoaudio/Export.hpp"

namespace velto {

// State of one privacy permission.
enum class PermissionState { notRequired, granted, denied, notDetermined };

constexpr bool isGrantedOrNotRequired(PermissionState state) {
    return state == PermissionState::notRequired || state == PermissionState::granted;
}
constexpr bool isDenied(PermissionState state) { return state == PermissionState::denied; }
constexpr bool isNotDetermined(PermissionState state) { return state == PermissionState::notDetermined; }

VELTO_EXPORT const char* caseName(PermissionState state);

// The permissions a configuration needs.
struct PermissionStatus {
    PermissionState microphone;
    PermissionState systemAudio;

    constexpr bool allGranted() const { return isGrantedOrNotRequired(microphone) && isGrantedOrNotRequired(systemAudio); }
    constexpr bool anyDenied() const { return isDenied(microphone) || isDenied(systemAudio); }
    friend bool operator==(const PermissionStatus&, const PermissionStatus&) = default;
};

}  // namespace velto
