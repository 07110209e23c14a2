#include "signal/PrivateRecordingFile.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "logging/LoggerCompat.hpp"

namespace velto {

void createPrivateRecordingFile(const std::filesystem::path& path) {
    const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (descriptor >= 0) ::close(descriptor);
}

void makeRecordingFilePrivate(const std::filesystem::path& path, const LoggerCompat& logger) {
    if (::chmod(path.c_str(), S_IRUSR | S_IWUSR) != 0) {
        logger.error("Failed to make recording file private: " + path.string() + ", Error: " +
                     std::error_code(errno, std::generic_category()).message());
    }
}

}  // namespace velto
