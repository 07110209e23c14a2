#include "ArgumentParser.hpp"

#include <cmath>
#include <cstdlib>
#include <map>
#include <sstream>

#include <CLI/CLI.hpp>

namespace velto::cli {

namespace {

const std::map<std::string, SourceChoice> kSourceNames{
    {"microphone", SourceChoice::microphone}, {"system", SourceChoice::system}, {"both", SourceChoice::both}};
const std::map<std::string, AudioFormat> kFormatNames{{"wav", AudioFormat::wav}, {"flac", AudioFormat::flac}};

// A duration must be a plain, finite, positive number of seconds: "nan", "inf" and
// "-3" are refused here rather than turning into a recording that never stops.
CLI::Validator positiveSeconds() {
    return CLI::Validator(
        [](std::string& text) -> std::string {
            const char* begin = text.c_str();
            char* end = nullptr;
            double seconds = std::strtod(begin, &end);
            if (end == begin || *end != '\0' || !std::isfinite(seconds)) {
                return "the duration must be a number of seconds, not '" + text + "'";
            }
            if (seconds <= 0) return "the duration must be more than 0 seconds, not " + text;
            return {};
        },
        "SECONDS>0");
}

// Captures the values while CLI11 parses; turned into an Invocation afterwards.
struct RawArguments {
    int verbosity = 0;
    std::string recordSources = "microphone";
    std::string recordFormat;
    std::string recordTracks = "mixed";
    double durationSeconds = 0;
    std::string outputPath;
    std::string microphoneId;
    bool recordJson = false;
    bool overwrite = false;
    std::string echoCancellation;
    bool devicesJson = false;
    std::string permissionSources = "microphone";
    bool permissionsJson = false;
    std::string preferredId;
    bool microphoneJson = false;
};

struct CommandLineApp {
    CLI::App app{"velto records the microphone, the system's audio, or both, to WAV or FLAC.", "velto"};
    RawArguments raw;
    CLI::App* record = nullptr;
    CLI::App* devices = nullptr;
    CLI::App* permissions = nullptr;
    CLI::App* microphone = nullptr;
    CLI::App* microphoneSet = nullptr;
    CLI::App* microphoneClear = nullptr;
    CLI::App* microphoneShow = nullptr;
    CLI::Option* formatOption = nullptr;
    CLI::Option* durationOption = nullptr;
    CLI::Option* outputOption = nullptr;
    CLI::Option* microphoneOption = nullptr;
    CLI::Option* echoOption = nullptr;

    CommandLineApp() {
        app.require_subcommand(1);
        // -v may stand anywhere, also after the command's own options.
        app.fallthrough();
        app.add_flag("-v,--verbose", raw.verbosity, "Show the library's log (-v: info, -vv: debug)");
        app.set_version_flag("--version", std::string("velto ") + VELTO_VERSION, "Show the version and exit");

        record = app.add_subcommand("record", "Record to a file until Ctrl-C or --duration");
        record->add_option("--sources", raw.recordSources, "What to record (default: microphone)")
            ->check(CLI::IsMember({"microphone", "system", "both"}));
        formatOption = record->add_option("--format", raw.recordFormat,
                                          "File format (default: the output's extension, else flac)")
                           ->check(CLI::IsMember({"wav", "flac"}));
        durationOption = record->add_option("--duration", raw.durationSeconds, "Stop after this many seconds")
                             ->check(positiveSeconds());
        outputOption = record->add_option("--output,-o", raw.outputPath,
                                          "File to write (default: a new file in the recordings folder)");
        microphoneOption = record->add_option("--microphone", raw.microphoneId,
                                              "Identifier of the microphone to use (see 'velto devices')");
        record->add_option("--tracks", raw.recordTracks,
                           "mixed: one track (default); separate: microphone and system audio as two channels "
                           "(needs --sources both)")
            ->check(CLI::IsMember({"mixed", "separate"}));
        echoOption = record->add_option("--echo-cancellation", raw.echoCancellation,
                                        "Remove the loudspeakers' echo from the microphone (default: on with "
                                        "--sources both)")
                         ->check(CLI::IsMember({"on", "off"}));
        record->add_flag("--json", raw.recordJson, "Print every event as one JSON object per line");
        record->add_flag("--overwrite", raw.overwrite, "Replace the output file when it exists");

        devices = app.add_subcommand("devices", "List the microphones");
        devices->add_flag("--json", raw.devicesJson, "Print the list as JSON");

        permissions = app.add_subcommand("permissions", "Show whether recording is permitted");
        permissions->add_option("--sources", raw.permissionSources, "Sources to check (default: microphone)")
            ->check(CLI::IsMember({"microphone", "system", "both"}));
        permissions->add_flag("--json", raw.permissionsJson, "Print the status as JSON");

        microphone = app.add_subcommand("microphone", "Manage the preferred microphone");
        microphone->require_subcommand(1);
        microphone->add_flag("--json", raw.microphoneJson, "Print the result as JSON");
        microphoneSet = microphone->add_subcommand("set", "Remember a microphone for later recordings");
        microphoneSet->add_option("ID", raw.preferredId, "The microphone's identifier (see 'velto devices')")
            ->required();
        microphoneClear = microphone->add_subcommand("clear", "Forget the preferred microphone");
        microphoneShow = microphone->add_subcommand("show", "Show the preferred and the current microphone");
    }

