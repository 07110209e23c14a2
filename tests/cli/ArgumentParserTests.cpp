#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ArgumentParser.hpp"

namespace velto::cli {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

ParseOutcome parse(std::vector<std::string> words) {
    words.insert(words.begin(), "velto");
    return parseCommandLine(words);
}

RecordOptions recordOptions(std::vector<std::string> words) {
    auto outcome = parse(std::move(words));
    EXPECT_TRUE(outcome.invocation) << outcome.standardError;
    if (!outcome.invocation) return {};
    return std::get<RecordOptions>(outcome.invocation->command);
}

TEST(ArgumentParser, PlainRecordTakesTheLibraryDefaults) {
    auto options = recordOptions({"record"});
    EXPECT_EQ(options.sources, SourceChoice::microphone);
    EXPECT_EQ(effectiveFormat(options), AudioFormat::flac);
    EXPECT_FALSE(options.durationSeconds || options.outputPath || options.microphoneId || options.echoCancellation ||
                 options.json || options.overwrite);
}

TEST(ArgumentParser, EveryRecordOptionArrives) {
    auto outcome = parse({"-v", "record", "--sources", "both", "--format", "wav", "--duration", "2.5", "--output",
                          "/tmp/take.wav", "--microphone", "mic-1", "--echo-cancellation", "off", "--json", "--overwrite",
                          "-v"});
    ASSERT_TRUE(outcome.invocation) << outcome.standardError;
    // -v counts wherever it stands, also after the command's own options.
    EXPECT_EQ(outcome.invocation->verbosity, 2);
    auto options = std::get<RecordOptions>(outcome.invocation->command);
    EXPECT_EQ(options.sources, SourceChoice::both);
    EXPECT_EQ(options.format, AudioFormat::wav);
    EXPECT_EQ(options.durationSeconds, 2.5);
    EXPECT_EQ(options.outputPath, std::filesystem::path("/tmp/take.wav"));
    EXPECT_EQ(options.microphoneId, "mic-1");
    EXPECT_EQ(options.echoCancellation, false);
    EXPECT_TRUE(options.json);
    EXPECT_TRUE(options.overwrite);
}

TEST(ArgumentParser, FormatFollowsTheOutputExtensionUnlessGiven) {
    EXPECT_EQ(effectiveFormat(recordOptions({"record", "-o", "take.WAV"})), AudioFormat::wav);
    EXPECT_EQ(effectiveFormat(recordOptions({"record", "-o", "take.flac"})), AudioFormat::flac);
    EXPECT_EQ(effectiveFormat(recordOptions({"record", "-o", "take.ogg"})), AudioFormat::flac);
    EXPECT_EQ(effectiveFormat(recordOptions({"record", "-o", "take", "--format", "wav"})), AudioFormat::wav);
}

TEST(ArgumentParser, BadCommandLinesExitWithUsageNamingTheProblem) {
    struct Case {
        std::vector<std::string> words;
        std::string mentions;
    };
    std::vector<Case> cases = {
        {{}, "Usage"},
        {{"record", "--frobnicate"}, "--frobnicate"},
        {{"record", "--sources", "speakers"}, "speakers"},
        {{"record", "--format", "mp3"}, "mp3"},
        {{"record", "--duration"}, "--duration"},
        {{"record", "extra-word"}, "extra-word"},
        {{"microphone"}, "Usage"},
        {{"microphone", "set"}, "Usage"},
        {{"permissions", "--sources", "nothing"}, "nothing"},
        {{"dance"}, "velto: unknown command 'dance'"},
        {{"-v", "teleport", "--duration", "1"}, "velto: unknown command 'teleport'"},
        // A FLAC stream in a file named .wav would mislead every player.
        {{"record", "--format", "flac", "--output", "take.wav"}, "Usage"},
        // System audio has no microphone to choose.
        {{"record", "--sources", "system", "--microphone", "mic-1"}, "Usage"},
        // One source makes one track.
        {{"record", "--tracks", "separate"}, "--sources both"},
        {{"record", "--tracks", "stereo", "--sources", "both"}, "stereo"},
        {{"record", "--echo-cancellation", "maybe"}, "maybe"},
        // The echo is the system audio in the microphone: both are needed.
        {{"record", "--echo-cancellation", "on"}, "--sources both"},
    };
    // A duration must be a finite positive number.
    for (const char* duration : {"0", "-1", "-0.0", "abc", "5s", "nan", "inf", "-inf", "1e999", ""}) {
        cases.push_back({{"record", "--duration", duration}, "duration"});
    }
    for (const auto& c : cases) {
        std::string line;
        for (const auto& word : c.words) line += word + " ";
        SCOPED_TRACE(line);
        auto outcome = parse(c.words);
        EXPECT_FALSE(outcome.invocation);
        EXPECT_EQ(outcome.exitCode, kUsageExitStatus);
        EXPECT_THAT(outcome.standardError, StartsWith("velto: "));
        EXPECT_THAT(outcome.standardError, HasSubstr("Usage"));
        EXPECT_THAT(outcome.standardError, HasSubstr(c.mentions));
        EXPECT_THAT(outcome.standardOutput, IsEmpty());
    }
    EXPECT_EQ(recordOptions({"record", "--duration", "0.25"}).durationSeconds, 0.25);
    EXPECT_EQ(recordOptions({"record", "--duration", "1e3"}).durationSeconds, 1000.0);
}

TEST(ArgumentParser, OtherCommands) {
    auto permissions = parse({"permissions", "--sources", "both"});
    ASSERT_TRUE(permissions.invocation);
    EXPECT_EQ(std::get<PermissionsOptions>(permissions.invocation->command).sources, SourceChoice::both);

    auto set = parse({"microphone", "set", "velto_mic"});
    ASSERT_TRUE(set.invocation);
    auto setOptions = std::get<MicrophoneOptions>(set.invocation->command);
    EXPECT_EQ(setOptions.action, MicrophoneOptions::Action::set);
    EXPECT_EQ(setOptions.deviceId, "velto_mic");

    // --json belongs to "microphone" but may follow its action.
    auto show = parse({"microphone", "show", "--json"});
    ASSERT_TRUE(show.invocation) << show.standardError;
    EXPECT_TRUE(std::get<MicrophoneOptions>(show.invocation->command).json);
}

}  // namespace
}  // namespace velto::cli
