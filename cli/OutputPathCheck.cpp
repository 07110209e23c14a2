#include "OutputPathCheck.hpp"

#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace velto::cli {

namespace fs = std::filesystem;

namespace {

std::string quoted(const fs::path& path) { return "'" + path.string() + "'"; }

}  // namespace

std::string outputPathProblem(const fs::path& path, bool overwrite) {
    if (path.empty()) return "the output file name is empty; give one with --output";
    std::error_code error;
    auto status = fs::status(path, error);
    if (fs::is_directory(status)) {
        return quoted(path) + " is a directory; give a file name, e.g. --output " +
               (path / "recording.flac").string();
    }
    if (fs::exists(status)) {
        if (!fs::is_regular_file(status)) {
            return quoted(path) + " is not a regular file; choose another output file";
        }
        if (!overwrite) return quoted(path) + " already exists; choose another name or add --overwrite";
        if (::access(path.c_str(), W_OK) != 0) {
            return "cannot replace " + quoted(path) + ": " + std::generic_category().message(errno) + "; choose another output file";
        }
    }
    fs::path directory = path.parent_path();
    if (directory.empty()) directory = ".";
    auto directoryStatus = fs::status(directory, error);
    if (!fs::exists(directoryStatus)) {
        return "the folder " + quoted(directory) + " does not exist; create it or choose another output file";
    }
    if (!fs::is_directory(directoryStatus)) {
        return quoted(directory) + " is not a folder; choose another output file";
    }
    // access() also reports a read-only file system, which permission bits do not show.
    if (::access(directory.c_str(), W_OK | X_OK) != 0) {
        return "cannot write to the folder " + quoted(directory) + ": " + std::generic_category().message(errno) +
               "; choose another output file";
    }
    return {};
}

}  // namespace velto::cli
