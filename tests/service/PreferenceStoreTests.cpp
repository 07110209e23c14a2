// The preferences file and the microphone preference kept in it: values read back by a
// fresh store and by other processes, concurrent writers, corrupt files.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "support/CapturedLogs.hpp"
#include "support/RecorderTestSupport.hpp"
#include "service/UserDefaults.hpp"
#include "veltoaudio/UserDefaultsMicrophoneStorage.hpp"

namespace velto::testing {
namespace {


// Runs `body` in a child process, which exits with status 0 when it returns true.
template <class Body>
pid_t spawn(Body body) {
    pid_t pid = ::fork();
    if (pid == 0) {
        int status = 1;
        try {
            status = body() ? 0 : 1;
        } catch (...) {
        }
        ::_exit(status);
    }
    return pid;
}

bool succeeded(pid_t pid) {
    int status = 0;
    return pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

class PreferenceStoreTest : public ::testing::Test {
protected:
    std::filesystem::path file() const { return folder.path() / "io.veltoaudio" / "preferences.json"; }
    std::shared_ptr<UserDefaults> freshStore() const { return UserDefaults::create(file()); }
    TemporaryDirectory folder;
};

// MARK: - The microphone preference

// The empty string is a value apart from none; each key is its own; a number stored under
// the key reads as its text (a flag does not).
TEST_F(PreferenceStoreTest, storageKeepsTheEmptyStringAndEachKeyApart) {
    auto store = freshStore();
    UserDefaultsMicrophoneStorage first(file(), "first");
    UserDefaultsMicrophoneStorage second(file(), "second");
    first.setSelectedMicrophoneId(std::string());
    EXPECT_EQ(first.getSelectedMicrophoneId(), std::string());
    first.setSelectedMicrophoneId("a");
    EXPECT_FALSE(second.getSelectedMicrophoneId().has_value());
    second.setSelectedMicrophoneId("b");
    first.setSelectedMicrophoneId(std::nullopt);
    EXPECT_FALSE(first.getSelectedMicrophoneId().has_value());
    EXPECT_EQ(second.getSelectedMicrophoneId(), "b");

    store->setBool("first", true);
    EXPECT_FALSE(first.getSelectedMicrophoneId().has_value());
    store->setInteger("first", 42);
    EXPECT_EQ(first.getSelectedMicrophoneId(), "42");
    store->setNumber("first", 48000.0);
    EXPECT_EQ(first.getSelectedMicrophoneId(), "48000");
}

// MARK: - The file

TEST_F(PreferenceStoreTest, aFreshStoreAndAnotherProcessReadWhatWasWritten) {
    UserDefaultsMicrophoneStorage(file(), "selectedMicrophoneDeviceId").setSelectedMicrophoneId("from-parent");
    EXPECT_EQ(UserDefaultsMicrophoneStorage(file(), "selectedMicrophoneDeviceId").getSelectedMicrophoneId(),
              "from-parent");

    auto file = this->file();
    pid_t reader = spawn([file] {
        return UserDefaults::create(file)->stringForKey("selectedMicrophoneDeviceId") == "from-parent";
    });
    EXPECT_TRUE(succeeded(reader));

    pid_t writer = spawn([file] {
        UserDefaults::create(file)->setString("selectedMicrophoneDeviceId", "from-child");
        return true;
    });
    ASSERT_TRUE(succeeded(writer));
    EXPECT_EQ(freshStore()->stringForKey("selectedMicrophoneDeviceId"), "from-child");
}

TEST_F(PreferenceStoreTest, concurrentWritersInTwoProcessesKeepEveryKey) {
    constexpr int kKeysPerWriter = 40;
    auto file = this->file();
    auto writeKeys = [file](char prefix) {
        return [file, prefix] {
            auto store = UserDefaults::create(file);
            for (int i = 0; i < kKeysPerWriter; ++i) store->setInteger(std::string(1, prefix) + std::to_string(i), i);
            return true;
        };
    };
    pid_t first = spawn(writeKeys('a'));
    pid_t second = spawn(writeKeys('b'));
    ASSERT_TRUE(succeeded(first));
    ASSERT_TRUE(succeeded(second));

    auto store = freshStore();
    for (char prefix : {'a', 'b'})
        for (int i = 0; i < kKeysPerWriter; ++i)
            EXPECT_EQ(store->stringForKey(std::string(1, prefix) + std::to_string(i)), std::to_string(i));
    // Only the store and its lock file remain: no temporary file is left behind.
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(file.parent_path()))
        names.push_back(entry.path().filename().string());
    EXPECT_THAT(names, ::testing::UnorderedElementsAre("preferences.json", "preferences.json.lock"));
}

TEST_F(PreferenceStoreTest, aCorruptFileReadsAsEmptyAndIsReplacedByTheNextWrite) {
    std::filesystem::create_directories(file().parent_path());
    std::ofstream(file()) << "{\"selectedMicrophoneDeviceId\": \"half";
    CapturedLogs logs;
    auto store = freshStore();
    EXPECT_FALSE(store->stringForKey("selectedMicrophoneDeviceId").has_value());
    store->setString("selectedMicrophoneDeviceId", "recovered");
    EXPECT_EQ(freshStore()->stringForKey("selectedMicrophoneDeviceId"), "recovered");

    std::ofstream(file()) << "[1, 2, 3]";  // valid JSON, but not a store
    EXPECT_FALSE(store->stringForKey("selectedMicrophoneDeviceId").has_value());
}

TEST_F(PreferenceStoreTest, anUnwritableFolderIsLoggedNotThrown) {
    CapturedLogs logs;
    std::filesystem::create_directories(folder.path() / "blocked");
    std::ofstream(folder.path() / "blocked" / "io.veltoaudio") << "a file where the folder should be";
    auto store = UserDefaults::create(folder.path() / "blocked" / "io.veltoaudio" / "preferences.json");
    EXPECT_NO_THROW(store->setString("key", "value"));
    EXPECT_FALSE(store->stringForKey("key").has_value());
}

}  // namespace
}  // namespace velto::testing
