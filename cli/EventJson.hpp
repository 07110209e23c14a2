#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "veltoaudio/MicrophoneDevice.hpp"
#include "veltoaudio/PermissionState.hpp"
#include "veltoaudio/RecordingEvent.hpp"

namespace velto::cli {

// The JSON the program prints, keys in a fixed order ("event" first) so lines read
// alike for people and line-oriented tools. Times are rounded to milliseconds and levels to tenths
// of a decibel: finer digits are noise to a reader and to a script alike.

nlohmann::ordered_json eventJson(const RecordingEvent& event);
// "microphone" or "system", as --sources names them.
const char* sourceName(RecordingEvent::Source source);
nlohmann::ordered_json errorJson(const std::string& message, const std::optional<std::filesystem::path>& file);
nlohmann::ordered_json deviceJson(const MicrophoneDevice& device);
nlohmann::ordered_json devicesJson(const std::vector<MicrophoneDevice>& devices);
nlohmann::ordered_json permissionJson(const PermissionStatus& status);

// One line of compact JSON, without the newline. Text that is not valid UTF-8 (a file
// name in another encoding) is replaced rather than thrown on.
std::string jsonLine(const nlohmann::ordered_json& value);

double roundedSeconds(double seconds);
// Levels rounded to 0.1 dB; anything below the meter's floor or not a number reads as the floor.
double roundedDecibels(float decibels);

}  // namespace velto::cli
