#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace velto {

// A small persistent key-value store for user preferences: one JSON object in one file,
// by default $XDG_CONFIG_HOME/io.veltoaudio/preferences.json (~/.config when unset).
// Values are strings, numbers or booleans.
//
// Every read looks at the file, so a value written by another process is seen at once.
// Every write is a read-modify-write under an exclusive lock on a lock file beside the
// store (two processes writing at once both keep their keys), and replaces the file
// atomically (temporary file, flush and fsync, rename), so a crash never leaves it
// half-written. A missing file reads as empty; an unreadable or corrupt one reads as empty
// too, with an error log, and is replaced by the next write. Nothing here throws: a failed
// write is logged at error and the value is lost, like an unsynchronised preference.
//
// Threads: every member may be called from any thread.
class UserDefaults {
public:
    // The process's standard store (created on first use).
    static std::shared_ptr<UserDefaults> standard();
    // A store kept in `file` (its folder is created when needed).
    static std::shared_ptr<UserDefaults> create(std::filesystem::path file);
    // Where the standard store lives.
    static std::filesystem::path standardFilePath();

    explicit UserDefaults(std::filesystem::path file);

    // The value under `key` when it has a string form: a string as is, a number as its
    // decimal text ("42", "1.5"). Absent for a missing key, a boolean or any other value.
    std::optional<std::string> stringForKey(const std::string& key);
    bool hasValueForKey(const std::string& key);

    void setString(const std::string& key, const std::string& value);
    void setNumber(const std::string& key, double value);
    void setInteger(const std::string& key, long long value);
    void setBool(const std::string& key, bool value);
    void removeObjectForKey(const std::string& key);

    const std::filesystem::path& filePath() const { return file_; }

private:
    template <class Modify>
    void update(const Modify& modify);

    const std::filesystem::path file_;
    // Threads of this process take turns before taking the file lock.
    std::mutex mutex_;
};

}  // namespace velto
