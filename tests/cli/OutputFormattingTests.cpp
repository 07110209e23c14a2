#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "ErrorMessages.hpp"
#include "EventJson.hpp"
#include "LevelMeter.hpp"
#include "LibraryLogFilter.hpp"
#include "veltoaudio/RecordingError.hpp"

namespace velto::cli {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;

TEST(EventJson, EachEventIsOneCompactObject) {
    // (Starting, started, progress, paused, resumed and finished: in the record command's runs.)
    EXPECT_EQ(jsonLine(eventJson(RecordingEvent::progress(1.2, AudioLevels{-23.14f, -6.0f}))),
              R"({"event":"progress","elapsed":1.2,"average":-23.1,"peak":-6.0})");
    EXPECT_EQ(jsonLine(eventJson(RecordingEvent::finished("/tmp/a \"b\".flac"))),
              R"({"event":"finished","file":"/tmp/a \"b\".flac"})");
    EXPECT_EQ(jsonLine(eventJson(RecordingEvent::cancelled("/tmp/c.wav"))),
              R"({"event":"cancelled","file":"/tmp/c.wav"})");
    EXPECT_EQ(jsonLine(eventJson(RecordingEvent::silence(RecordingEvent::Source::microphone, 12.5))),
              R"({"event":"silence","source":"microphone","since":12.5})");
    EXPECT_EQ(jsonLine(eventJson(RecordingEvent::signal(RecordingEvent::Source::systemAudio, 40.0))),
              R"({"event":"signal","source":"system","elapsed":40.0})");
}

TEST(EventJson, NumbersStayValidJson) {
    // A float level printed as a double would read -23.100000381469727; silence and
    // broken meters must not produce -inf or NaN, which JSON cannot carry.
    auto silent = eventJson(RecordingEvent::progress(0.1, AudioLevels::silence()));
    EXPECT_EQ(silent["average"].get<double>(), -160.0);
    auto broken = eventJson(RecordingEvent::progress(
        std::numeric_limits<double>::quiet_NaN(),
        AudioLevels{-std::numeric_limits<float>::infinity(), std::numeric_limits<float>::quiet_NaN()}));
    EXPECT_EQ(broken["elapsed"].get<double>(), 0.0);
    EXPECT_EQ(broken["average"].get<double>(), -160.0);
    EXPECT_EQ(broken["peak"].get<double>(), -160.0);
    EXPECT_EQ(eventJson(RecordingEvent::progress(1.23456, {}))["elapsed"].get<double>(), 1.235);
    EXPECT_EQ(roundedDecibels(std::numeric_limits<float>::infinity()), 0.0);
}

TEST(EventJson, FileNamesInAnotherEncodingDoNotThrow) {
    std::string latin1Name = "/tmp/caf\xe9.flac";
    std::string line;
    ASSERT_NO_THROW(line = jsonLine(eventJson(RecordingEvent::finished(latin1Name))));
    EXPECT_THAT(line, StartsWith(R"({"event":"finished","file":"/tmp/caf)"));
    EXPECT_TRUE(nlohmann::json::accept(line));
}

TEST(LevelMeter, LineShowsTimeLevelsPeakMarkAndClipping) {
    auto line = renderMeterLine(65.3, AudioLevels{-30.0f, -12.0f}, 10);
    EXPECT_EQ(line, "REC 00:01:05.3 [#####--|--] avg  -30.0 dB  peak  -12.0 dB");
    auto silent = renderMeterLine(1.0, AudioLevels::silence(), 10);
    EXPECT_EQ(silent, "REC 00:00:01.0 [----------] avg -160.0 dB  peak -160.0 dB");
    EXPECT_THAT(renderMeterLine(1.0, AudioLevels{-3.0f, 0.0f}, 10), HasSubstr("CLIP"));
    EXPECT_THAT(renderMeterLine(1.0, AudioLevels{-3.0f, -1.0f}, 10), Not(HasSubstr("CLIP")));
}

TEST(ErrorMessages, OneLineWithWhatWentWrongAndWhatToDo) {
    auto deviceLine = failureLine(std::make_exception_ptr(RecordingError::deviceNotFound()));
    EXPECT_EQ(deviceLine,
              "velto: The specified microphone device was not found. Run 'velto devices' to list the microphones.");
    // The one description without a final period still reads as a sentence.
    auto initLine = failureLine(std::make_exception_ptr(RecordingError::recorderInitializationFailed()));
    EXPECT_THAT(initLine, StartsWith("velto: Failed to initialize audio recorder. Check that a sound server"));
    EXPECT_EQ(initLine.find('\n'), std::string::npos);
    auto wrapped = RecordingError::fileSystemError(
        std::make_shared<PlatformError>("errno", 28, "No space left on device\n"));
    auto diskLine = failureLine(std::make_exception_ptr(wrapped));
    EXPECT_EQ(diskLine,
              "velto: File system error: No space left on device. Check that the output folder exists, is writable "
              "and has free space.");
    EXPECT_EQ(failureLine("a\nb"), "velto: a b.");
    // A file writer's failure, bare or wrapped, points at the disk rather than the sound server.
    auto fileAdvice = "Check that the output folder exists, is writable and has free space.";
    auto unwritable = std::make_exception_ptr(PlatformError("libsndfile", 2, "System error : No such file or directory"));
    EXPECT_EQ(adviceFor(unwritable), fileAdvice);
    EXPECT_EQ(adviceFor(std::make_exception_ptr(CapturedError(unwritable))), fileAdvice);
    EXPECT_EQ(adviceFor(std::make_exception_ptr(RecordingError::recordingFailed(captureError(unwritable)))),
              fileAdvice);
    EXPECT_THAT(adviceFor(std::make_exception_ptr(PlatformError("pulse", 6, "Connection refused"))),
                StartsWith("Check that a sound server"));
    EXPECT_THAT(failureLine(std::make_exception_ptr(std::runtime_error("boom"))), StartsWith("velto: boom. "));
}

TEST(LibraryLogFilter, QuietByDefaultWithoutHidingOtherComponentsErrors) {
    EXPECT_FALSE(showLibraryLogLine(0, LogLevel::info, "AudioMixer"));
    EXPECT_TRUE(showLibraryLogLine(0, LogLevel::error, "AudioMixer"));
    // Failure lines repeat what the command reports itself.
    EXPECT_FALSE(showLibraryLogLine(0, LogLevel::critical, "AudioMixer"));
    EXPECT_FALSE(showLibraryLogLine(0, LogLevel::error, "RecordingService"));
    EXPECT_TRUE(showLibraryLogLine(1, LogLevel::critical, "RecordingService"));
    EXPECT_TRUE(showLibraryLogLine(2, LogLevel::debug, "SystemAudioTap"));
}

}  // namespace
}  // namespace velto::cli
