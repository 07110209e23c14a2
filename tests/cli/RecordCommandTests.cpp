#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <sstream>
#include <thread>

#include "RecordCommand.hpp"
#include "ScriptedBackend.hpp"
#include "support/RecorderTestSupport.hpp"
#include "veltoaudio/RecordingError.hpp"

namespace velto::cli {
namespace {

namespace fs = std::filesystem;
using testing::ScriptedBackend;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

class RecordCommandTest : public ::testing::Test {
protected:
    int run(RecordOptions options, bool meter = false, RecordEnvironment environment = {},
            ScriptedBackend* backend = nullptr) {
        Console console(out_, err_, meter);
        RecordCommand command(std::move(options), backend ? *backend : backend_, console, std::move(environment));
        for (int i = 0; i < interruptionsBeforeRun_; ++i) command.interrupt();
        return command.run();
    }

    ScriptedBackend backend_;
    std::ostringstream out_;
    std::ostringstream err_;
    int interruptionsBeforeRun_ = 0;
    velto::testing::TemporaryDirectory directory_;
    const fs::path folder_ = directory_.path();
};

// The meter line is wiped before the path, the only line on standard output.
// The duration goes to the library, which ends the recording on the very frame.
TEST_F(RecordCommandTest, DurationEndsTheRecordingAndThePathIsTheLastLine) {
    backend_.progressEvents = 5;
    RecordOptions options;
    options.durationSeconds = 0.3;
    EXPECT_EQ(run(options, true), 0);
    EXPECT_EQ(backend_.stopCalls, 0);
    EXPECT_EQ(backend_.cancelCalls, 0);
    EXPECT_EQ(out_.str(), backend_.defaultFile.string() + "\n");
    const auto err = err_.str();
    EXPECT_THAT(err, StartsWith("velto: recording the microphone to the recordings folder for 0.3 s; Ctrl-C stops earlier"));
    EXPECT_THAT(err, HasSubstr("\r\033[KREC 00:00:00.3 ["));
    EXPECT_THAT(err, EndsWith("\r\033[K"));
    EXPECT_FALSE(backend_.requestedOutput);
    ASSERT_TRUE(backend_.startedConfiguration);
    EXPECT_EQ(backend_.startedConfiguration->audioFormat, AudioFormat::flac);
    EXPECT_EQ(backend_.startedConfiguration->sources.kind(), AudioSources::Kind::microphoneOnly);
    EXPECT_FALSE(backend_.startedConfiguration->preferredMicrophone);
    EXPECT_EQ(backend_.startedConfiguration->maximumDurationSeconds, 0.3);
}

TEST_F(RecordCommandTest, JsonModePrintsEveryEventWithFinishedLast) {
    backend_.progressEvents = 2;
    RecordOptions options;
    options.json = true;
    options.durationSeconds = 0.2;
    EXPECT_EQ(run(options), 0);
    EXPECT_THAT(linesOf(out_.str()),
                ElementsAre(R"({"event":"starting"})", R"({"event":"started"})",
                            R"({"event":"progress","elapsed":0.1,"average":-20.0,"peak":-6.0})",
                            R"({"event":"progress","elapsed":0.2,"average":-20.0,"peak":-6.0})",
                            R"({"event":"finished","file":")" + backend_.defaultFile.string() + R"("})"));
}

// The second Ctrl-C cancels and says where the audio is; the third leaves at once.
TEST_F(RecordCommandTest, FurtherInterruptionsCancelThenAbandon) {
    interruptionsBeforeRun_ = 2;
    EXPECT_EQ(run(RecordOptions{}), kCancelledExitStatus);
    EXPECT_EQ(backend_.cancelCalls, 1);
    EXPECT_EQ(backend_.stopCalls, 0);
    EXPECT_THAT(out_.str(), IsEmpty());
    EXPECT_EQ(err_.str(), "velto: recording cancelled; what was recorded is kept in '" +
                              backend_.defaultFile.string() + "'\n");

    err_.str("");
    interruptionsBeforeRun_ = 3;
    std::atomic<int> abandoned{0};
    RecordEnvironment environment;
    environment.abandon = [&] { ++abandoned; };
    ScriptedBackend another;
    EXPECT_EQ(run(RecordOptions{}, false, environment, &another), kCancelledExitStatus);
    EXPECT_EQ(abandoned, 1);
    EXPECT_THAT(err_.str(), StartsWith("velto: interrupted again; exiting without waiting"));
}

TEST_F(RecordCommandTest, ErrorAfterFinishedGivesThePathAndTheError) {
    // The disk filled up while the file was being completed.
    backend_.errorAfterEnd = std::make_exception_ptr(
        RecordingError::fileSystemError(std::make_shared<PlatformError>("errno", 28, "No space left on device")));
    interruptionsBeforeRun_ = 1;
    EXPECT_EQ(run(RecordOptions{}), 1);
    EXPECT_EQ(out_.str(), backend_.defaultFile.string() + "\n");
    EXPECT_THAT(linesOf(err_.str()), ElementsAre(StartsWith("velto: File system error: No space left on device.")));

    // In JSON mode the error follows the finished event, naming the file.
    out_.str("");
    err_.str("");
    ScriptedBackend jsonBackend;
    jsonBackend.errorAfterEnd = backend_.errorAfterEnd;
    RecordOptions options;
    options.json = true;
    EXPECT_EQ(run(options, false, {}, &jsonBackend), 1);
    auto lines = linesOf(out_.str());
    ASSERT_GE(lines.size(), 2u);
    EXPECT_THAT(lines[lines.size() - 2], StartsWith(R"({"event":"finished")"));
    EXPECT_EQ(lines.back(), R"({"event":"error","message":"File system error: No space left on device","file":")" +
                                jsonBackend.defaultFile.string() + R"("})");
    EXPECT_EQ(linesOf(err_.str()).size(), 1u);
}

