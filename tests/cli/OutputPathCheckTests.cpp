#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "OutputPathCheck.hpp"
#include "support/RecorderTestSupport.hpp"

namespace velto::cli {
namespace {

namespace fs = std::filesystem;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class OutputPathCheck : public ::testing::Test {
protected:
    velto::testing::TemporaryDirectory directory_;
    const fs::path folder_ = directory_.path();
};

TEST_F(OutputPathCheck, AcceptsANewFileAndRefusesWhatCannotBecomeARecording) {
    EXPECT_THAT(outputPathProblem(folder_ / "take.flac", false), IsEmpty());
    EXPECT_THAT(outputPathProblem(folder_, false), HasSubstr("is a directory"));
    EXPECT_THAT(outputPathProblem(folder_ / "missing" / "take.flac", false), HasSubstr("does not exist"));
    EXPECT_THAT(outputPathProblem("", false), HasSubstr("empty"));
    EXPECT_THAT(outputPathProblem("/dev/null", true), HasSubstr("not a regular file"));
    std::ofstream(folder_ / "plain-file") << "x";
    EXPECT_THAT(outputPathProblem(folder_ / "plain-file" / "take.flac", false), HasSubstr("is not a folder"));
    // Nothing the check looked at was created by it: the folder holds the plain file alone.
    EXPECT_EQ(std::distance(fs::directory_iterator(folder_), fs::directory_iterator()), 1);
}

TEST_F(OutputPathCheck, AnExistingRecordingIsKeptUnlessOverwriteIsGiven) {
    auto existing = folder_ / "take.flac";
    std::ofstream(existing) << "an earlier recording";
    EXPECT_THAT(outputPathProblem(existing, false), HasSubstr("--overwrite"));
    EXPECT_THAT(outputPathProblem(existing, true), IsEmpty());
    EXPECT_EQ(fs::file_size(existing), 20u);
}

TEST_F(OutputPathCheck, ReadOnlyFolderIsRefusedUnlessWeAreAllowedAnyway) {
    fs::permissions(folder_, fs::perms::owner_read | fs::perms::owner_exec);
    auto problem = outputPathProblem(folder_ / "take.flac", false);
    if (::geteuid() == 0) {
        // Root writes anywhere on a writable file system; the check must not be stricter.
        EXPECT_THAT(problem, IsEmpty());
    } else {
        EXPECT_THAT(problem, HasSubstr("cannot write to the folder"));
    }
}

}  // namespace
}  // namespace velto::cli
