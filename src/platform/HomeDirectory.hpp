#pragma once

#include <filesystem>
#include <optional>

namespace velto::platform {

// The user's home folder: $HOME, else the password database's entry; none when
// neither says. Each caller decides where to go without one.
std::optional<std::filesystem::path> homeDirectory();

}  // namespace velto::platform
