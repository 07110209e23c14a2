#include "platform/pulse/PulseCaptureDeviceDiscovery.hpp"

#include "logging/LoggerCompat.hpp"
#include "platform/pulse/PulseCaptureStream.hpp"
#include "platform/pulse/PulseSnapshotDetail.hpp"
#include "veltoaudio/Error.hpp"

#include <algorithm>

namespace velto::pulse {
namespace {

using namespace platform;

LoggerCompat& logger() {
    static LoggerCompat instance{kLogSubsystem, "PulseCaptureDeviceDiscovery"};
    return instance;
}

CaptureDevice captureDevice(const PulseSourceInfo& source) {
    return CaptureDevice{source.name, source.description, {CaptureDeviceFormat{source.sampleRateHertz}}};
}

}  // namespace

CaptureDeviceType PulseCaptureDeviceDiscovery::deviceType(const PulseSourceInfo& source) {
    static constexpr const char* kExternalBuses[] = {"usb", "bluetooth", "firewire", "thunderbolt"};
    for (const char* bus : kExternalBuses) {
        if (source.bus == bus) return CaptureDeviceType::external;
    }
    return CaptureDeviceType::microphone;
}

std::vector<CaptureDevice> PulseCaptureDeviceDiscovery::devicesOfTypes(const PulseServerSnapshot& server,
                                                                       std::span<const CaptureDeviceType> deviceTypes) {
    std::vector<CaptureDevice> found;
    for (const auto& source : server.sources) {
        if (source.isMonitor) continue;
        const CaptureDeviceType type = deviceType(source);
        const bool wanted = std::any_of(deviceTypes.begin(), deviceTypes.end(), [&](CaptureDeviceType asked) {
            return asked == type || (asked == CaptureDeviceType::builtInMicrophone && type == CaptureDeviceType::microphone);
        });
        if (wanted) found.push_back(captureDevice(source));
    }
    return found;
}

std::optional<CaptureDevice> PulseCaptureDeviceDiscovery::defaultDevice(const PulseServerSnapshot& server) {
    const PulseSourceInfo* source = server.source(server.server.defaultSourceName);
    if (source == nullptr || source->isMonitor) return std::nullopt;
    return captureDevice(*source);
}

std::vector<CaptureDevice> PulseCaptureDeviceDiscovery::devices(std::span<const CaptureDeviceType> deviceTypes) {
    auto server = connection_->snapshot();
    if (!server) {
        logger().error("Cannot list the input devices: " + pulseErrorText(server.error));
        return {};
    }
    return devicesOfTypes(*server.value, deviceTypes);
}

std::vector<CaptureDevice> PulseCaptureDeviceDiscovery::devices(std::span<const CaptureDeviceType> deviceTypes,
                                                                const AudioSystemSnapshot& system) {
    const PulseServerSnapshot* server = PulseSnapshotDetail::in(system);
    return server != nullptr ? devicesOfTypes(*server, deviceTypes) : std::vector<CaptureDevice>{};
}

std::optional<CaptureDevice> PulseCaptureDeviceDiscovery::defaultAudioDevice() {
    auto server = connection_->snapshot();
    return server ? defaultDevice(*server.value) : std::nullopt;
}

std::optional<CaptureDevice> PulseCaptureDeviceDiscovery::defaultAudioDevice(const AudioSystemSnapshot& system) {
    const PulseServerSnapshot* server = PulseSnapshotDetail::in(system);
    return server != nullptr ? defaultDevice(*server) : std::nullopt;
}

AuthorizationStatus PulseCaptureDeviceDiscovery::authorizationStatus() {
    const int error = connection_->ensureConnected();
    if (error == PA_ERR_ACCESS || error == PA_ERR_AUTHKEY) return AuthorizationStatus::denied;
    if (error != PA_OK) return AuthorizationStatus::notDetermined;
    auto server = connection_->snapshot();
    if (!server) {
        return server.error == PA_ERR_ACCESS ? AuthorizationStatus::denied : AuthorizationStatus::notDetermined;
    }
    const PulseSourceInfo* candidate = nullptr;
    for (const auto& source : server.value->sources) {
        if (source.isMonitor) continue;
        if (candidate == nullptr || source.name == server.value->server.defaultSourceName) candidate = &source;
    }
    if (candidate == nullptr) return AuthorizationStatus::notDetermined;
    // Opening the source is the honest test: a server that keeps the microphone from us refuses the stream.
    PulseCaptureStreamOptions options;
    options.sourceName = candidate->name;
    options.sampleRateHertz = candidate->sampleRateHertz;
    options.channels = std::max<std::uint32_t>(1, candidate->channels);
    options.blockFrames = 256;
    options.streamName = "VeltoAudio access check";
    try {
        auto stream = PulseCaptureStream::open(connection_, options, [](const float*, std::uint32_t, double) {});
        stream->close();
        return AuthorizationStatus::authorized;
    } catch (const PlatformError& failure) {
        if (failure.code() == PA_ERR_ACCESS) return AuthorizationStatus::denied;
        logger().error("Cannot open the microphone to check access: " + failure.errorDescription());
        return AuthorizationStatus::notDetermined;
    }
}

bool PulseCaptureDeviceDiscovery::requestAccess() {
    // There is no consent prompt on a sound server: access is what the server grants.
    return authorizationStatus() == AuthorizationStatus::authorized;
}

}  // namespace velto::pulse
