// The preferences file and the microphone preference kept in it: values read back by a
// fresh store and by another process, corrupt files, an unwritable folder.

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

// Runs `body` in a child process: true when it returned true there.
template <class Body>
bool succeedsInAnotherProcess(Body body) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        bool succeeded = false;
        try {
            succeeded = body();
        } catch (...) {
        }
        ::_exit(succeeded ? 0 : 1);
    }
    int status = 0;
    return pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

class PreferenceStoreTest : public ::testing::Test {
protected:
    std::filesystem::path file() const { return folder.path() / "io.veltoaudio" / "preferences.json"; }
    std::shared_ptr<UserDefaults> freshStore() const { return UserDefaults::create(file()); }
    TemporaryDirectory folder;
};

TEST_F(PreferenceStoreTest, aFreshStoreAndAnotherProcessReadWhatWasWritten) {
    UserDefaultsMicrophoneStorage(file(), "selectedMicrophoneDeviceId").setSelectedMicrophoneId("from-parent");
    EXPECT_EQ(UserDefaultsMicrophoneStorage(file(), "selectedMicrophoneDeviceId").getSelectedMicrophoneId(),
              "from-parent");

    auto file = this->file();
    EXPECT_TRUE(succeedsInAnotherProcess([file] {
        return UserDefaults::create(file)->stringForKey("selectedMicrophoneDeviceId") == "from-parent";
    }));
    ASSERT_TRUE(succeedsInAnotherProcess([file] {
        UserDefaults::create(file)->setString("selectedMicrophoneDeviceId", "from-child");
        return true;
    }));
    EXPECT_EQ(freshStore()->stringForKey("selectedMicrophoneDeviceId"), "from-child");
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
