#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <variant>

#include "veltoaudio/AudioFormat.hpp"
#include "veltoaudio/AudioSources.hpp"
#include "veltoaudio/TrackLayout.hpp"

namespace velto::cli {

// What the user asked for, after parsing and before anything touches the sound server.

enum class SourceChoice { microphone, system, both };

AudioSources toAudioSources(SourceChoice choice);
const char* sourceChoiceName(SourceChoice choice);

struct RecordOptions {
    SourceChoice sources = SourceChoice::microphone;
    // Explicit --format; absent: taken from the output file's extension, else FLAC.
    std::optional<AudioFormat> format;
    std::optional<double> durationSeconds;
    std::optional<std::filesystem::path> outputPath;
    std::optional<std::string> microphoneId;
    // Absent: the library's default (on when both sources are recorded).
    std::optional<bool> echoCancellation;
    bool json = false;
    bool overwrite = false;
    // --tracks: one mixed track, or the microphone and the system audio side by side.
    TrackLayout tracks = TrackLayout::mixed;
};

// The format the recording is written in: --format, else the output's extension, else FLAC
// (the library's plain default).
AudioFormat effectiveFormat(const RecordOptions& options);
// The format an output file name implies (".wav" / ".flac", any case); absent for others.
std::optional<AudioFormat> formatFromExtension(const std::filesystem::path& path);

struct DevicesOptions {
    bool json = false;
};

struct PermissionsOptions {
    SourceChoice sources = SourceChoice::microphone;
    bool json = false;
};

struct MicrophoneOptions {
    enum class Action { set, clear, show };
    Action action = Action::show;
    std::string deviceId;  // for set
    bool json = false;
};

using Command = std::variant<RecordOptions, DevicesOptions, PermissionsOptions, MicrophoneOptions>;

struct Invocation {
    // 0: library errors only; 1 (-v): its info lines too; 2 (-vv): debug.
    int verbosity = 0;
    Command command;
};

}  // namespace velto::cli
