#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <fstream>

#include "support/RecorderTestSupport.hpp"
#include "support/CapturedLogs.hpp"
#include "unified_recorder/RecordingFileLocation.hpp"

namespace velto {
namespace {

using velto::testing::CapturedLogs;

class RecordingFileLocationTest : public ::testing::Test {
protected:
    CapturedLogs logs;
    velto::testing::TemporaryDirectory support;
    // 2025-03-03 14:05:09 in the local time zone.
    const std::chrono::system_clock::time_point when = [] {
        std::tm parts{};
        parts.tm_year = 2025 - 1900, parts.tm_mon = 3 - 1, parts.tm_mday = 3;
        parts.tm_hour = 14, parts.tm_min = 5, parts.tm_sec = 9, parts.tm_isdst = -1;
        return std::chrono::system_clock::from_time_t(std::mktime(&parts));
    }();
};

// A private directory; a failure to create it still gives the location (the recorder then
// reports the file it cannot open).
TEST_F(RecordingFileLocationTest, CreatesAPrivateRecordingsDirectory) {
    const auto base = support.path() / "app-data";
    const auto directory = recordingsDirectory(base);
    EXPECT_EQ(directory, base / "Recordings");
    ASSERT_TRUE(std::filesystem::is_directory(directory));
    EXPECT_EQ(velto::testing::permissionsOf(directory), 0700u);
    EXPECT_EQ(recordingsDirectory(base), directory);
    const auto blocker = support.path() / "not-a-directory";
    { std::ofstream(blocker) << "x"; }
    EXPECT_EQ(recordingsDirectory(blocker), blocker / "Recordings");
}

TEST_F(RecordingFileLocationTest, NamesFilesByLocalTimeAndFormatWithTheNextFreeSuffixWithinASecond) {
    const auto first = generateRecordingFileURL(AudioFormat::wav, when, support.path());
    EXPECT_EQ(first, support.path() / "Recordings" / "Recording-2025-03-03-14-05-09.wav");
    EXPECT_FALSE(std::filesystem::exists(first));  // only a name: the recorder creates the file

    { std::ofstream(first) << "taken"; }
    const auto second = generateRecordingFileURL(AudioFormat::wav, when, support.path());
    EXPECT_EQ(second.filename(), "Recording-2025-03-03-14-05-09-2.wav");
    { std::ofstream(second) << "taken"; }
    EXPECT_EQ(generateRecordingFileURL(AudioFormat::wav, when, support.path()).filename(),
              "Recording-2025-03-03-14-05-09-3.wav");
    // Another format does not collide with the taken WAV names.
    EXPECT_EQ(generateRecordingFileURL(AudioFormat::flac, when, support.path()).filename(),
              "Recording-2025-03-03-14-05-09.flac");
}

TEST_F(RecordingFileLocationTest, TheApplicationDataDirectoryFollowsXdgDataHome) {
    const char* saved = std::getenv("XDG_DATA_HOME");
    const std::optional<std::string> previous = saved ? std::optional<std::string>(saved) : std::nullopt;
    ::setenv("XDG_DATA_HOME", support.path().c_str(), 1);
    EXPECT_EQ(applicationSupportDirectory(), support.path());
    EXPECT_EQ(generateRecordingFileURL(AudioFormat::wav).parent_path(), support.path() / "Recordings");
    ::setenv("XDG_DATA_HOME", "relative/path", 1);  // not absolute: ignored
    EXPECT_EQ(applicationSupportDirectory().filename(), "share");
    previous ? ::setenv("XDG_DATA_HOME", previous->c_str(), 1) : ::unsetenv("XDG_DATA_HOME");
}

}  // namespace
}  // namespace velto
