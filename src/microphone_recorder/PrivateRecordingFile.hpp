#pragma once
// Recordings are private to their owner. Header-only so that both recorders share it
// without linking each other.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "logging/LoggerCompat.hpp"

namespace velto {

// Creates `path` (if missing) readable and writable by its owner only, just before the
// file writer opens it: the writer truncates an existing file and keeps its mode, so the
// recording is never readable by others, not even for a moment. Failures are left to
// the writer's own open, which reports them.
inline void createPrivateRecordingFile(const std::filesystem::path& path) {
    const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (descriptor >= 0) ::close(descriptor);
}

// Makes `path` readable and writable by its owner only (0600), right after a recorder
// has opened it, for a file that existed before with a wider mode. A failure is logged
// through `logger`; never throws.
inline void makeRecordingFilePrivate(const std::filesystem::path& path, const LoggerCompat& logger) {
    if (::chmod(path.c_str(), S_IRUSR | S_IWUSR) != 0) {
        logger.error("Failed to make recording file private: " + path.string() + ", Error: " +
                     std::error_code(errno, std::generic_category()).message());
    }
}

}  // namespace velto
