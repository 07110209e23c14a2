#include "platform/HomeDirectory.hpp"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

namespace velto::platform {

std::optional<std::filesystem::path> homeDirectory() {
    if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') return home;
    // The reentrant lookup: getpwuid()'s static record may be overwritten by another
    // thread's lookup while it is read.
    passwd entry{};
    passwd* found = nullptr;
    std::vector<char> storage(16384);
    if (::getpwuid_r(::getuid(), &entry, storage.data(), storage.size(), &found) == 0 && found != nullptr &&
        found->pw_dir != nullptr) {
        return found->pw_dir;
    }
    return std::nullopt;
}

}  // namespace velto::platform
