#pragma once
// Recordings are private to their owner. Beside the file writer, below both recorders.

#include <filesystem>

namespace velto {

class LoggerCompat;

// Creates `path` (if missing) readable and writable by its owner only, just before the
// file writer opens it: the writer truncates an existing file and keeps its mode, so the
// recording is never readable by others, not even for a moment. Failures are left to
// the writer's own open, which reports them.
void createPrivateRecordingFile(const std::filesystem::path& path);

// Makes `path` readable and writable by its owner only (0600), right after a recorder
// has opened it, for a file that existed before with a wider mode. A failure is logged
// through `logger`; never throws.
void makeRecordingFilePrivate(const std::filesystem::path& path, const LoggerCompat& logger);

}  // namespace velto
