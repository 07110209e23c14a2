#pragma once
// Where recordings go: "Recordings" inside the user's application-data directory
// ($XDG_DATA_HOME, else ~/.local/share), one time-stamped file per recording.
// Recordings are private: the directory is created 0700.
//
// Threads: any thread; the functions keep no state.

#include <chrono>
#include <filesystem>

#include "veltoaudio/AudioFormat.hpp"

namespace velto {

// The per-user application-data directory: $XDG_DATA_HOME when it is an absolute
// path, else $HOME/.local/share (the password database's home when HOME is unset).
std::filesystem::path applicationSupportDirectory();

// The recordings directory, created (0700, with its parents) when missing. Never
// fails: a failure to create it is logged and the location returned all the same.
std::filesystem::path recordingsDirectory();
std::filesystem::path recordingsDirectory(const std::filesystem::path& applicationSupport);

// A new file location "Recording-yyyy-MM-dd-HH-mm-ss.<ext>" (local time) in the
// recordings directory. When that name is taken (two recordings in one second),
// the first free "-2", "-3", ... suffix is added before the extension. Does not
// create the file.
std::filesystem::path generateRecordingFileURL(AudioFormat format);
std::filesystem::path generateRecordingFileURL(AudioFormat format, std::chrono::system_clock::time_point now,
                                               const std::filesystem::path& applicationSupport);

}  // namespace velto
