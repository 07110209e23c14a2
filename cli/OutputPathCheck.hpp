#pragma once

#include <filesystem>
#include <string>

namespace velto::cli {

// Decides, before anything is recorded, whether a recording may be written to `path`,
// so that a mistyped path costs the user a message rather than a recording or a stray
// half-written file. Empty result: fine. Otherwise one sentence saying what is wrong and
// what to do. Creates nothing.
std::string outputPathProblem(const std::filesystem::path& path, bool overwrite);

}  // namespace velto::cli
