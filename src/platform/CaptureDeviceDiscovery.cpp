#include "platform/CaptureDeviceDiscovery.hpp"

namespace velto::platform {

const char* toString(AuthorizationStatus status) {
    switch (status) {
        case AuthorizationStatus::notDetermined: return "notDetermined";
        case AuthorizationStatus::restricted: return "restricted";
        case AuthorizationStatus::denied: return "denied";
        case AuthorizationStatus::authorized: return "authorized";
    }
    return "unknown";
}

}  // namespace velto::platform