TEST_F(RecordCommandTest, FailedStartLeavesNoFileBehind) {
    backend_.startError = std::make_exception_ptr(RecordingError::permissionDenied());
    backend_.createsFileBeforeFailing = true;
    RecordOptions options;
    options.outputPath = folder_ / "take.flac";
    EXPECT_EQ(run(options), 1);
    EXPECT_FALSE(fs::exists(folder_ / "take.flac"));
    EXPECT_THAT(linesOf(err_.str()),
                ElementsAre("velto: Microphone permission is required to record audio. Run 'velto permissions "
                            "--sources both' to see what is missing."));
    EXPECT_THAT(out_.str(), IsEmpty());

    // A file the user had before (replaced with --overwrite) is not the start's to remove.
    std::ofstream(folder_ / "take.flac") << "earlier";
    options.overwrite = true;
    EXPECT_EQ(run(options), 1);
    EXPECT_TRUE(fs::exists(folder_ / "take.flac"));
}

TEST_F(RecordCommandTest, MicrophoneOutputAndFormatReachTheService) {
    backend_.devices = {{"usb-mic", "USB", false}, {"velto_mic", "Velto", true}};
    interruptionsBeforeRun_ = 1;
    RecordOptions options;
    options.sources = SourceChoice::both;
    options.microphoneId = "usb-mic";
    auto previous = fs::current_path();
    fs::current_path(folder_);
    options.outputPath = "sub/../take.WAV";
    fs::create_directories(folder_ / "sub");
    int status = run(options);
    fs::current_path(previous);
    EXPECT_EQ(status, 0);
    ASSERT_TRUE(backend_.startedConfiguration);
    EXPECT_EQ(backend_.startedConfiguration->preferredMicrophone, (MicrophoneDevice{"usb-mic", "USB", false}));
    EXPECT_EQ(backend_.startedConfiguration->sources.kind(), AudioSources::Kind::both);
    EXPECT_EQ(backend_.startedConfiguration->audioFormat, AudioFormat::wav);
    // The service gets, and the user sees, one absolute path.
    EXPECT_EQ(backend_.requestedOutput, folder_ / "take.WAV");
    EXPECT_EQ(out_.str(), (folder_ / "take.WAV").string() + "\n");
}