    // The most specific command the user got to, for the usage text after an error.
    CLI::App* deepestCommand() {
        CLI::App* current = &app;
        while (true) {
            auto chosen = current->get_subcommands();
            if (chosen.empty()) return current;
            current = chosen.front();
        }
    }

    Invocation invocation() const {
        Invocation result;
        result.verbosity = raw.verbosity;
        if (record->parsed()) {
            RecordOptions options;
            options.sources = kSourceNames.at(raw.recordSources);
            if (formatOption->count() > 0) options.format = kFormatNames.at(raw.recordFormat);
            if (durationOption->count() > 0) options.durationSeconds = raw.durationSeconds;
            if (outputOption->count() > 0) options.outputPath = std::filesystem::path(raw.outputPath);
            if (microphoneOption->count() > 0) options.microphoneId = raw.microphoneId;
            if (echoOption->count() > 0) options.echoCancellation = raw.echoCancellation == "on";
            options.json = raw.recordJson;
            options.overwrite = raw.overwrite;
            options.tracks = raw.recordTracks == "separate" ? TrackLayout::separate : TrackLayout::mixed;
            result.command = options;
        } else if (devices->parsed()) {
            result.command = DevicesOptions{raw.devicesJson};
        } else if (permissions->parsed()) {
            result.command = PermissionsOptions{kSourceNames.at(raw.permissionSources), raw.permissionsJson};
        } else {
            MicrophoneOptions options;
            options.json = raw.microphoneJson;
            if (microphoneSet->parsed()) {
                options.action = MicrophoneOptions::Action::set;
                options.deviceId = raw.preferredId;
            } else if (microphoneClear->parsed()) {
                options.action = MicrophoneOptions::Action::clear;
            } else {
                options.action = MicrophoneOptions::Action::show;
            }
            result.command = options;
        }
        return result;
    }
};

// Combinations CLI11 cannot express; an empty text means the options agree.
std::string contradiction(const RecordOptions& options) {
    if (options.microphoneId && options.sources == SourceChoice::system) {
        return "--microphone needs --sources microphone or both; system audio has no microphone";
    }
    if (options.tracks == TrackLayout::separate && options.sources != SourceChoice::both) {
        return "--tracks separate needs --sources both: one source makes one track";
    }
    if (options.echoCancellation.value_or(false) && options.sources != SourceChoice::both) {
        return "--echo-cancellation on needs --sources both: the echo is the system audio heard by the microphone";
    }
    if (options.format && options.outputPath) {
        auto implied = formatFromExtension(*options.outputPath);
        if (implied && *implied != *options.format) {
            return "--format " + fileExtension(*options.format) + " does not match the output file's extension " +
                   options.outputPath->extension().string();
        }
    }
    if (options.outputPath && options.outputPath->empty()) return "--output needs a file name";
    return {};
}

ParseOutcome usageError(CommandLineApp& cli, const std::string& message) {
    ParseOutcome outcome;
    outcome.exitCode = kUsageExitStatus;
    outcome.standardError = "velto: " + message + "\n" + cli.deepestCommand()->help();
    return outcome;
}

}  // namespace

ParseOutcome parseCommandLine(int argc, const char* const* argv) {
    CommandLineApp cli;
    // The program's own options take no values, so the first other word names the
    // command; CLI11 would only say that a command is missing.
    for (int i = 1; i < argc; ++i) {
        std::string word = argv[i];
        if (word.empty() || word.front() == '-') continue;
        if (word != "record" && word != "devices" && word != "permissions" && word != "microphone") {
            return usageError(cli, "unknown command '" + word +
                                       "'; the commands are record, devices, permissions and microphone");
        }
        break;
    }
    try {
        cli.app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            // --help: CLI11 prints the help of the command it was asked on.
            std::ostringstream out;
            std::ostringstream err;
            ParseOutcome outcome;
            outcome.exitCode = cli.app.exit(error, out, err);
            outcome.standardOutput = out.str();
            outcome.standardError = err.str();
            return outcome;
        }
        return usageError(cli, error.what());
    }
    Invocation invocation = cli.invocation();
    if (auto* record = std::get_if<RecordOptions>(&invocation.command)) {
        if (auto problem = contradiction(*record); !problem.empty()) return usageError(cli, problem);
    }
    ParseOutcome outcome;
    outcome.invocation = std::move(invocation);
    return outcome;
}

ParseOutcome parseCommandLine(const std::vector<std::string>& words) {
    std::vector<const char*> argv;
    argv.reserve(words.size() + 1);
    for (const auto& word : words) argv.push_back(word.c_str());
    argv.push_back(nullptr);
    return parseCommandLine(static_cast<int>(words.size()), argv.data());
}

}  // namespace velto::cli
