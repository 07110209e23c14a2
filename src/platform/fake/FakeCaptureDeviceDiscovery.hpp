#pragma once
// Scriptable capture-device list, default device and microphone authorisation; records
// the device types each discovery asked for. Like AVCaptureDevice, it answers the lookups
// of an operation from its script, not from the operation's snapshot.
//
// Threads: all methods are thread-safe.

#include "platform/CaptureDeviceDiscovery.hpp"

#include <memory>
#include <mutex>

namespace velto::platform {

class FakeCaptureDeviceDiscovery final : public CaptureDeviceDiscovery {
public:
    static std::shared_ptr<FakeCaptureDeviceDiscovery> create() { return std::make_shared<FakeCaptureDeviceDiscovery>(); }

    void setDevices(std::vector<CaptureDevice> devices);
    void setDefaultDevice(std::optional<CaptureDevice> device);
    void setAuthorizationStatus(AuthorizationStatus status);
    // What requestAccess() answers; a granted request also makes the status authorized.
    void setAccessAnswer(bool granted);

    std::vector<std::vector<CaptureDeviceType>> discoveries() const;
    int defaultDeviceQueries() const;
    int accessRequests() const;

    using CaptureDeviceDiscovery::defaultAudioDevice;
    using CaptureDeviceDiscovery::devices;
    std::vector<CaptureDevice> devices(std::span<const CaptureDeviceType> deviceTypes) override;
    std::optional<CaptureDevice> defaultAudioDevice() override;
    AuthorizationStatus authorizationStatus() override;
    bool requestAccess() override;

private:
    mutable std::mutex mutex_;
    std::vector<CaptureDevice> devices_;
    std::optional<CaptureDevice> defaultDevice_;
    AuthorizationStatus status_ = AuthorizationStatus::authorized;
    bool accessAnswer_ = true;
    std::vector<std::vector<CaptureDeviceType>> discoveries_;
    int defaultDeviceQueries_ = 0;
    int accessRequests_ = 0;
};

}  // namespace velto::platform
