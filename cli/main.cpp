// velto: records the microphone, the system's audio, or both, from the command line.

#include <unistd.h>

#include <csignal>
#include <iostream>
#include <memory>
#include <string>

#include "ArgumentParser.hpp"
#include "Console.hpp"
#include "DeviceCommands.hpp"
#include "ErrorMessages.hpp"
#include "LibraryLogFilter.hpp"
#include "RecordCommand.hpp"
#include "ServiceBackend.hpp"
#include "SignalWatcher.hpp"
#include "TerminalKeys.hpp"
#include "veltoaudio/Logging.hpp"

namespace {

using namespace velto;
using namespace velto::cli;

template <class... Handlers>
struct Overloaded : Handlers... {
    using Handlers::operator()...;
};
template <class... Handlers>
Overloaded(Handlers...) -> Overloaded<Handlers...>;

int record(const RecordOptions& options, RecordingBackend& backend, Console& console) {
    std::unique_ptr<TerminalKeys> keys;
    RecordEnvironment environment;
    environment.keysTogglePause = TerminalKeys::usable(STDIN_FILENO);
    // The third Ctrl-C ends the process at once: the terminal gets its modes back first.
    environment.abandon = [&keys] {
        if (keys) keys->restore();
        ::_exit(kCancelledExitStatus);
    };
    RecordCommand command(options, backend, console, environment);
    // Ctrl-C and SIGTERM reach the command on the watcher's thread; the main thread
    // keeps reading events so the file's completion is seen before the program exits.
    // A closed terminal (SIGHUP) also stops cleanly rather than leaving the file unfinished.
    // SIGUSR1 pauses and resumes, for scripts.
    SignalWatcher watcher(
        [&command](int signalNumber) {
            if (signalNumber == SIGUSR1) {
                command.togglePause();
            } else {
                command.interrupt();
            }
        },
        {SIGINT, SIGTERM, SIGHUP, SIGUSR1});
    // Space or Enter pause and resume, as arecord -i does.
    if (environment.keysTogglePause) {
        keys = std::make_unique<TerminalKeys>(STDIN_FILENO, [&command] { command.togglePause(); });
    }
    int status = 1;
    try {
        status = command.run();
    } catch (...) {
        keys.reset();  // its thread calls into the command, which goes first
        throw;
    }
    keys.reset();
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    ParseOutcome parsed = parseCommandLine(argc, argv);
    if (!parsed.invocation) {
        std::cout << parsed.standardOutput << std::flush;
        std::cerr << parsed.standardError << std::flush;
        return parsed.exitCode;
    }
    const Invocation& invocation = *parsed.invocation;

    // A reader that goes away (velto record --json | head -1) must not kill the program
    // in the middle of a recording; the failed write is simply lost.
    std::signal(SIGPIPE, SIG_IGN);

    const int verbosity = invocation.verbosity;
    setMinimumLogLevel(minimumLibraryLogLevel(verbosity));
    bool recording = std::holds_alternative<RecordOptions>(invocation.command);
    auto console = std::make_shared<Console>(std::cout, std::cerr, recording && ::isatty(STDERR_FILENO) == 1);
    // The library's lines go through the console so that they never run into the meter.
    setLogSink([console, verbosity](LogLevel level, std::string_view subsystem, std::string_view category,
                                    std::string_view message) {
        if (!showLibraryLogLine(verbosity, level, category)) return;
        console->printMessage("[" + std::string(subsystem) + ":" + std::string(category) + "] " + caseName(level) +
                              ": " + std::string(message));
    });

    int status = 1;
    try {
        ServiceBackend backend;
        status = std::visit(
            Overloaded{
                [&](const RecordOptions& options) { return record(options, backend, *console); },
                [&](const DevicesOptions& options) { return runDevices(options, backend, *console); },
                [&](const PermissionsOptions& options) { return runPermissions(options, backend, *console); },
                [&](const MicrophoneOptions& options) { return runMicrophone(options, backend, *console); },
            },
            invocation.command);
    } catch (...) {
        console->printMessage(failureLine(std::current_exception()));
        status = 1;
    }
    return status;
}
