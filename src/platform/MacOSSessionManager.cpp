#include "platform/MacOSSessionManager.hpp"

#include "logging/LoggerCompat.hpp"
#include "platform/InputDeviceSelection.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <string>

namespace velto {
namespace {

using namespace platform;

LoggerCompat& logger() {
    static LoggerCompat instance{kLogSubsystem, "MacOSSessionManager"};
    return instance;
}

// Whole-hertz rates of a device's audio formats, without duplicates, ascending. Rates that
// are not finite or do not fit a signed 64-bit integer are left out.
std::vector<std::int64_t> supportedSampleRates(const CaptureDevice& device) {
    std::vector<std::int64_t> rates;
    for (const auto& format : device.formats) {
        if (!format.sampleRateHertz) continue;
        const double rate = std::trunc(*format.sampleRateHertz);
        // 2^63 is exactly representable; anything at or beyond it would overflow.
        if (!std::isfinite(rate) || rate < -9223372036854775808.0 || rate >= 9223372036854775808.0) continue;
        rates.push_back(static_cast<std::int64_t>(rate));
    }
    std::sort(rates.begin(), rates.end());
    rates.erase(std::unique(rates.begin(), rates.end()), rates.end());
    return rates;
}

}  // namespace

std::shared_ptr<MacOSSessionManager> MacOSSessionManager::create(std::shared_ptr<CaptureDeviceDiscovery> discovery) {
    return std::make_shared<MacOSSessionManager>(std::move(discovery));
}

MacOSSessionManager::MacOSSessionManager(std::shared_ptr<CaptureDeviceDiscovery> discovery)
    : discovery_(std::move(discovery)) {}

std::vector<MicrophoneDevice> MacOSSessionManager::availableMicrophones() {
    const auto devices = discoverAudioCaptureDevices(*discovery_);
    std::vector<MicrophoneDevice> microphones;
    if (devices.empty()) return microphones;
    const auto defaultDevice = discovery_->defaultAudioDevice();
    for (const auto& device : devices) {
        const bool isDefault = defaultDevice && defaultDevice->uniqueID == device.uniqueID;
        microphones.push_back(MicrophoneDevice{device.uniqueID, device.localizedName, isDefault});
    }
    return microphones;
}

void MacOSSessionManager::configureSession(std::optional<MicrophoneDevice> preferredMicrophone) {
    preferredMicrophone_ = std::move(preferredMicrophone);
    if (preferredMicrophone_) {
        logger().info("🎙️ PulseAudio: Configured to use device '" + preferredMicrophone_->name + "' (ID: " +
                      preferredMicrophone_->id + ")");
    } else {
        logger().info("🎙️ PulseAudio: Configured to use system default device");
    }
}

void MacOSSessionManager::logDeviceInformation() {
    logger().info("🎙️ Microphone Device Information (PulseAudio):");
    const auto devices = discoverAudioCaptureDevices(*discovery_);
    if (devices.empty()) {
        logger().error("No audio input devices found");
        return;
    }
    const auto defaultDevice = discovery_->defaultAudioDevice();
    if (!defaultDevice) {
        logger().error("No default audio input device found");
        return;
    }
    logger().info("Default Input Device: '" + defaultDevice->localizedName + "' (ID: " + defaultDevice->uniqueID + ")");
    logger().info("Available Input Devices (" + std::to_string(devices.size()) + " total):");
    int number = 1;
    for (const auto& device : devices) {
        const char* marker = device.uniqueID == defaultDevice->uniqueID ? " [DEFAULT]" : "";
        logger().info("  " + std::to_string(number++) + ". '" + device.localizedName + "' (ID: " + device.uniqueID +
                      ")" + marker);
        const auto rates = supportedSampleRates(device);
        if (rates.empty()) continue;
        std::string list;
        for (std::size_t i = 0; i < rates.size(); ++i) {
            if (i > 0) list += ", ";
            list += std::to_string(rates[i]) + "Hz";
        }
        logger().info("    Supported Sample Rates: " + list);
    }
}

std::optional<MicrophoneDevice> MacOSSessionManager::preferredMicrophone() const { return preferredMicrophone_; }

}  // namespace velto
