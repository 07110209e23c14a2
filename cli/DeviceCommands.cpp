#include "DeviceCommands.hpp"

#include <algorithm>
#include <optional>

#include "ErrorMessages.hpp"
#include "EventJson.hpp"
#include "veltoaudio/BufferConfiguration.hpp"
#include "veltoaudio/Error.hpp"

namespace velto::cli {

namespace {

constexpr const char* kNoMicrophonesHint =
    "velto: no microphones found. Check that a sound server (PulseAudio or PipeWire) is running.";

std::string describeDevice(const MicrophoneDevice& device) { return device.id + " (" + device.name + ")"; }

}  // namespace

int runDevices(const DevicesOptions& options, RecordingBackend& backend, Console& console) {
    auto devices = backend.availableMicrophones();
    if (options.json) {
        console.printResult(jsonLine(devicesJson(devices)));
        return 0;
    }
    if (devices.empty()) {
        console.printMessage(kNoMicrophonesHint);
        return 0;
    }
    std::size_t idWidth = 0;
    for (const auto& device : devices) idWidth = std::max(idWidth, device.id.size());
    for (const auto& device : devices) {
        std::string line = device.isDefault ? "* " : "  ";
        line += device.id;
        line += std::string(idWidth - device.id.size() + 2, ' ');
        line += device.name;
        if (device.isDefault) line += "  (default)";
        console.printResult(line);
    }
    return 0;
}

int runPermissions(const PermissionsOptions& options, RecordingBackend& backend, Console& console) {
    // Only the sources matter to the answer; the rest is the library's plain default.
    RecordingConfiguration configuration(AudioFormat::flac, toAudioSources(options.sources), std::nullopt,
                                         BufferConfiguration::defaultConfiguration());
    std::optional<PermissionStatus> answer;
    try {
        answer = backend.permissionStatus(configuration);
    } catch (...) {
        // No sound server: there is no answer, only what to do about it.
        const auto error = std::current_exception();
        if (options.json) console.printResult(jsonLine(errorJson(describeError(error), std::nullopt)));
        console.printMessage(failureLine(error));
        return 1;
    }
    const PermissionStatus& status = *answer;
    if (options.json) {
        console.printResult(jsonLine(permissionJson(status)));
        return 0;
    }
    console.printResult(std::string("microphone: ") + caseName(status.microphone));
    console.printResult(std::string("system audio: ") + caseName(status.systemAudio));
    if (status.anyDenied()) {
        console.printMessage("velto: recording " + std::string(sourceChoiceName(options.sources)) +
                             " is not permitted. Check that the sound server allows this client to record.");
    }
    return 0;
}

int runMicrophone(const MicrophoneOptions& options, RecordingBackend& backend, Console& console) {
    using Action = MicrophoneOptions::Action;
    switch (options.action) {
        case Action::set: {
            auto devices = backend.availableMicrophones();
            auto found = std::find_if(devices.begin(), devices.end(),
                                      [&](const MicrophoneDevice& device) { return device.id == options.deviceId; });
            if (found == devices.end()) {
                console.printMessage(failureLine("no microphone has the identifier '" + options.deviceId +
                                                 "'. Run 'velto devices' to list the microphones"));
                return 1;
            }
            try {
                backend.setPreferredMicrophone(*found);
            } catch (...) {
                console.printMessage(failureLine(std::current_exception()));
                return 1;
            }
            if (options.json) {
                console.printResult(jsonLine(nlohmann::ordered_json{{"preferred", deviceJson(*found)}}));
            } else {
                console.printResult("preferred microphone: " + describeDevice(*found));
            }
            return 0;
        }
        case Action::clear:
            backend.clearPreferredMicrophone();
            if (options.json) {
                console.printResult(jsonLine(nlohmann::ordered_json{{"preferred", nullptr}}));
            } else {
                console.printResult("preferred microphone cleared; recordings use the default input");
            }
            return 0;
        case Action::show: {
            bool stored = backend.hasStoredMicrophonePreference();
            auto current = backend.currentMicrophone();
            if (options.json) {
                console.printResult(jsonLine(nlohmann::ordered_json{
                    {"stored", stored}, {"current", current ? deviceJson(*current) : nlohmann::ordered_json(nullptr)}}));
                return 0;
            }
            console.printResult(std::string("preferred microphone stored: ") + (stored ? "yes" : "no"));
            console.printResult("current microphone: " + (current ? describeDevice(*current) : std::string("none")));
            return 0;
        }
    }
    return 0;
}

}  // namespace velto::cli
