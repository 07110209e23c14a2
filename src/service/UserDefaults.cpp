#include "service/UserDefaults.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <system_error>
#include <vector>

#include "logging/LoggerCompat.hpp"
#include "logging/NumberFormat.hpp"
#include "platform/HomeDirectory.hpp"

namespace velto {

namespace {

using Json = nlohmann::json;

LoggerCompat& logger() {
    static LoggerCompat l{kLogSubsystem, "UserDefaults"};
    return l;
}

[[noreturn]] void throwErrno(const std::string& what) { throw std::system_error(errno, std::generic_category(), what); }

// An exclusive lock on a file beside the store, held for one read-modify-write, so that
// writers in different processes (and threads) take turns.
class StoreLock {
public:
    explicit StoreLock(const std::filesystem::path& lockFile) {
        fd_ = ::open(lockFile.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
        if (fd_ < 0) throwErrno("cannot open " + lockFile.string());
        while (::flock(fd_, LOCK_EX) != 0) {
            if (errno != EINTR) {
                ::close(fd_);
                throwErrno("cannot lock " + lockFile.string());
            }
        }
    }
    ~StoreLock() {
        ::flock(fd_, LOCK_UN);
        ::close(fd_);
    }
    StoreLock(const StoreLock&) = delete;
    StoreLock& operator=(const StoreLock&) = delete;

private:
    int fd_ = -1;
};

// Missing: empty. Unreadable or not one JSON object: empty too, with an error log; the
// next write replaces it.
Json readStore(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::error_code ignored;
        if (std::filesystem::exists(file, ignored)) logger().error("Cannot read preferences file " + file.string());
        return Json::object();
    }
    std::stringstream text;
    text << in.rdbuf();
    Json store = Json::parse(text.str(), nullptr, /*allow_exceptions=*/false);
    if (store.is_discarded() || !store.is_object()) {
        logger().error("Preferences file " + file.string() + " is corrupt; treating it as empty");
        return Json::object();
    }
    return store;
}

void writeAll(int fd, const std::string& bytes, const std::filesystem::path& file) {
    std::size_t written = 0;
    while (written < bytes.size()) {
        ssize_t n = ::write(fd, bytes.data() + written, bytes.size() - written);
        if (n < 0) {
            if (errno == EINTR) continue;
            throwErrno("cannot write " + file.string());
        }
        written += static_cast<std::size_t>(n);
    }
}

// Temporary file, flushed to disk, then renamed over the store: a reader (or a crash)
// sees the old file or the new one, never a part.
void writeStoreAtomically(const std::filesystem::path& file, const Json& store) {
    static std::atomic<unsigned> counter{0};
    const auto temporary = std::filesystem::path(file.string() + ".tmp-" + std::to_string(::getpid()) + "-" +
                                                 std::to_string(counter.fetch_add(1)));
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) throwErrno("cannot create " + temporary.string());
    try {
        writeAll(fd, store.dump(2) + "\n", temporary);
        if (::fsync(fd) != 0) throwErrno("cannot flush " + temporary.string());
    } catch (...) {
        ::close(fd);
        ::unlink(temporary.c_str());
        throw;
    }
    ::close(fd);
    if (::rename(temporary.c_str(), file.c_str()) != 0) {
        int saved = errno;
        ::unlink(temporary.c_str());
        errno = saved;
        throwErrno("cannot replace " + file.string());
    }
    // The rename itself is durable only once the folder is flushed.
    int directory = ::open(file.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory >= 0) {
        ::fsync(directory);
        ::close(directory);
    }
}

// A number as its decimal text, the way a preferences store hands one out as a string:
// integers without a fraction ("42"), other values in their shortest form ("1.5").
std::string numberText(const Json& value) {
    if (value.is_number_integer()) return value.dump();
    double number = value.get<double>();
    if (std::isfinite(number) && std::trunc(number) == number && std::fabs(number) < 1e15)
        return std::to_string(static_cast<long long>(number));
    return formatDouble(number);
}

}  // namespace

std::filesystem::path UserDefaults::standardFilePath() {
    // The XDG base-directory rule: a relative XDG_CONFIG_HOME is ignored.
    std::filesystem::path base;
    if (const char* config = std::getenv("XDG_CONFIG_HOME"); config != nullptr && config[0] == '/') {
        base = config;
    } else {
        base = platform::homeDirectory().value_or(std::filesystem::temp_directory_path()) / ".config";
    }
    return base / kIdentifierPrefix / "preferences.json";
}

std::shared_ptr<UserDefaults> UserDefaults::standard() {
    static const std::shared_ptr<UserDefaults> store = create(standardFilePath());
    return store;
}

std::shared_ptr<UserDefaults> UserDefaults::create(std::filesystem::path file) {
    return std::make_shared<UserDefaults>(std::move(file));
}

UserDefaults::UserDefaults(std::filesystem::path file) : file_(std::move(file)) {}

std::optional<std::string> UserDefaults::stringForKey(const std::string& key) {
    std::lock_guard lock(mutex_);
    const Json store = readStore(file_);
    auto found = store.find(key);
    if (found == store.end()) return std::nullopt;
    if (found->is_string()) return found->get<std::string>();
    if (found->is_number()) return numberText(*found);
    return std::nullopt;
}

bool UserDefaults::hasValueForKey(const std::string& key) {
    std::lock_guard lock(mutex_);
    return readStore(file_).contains(key);
}

template <class Modify>
void UserDefaults::update(const Modify& modify) {
    std::lock_guard lock(mutex_);
    try {
        std::filesystem::create_directories(file_.parent_path());
        StoreLock storeLock(std::filesystem::path(file_.string() + ".lock"));
        Json store = readStore(file_);
        modify(store);
        writeStoreAtomically(file_, store);
    } catch (const std::exception& failure) {
        logger().error("Failed to write preferences file " + file_.string() + ": " + failure.what());
    }
}

void UserDefaults::setString(const std::string& key, const std::string& value) {
    update([&](Json& store) { store[key] = value; });
}

void UserDefaults::setNumber(const std::string& key, double value) {
    // JSON has no text for NaN or infinities; such a value would read back as null.
    update([&](Json& store) { store[key] = value; });
}

void UserDefaults::setInteger(const std::string& key, long long value) {
    update([&](Json& store) { store[key] = value; });
}

void UserDefaults::setBool(const std::string& key, bool value) {
    update([&](Json& store) { store[key] = value; });
}

void UserDefaults::removeObjectForKey(const std::string& key) {
    update([&](Json& store) { store.erase(key); });
}

}  // namespace velto
