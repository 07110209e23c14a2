#pragma once
// Recordings are private to their owner. Header-only so that both recorders share it
// without linking each other.

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "logging/LoggerCompat.hpp"

namespace velto {

// Makes `path` readable and writable by its owner only (0600), right after a recorder
// has opened it: the file writer creates files with the process's default mode. A
// failure is logged through `logger`; never throws.
inline void makeRecordingFilePrivate(const std::filesystem::path& path, const LoggerCompat& logger) {
    if (::chmod(path.c_str(), S_IRUSR | S_IWUSR) != 0) {
        logger.error("Failed to make recording file private: " + path.string() + ", Error: " +
                     std::error_code(errno, std::generic_category()).message());
    }
}

}  // namespace velto
