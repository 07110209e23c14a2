#include "EventJson.hpp"

#include <cmath>

#include "veltoaudio/AudioLevels.hpp"

namespace velto::cli {

namespace {
const double kSilenceFloorDecibels = AudioLevels::silence().average;
}

double roundedSeconds(double seconds) {
    if (!std::isfinite(seconds) || seconds < 0) return 0.0;
    return std::round(seconds * 1000.0) / 1000.0;
}

double roundedDecibels(float decibels) {
    if (std::isnan(decibels) || decibels < kSilenceFloorDecibels) return kSilenceFloorDecibels;
    if (!std::isfinite(decibels)) return 0.0;  // +inf: a broken meter, show full scale
    return std::round(static_cast<double>(decibels) * 10.0) / 10.0;
}

const char* sourceName(RecordingEvent::Source source) {
    // The words of --sources.
    return source == RecordingEvent::Source::systemAudio ? "system" : "microphone";
}

nlohmann::ordered_json eventJson(const RecordingEvent& event) {
    nlohmann::ordered_json json;
    json["event"] = caseName(event.kind);
    switch (event.kind) {
        case RecordingEvent::Kind::progress:
            json["elapsed"] = roundedSeconds(event.elapsedSeconds);
            json["average"] = roundedDecibels(event.audioLevels.average);
            json["peak"] = roundedDecibels(event.audioLevels.peak);
            for (const auto& [name, levels] : {std::pair{"microphone", event.microphoneLevels},
                                               std::pair{"system", event.systemLevels}}) {
                if (levels) {
                    json[name] = {{"average", roundedDecibels(levels->average)}, {"peak", roundedDecibels(levels->peak)}};
                }
            }
            break;
        case RecordingEvent::Kind::paused:
        case RecordingEvent::Kind::resumed:
            json["elapsed"] = roundedSeconds(event.elapsedSeconds);
            break;
        case RecordingEvent::Kind::finished:
        case RecordingEvent::Kind::cancelled:
            json["file"] = event.fileURL.string();
            break;
        case RecordingEvent::Kind::silence:
            json["source"] = sourceName(event.source);
            json["since"] = roundedSeconds(event.elapsedSeconds);
            break;
        case RecordingEvent::Kind::signal:
            json["source"] = sourceName(event.source);
            json["elapsed"] = roundedSeconds(event.elapsedSeconds);
            break;
        case RecordingEvent::Kind::starting:
        case RecordingEvent::Kind::started:
            break;
    }
    return json;
}

nlohmann::ordered_json errorJson(const std::string& message, const std::optional<std::filesystem::path>& file) {
    nlohmann::ordered_json json;
    json["event"] = "error";
    json["message"] = message;
    if (file) json["file"] = file->string();
    return json;
}

nlohmann::ordered_json deviceJson(const MicrophoneDevice& device) {
    return nlohmann::ordered_json{{"id", device.id}, {"name", device.name}, {"isDefault", device.isDefault}};
}

nlohmann::ordered_json devicesJson(const std::vector<MicrophoneDevice>& devices) {
    auto list = nlohmann::ordered_json::array();
    for (const auto& device : devices) list.push_back(deviceJson(device));
    return list;
}

nlohmann::ordered_json permissionJson(const PermissionStatus& status) {
    return nlohmann::ordered_json{{"microphone", caseName(status.microphone)},
                          {"systemAudio", caseName(status.systemAudio)},
                          {"allGranted", status.allGranted()},
                          {"anyDenied", status.anyDenied()}};
}

std::string jsonLine(const nlohmann::ordered_json& value) {
    return value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace velto::cli
