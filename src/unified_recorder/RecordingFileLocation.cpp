#include "unified_recorder/RecordingFileLocation.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <string>
#include <system_error>
#include <vector>

#include "logging/LoggerCompat.hpp"
#include "platform/HomeDirectory.hpp"

namespace velto {

namespace {

LoggerCompat& logger() {
    static LoggerCompat l{kLogSubsystem, "FileStorage"};
    return l;
}

std::string timestampText(std::chrono::system_clock::time_point now) {
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    std::tm local{};
    localtime_r(&seconds, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d-%H-%M-%S", &local);
    return text;
}

bool pathExists(const std::filesystem::path& path) {
    std::error_code ignored;
    return std::filesystem::exists(std::filesystem::symlink_status(path, ignored));
}

}  // namespace

std::filesystem::path applicationSupportDirectory() {
    // The XDG rule: a relative XDG_DATA_HOME is invalid and ignored.
    if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg != nullptr && xdg[0] == '/') return xdg;
    // Nowhere better to go without a home: the working directory keeps the recording rather than losing it.
    return platform::homeDirectory().value_or(std::filesystem::current_path()) / ".local" / "share";
}

std::filesystem::path recordingsDirectory() { return recordingsDirectory(applicationSupportDirectory()); }

std::filesystem::path recordingsDirectory(const std::filesystem::path& applicationSupport) {
    const auto directory = applicationSupport / "Recordings";
    logger().debug("Accessing recordings directory: " + directory.string());
    if (pathExists(directory)) return directory;

    std::error_code error;
    std::filesystem::create_directories(applicationSupport, error);
    if (!error && ::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
        error = std::error_code(errno, std::generic_category());
    }
    if (error) {
        logger().critical("Failed to create recordings directory: " + directory.string() +
                          ", Error: " + error.message());
    } else {
        logger().info("Created recordings directory: " + directory.string());
    }
    return directory;
}

std::filesystem::path generateRecordingFileURL(AudioFormat format) {
    return generateRecordingFileURL(format, std::chrono::system_clock::now(), applicationSupportDirectory());
}

std::filesystem::path generateRecordingFileURL(AudioFormat format, std::chrono::system_clock::time_point now,
                                               const std::filesystem::path& applicationSupport) {
    const std::string stem = "Recording-" + timestampText(now);
    const std::string extension = "." + fileExtension(format);
    const auto directory = recordingsDirectory(applicationSupport);

    // Two recordings started within one second must not share a file.
    auto url = directory / (stem + extension);
    for (int suffix = 2; pathExists(url); ++suffix) {
        url = directory / (stem + "-" + std::to_string(suffix) + extension);
    }
    logger().info("Generated recording file URL: " + url.string());
    return url;
}

}  // namespace velto
