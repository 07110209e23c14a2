#include "platform/fake/FakeCaptureDeviceDiscovery.hpp"

namespace velto::platform {

void FakeCaptureDeviceDiscovery::setDevices(std::vector<CaptureDevice> devices) {
    std::lock_guard lock(mutex_);
    devices_ = std::move(devices);
}

void FakeCaptureDeviceDiscovery::setDefaultDevice(std::optional<CaptureDevice> device) {
    std::lock_guard lock(mutex_);
    defaultDevice_ = std::move(device);
}

void FakeCaptureDeviceDiscovery::setAuthorizationStatus(AuthorizationStatus status) {
    std::lock_guard lock(mutex_);
    status_ = status;
}

void FakeCaptureDeviceDiscovery::setAccessAnswer(bool granted) {
    std::lock_guard lock(mutex_);
    accessAnswer_ = granted;
}

std::vector<std::vector<CaptureDeviceType>> FakeCaptureDeviceDiscovery::discoveries() const {
    std::lock_guard lock(mutex_);
    return discoveries_;
}

int FakeCaptureDeviceDiscovery::defaultDeviceQueries() const {
    std::lock_guard lock(mutex_);
    return defaultDeviceQueries_;
}

int FakeCaptureDeviceDiscovery::accessRequests() const {
    std::lock_guard lock(mutex_);
    return accessRequests_;
}

std::vector<CaptureDevice> FakeCaptureDeviceDiscovery::devices(std::span<const CaptureDeviceType> deviceTypes) {
    std::lock_guard lock(mutex_);
    discoveries_.emplace_back(deviceTypes.begin(), deviceTypes.end());
    return devices_;
}

std::optional<CaptureDevice> FakeCaptureDeviceDiscovery::defaultAudioDevice() {
    std::lock_guard lock(mutex_);
    ++defaultDeviceQueries_;
    return defaultDevice_;
}

AuthorizationStatus FakeCaptureDeviceDiscovery::authorizationStatus() {
    std::lock_guard lock(mutex_);
    return status_;
}

bool FakeCaptureDeviceDiscovery::requestAccess() {
    std::lock_guard lock(mutex_);
    ++accessRequests_;
    if (accessAnswer_) status_ = AuthorizationStatus::authorized;
    return accessAnswer_;
}

}  // namespace velto::platform