TEST_F(RecordCommandTest, UserMistakesEndBeforeAnythingStarts) {
    backend_.devices = {{"velto_mic", "Velto", true}};
    RecordOptions unknownMicrophone;
    unknownMicrophone.microphoneId = "no-such-mic";
    EXPECT_EQ(run(unknownMicrophone), 1);
    EXPECT_THAT(linesOf(err_.str()),
                ElementsAre("velto: no microphone has the identifier 'no-such-mic'. Run 'velto devices' to list "
                            "the microphones."));

    // The output path is checked too, and in JSON mode the complaint is an event.
    err_.str("");
    RecordOptions json;
    json.json = true;
    json.outputPath = folder_ / "missing" / "take.flac";
    EXPECT_EQ(run(json), 1);
    EXPECT_THAT(out_.str(), StartsWith(R"({"event":"error","message":"the folder)"));
    EXPECT_FALSE(backend_.startedConfiguration);
}

TEST_F(RecordCommandTest, RecordingWithoutAnyProgressIsAbandonedAsFailed) {
    backend_.progressEvents = 0;
    std::atomic<double> now{0};
    RecordEnvironment environment;
    environment.pollInterval = std::chrono::milliseconds(1);
    environment.durationGraceSeconds = 2;
    // Each look at the clock is one second later: the grace runs out after a few polls.
    environment.monotonicSeconds = [&] { return now = now + 1.0; };
    RecordOptions options;
    options.durationSeconds = 1;
    EXPECT_EQ(run(options, false, environment), 1);
    EXPECT_EQ(backend_.cancelCalls, 1);
    EXPECT_EQ(backend_.stopCalls, 0);
    EXPECT_THAT(linesOf(err_.str()), ElementsAre(StartsWith("velto: no audio arrived from the sound server")));
}

// A stop before any audio leaves an empty file, which goes; a stream that ends without its
// file is a failure too. Either way no path is printed.
TEST_F(RecordCommandTest, RecordingsThatEndWithoutAudioFail) {
    RecordOptions options;
    options.outputPath = folder_ / "take.flac";
    std::ofstream(*options.outputPath).close();  // what the writer leaves when no block arrived
    options.overwrite = true;
    interruptionsBeforeRun_ = 1;
    EXPECT_EQ(run(options), 1);
    EXPECT_FALSE(fs::exists(folder_ / "take.flac"));
    EXPECT_THAT(linesOf(err_.str()), ElementsAre(StartsWith("velto: the recording was stopped before any audio")));

    err_.str("");
    ScriptedBackend withoutFile;
    withoutFile.endsWithoutFileEvent = true;
    EXPECT_EQ(run(RecordOptions{}, false, {}, &withoutFile), 1);
    EXPECT_THAT(out_.str(), IsEmpty());
    EXPECT_THAT(linesOf(err_.str()), ElementsAre(StartsWith("velto: the recording ended before its file")));
}

// Space, Enter or SIGUSR1 end up here: the first toggle once the recording runs pauses it,
// the next resumes it; the events say so with the recorded time.
TEST_F(RecordCommandTest, TogglingPausesAndResumesOnceTheRecordingRuns) {
    backend_.progressEvents = 3;
    RecordOptions options;
    options.json = true;
    Console console(out_, err_, false);
    RecordCommand command(options, backend_, console);
    command.togglePause();  // before the start: nothing to pause
    std::thread presser([&] {
        while (backend_.pauseCalls == 0) {
            command.togglePause();  // ignored until the first progress
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        command.togglePause();
        command.interrupt();
        command.togglePause();  // being stopped: not paused again
    });
    EXPECT_EQ(command.run(), 0);
    presser.join();
    EXPECT_EQ(backend_.pauseCalls, 1);
    EXPECT_EQ(backend_.resumeCalls, 1);
    const auto lines = linesOf(out_.str());
    const auto paused = std::find(lines.begin(), lines.end(), R"({"event":"paused","elapsed":0.3})");
    ASSERT_NE(paused, lines.end());
    ASSERT_NE(std::next(paused), lines.end());
    EXPECT_EQ(*std::next(paused), R"({"event":"resumed","elapsed":0.3})");
}

TEST_F(RecordCommandTest, MeterLineShowsThePauseAndASilentSource) {
    backend_.progressEvents = 3;
    backend_.laterEvents = {RecordingEvent::silence(RecordingEvent::Source::microphone, 0.1),
                            RecordingEvent::paused(0.3)};
    RecordOptions options;
    options.durationSeconds = 0.3;
    RecordEnvironment environment;
    environment.keysTogglePause = true;
    EXPECT_EQ(run(options, true, environment), 0);  // the duration stops it
    const auto err = err_.str();
    EXPECT_THAT(err, HasSubstr("; space or Enter pauses"));
    EXPECT_THAT(err, HasSubstr("  no signal from the microphone since 00:00:00.1"));
    EXPECT_THAT(err, HasSubstr("\r\033[KPAUSED 00:00:00.3  (space or Enter resumes)"));
}

}  // namespace
}  // namespace velto::cli
