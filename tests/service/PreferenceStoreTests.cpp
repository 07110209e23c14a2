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
