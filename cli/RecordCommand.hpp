#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <mutex>
#include <optional>

#include "CommandLineOptions.hpp"
#include "Console.hpp"
#include "RecordingBackend.hpp"
#include "RecordingControl.hpp"

namespace velto::cli {

// Exit status of a recording the user cancelled (a second Ctrl-C), as a shell reports
// a program ended by SIGINT.
inline constexpr int kCancelledExitStatus = 130;

struct RecordEnvironment {
    // A monotonic clock in seconds; only differences are used.
    std::function<double()> monotonicSeconds;
    // How often the event reader looks at the clock while no event arrives.
    std::chrono::milliseconds pollInterval{100};
    // With --duration the recording stops when a progress event reports that much
    // recorded; if progress events stall, the wall clock stops it this much later, and
    // when none ever came (the service refuses a stop then) it is cancelled as failed.
    double durationGraceSeconds = 2.0;
    // Ends the process at once (the third Ctrl-C). Default: _exit(kCancelledExitStatus).
    std::function<void()> abandon;
    // Space or Enter on the terminal toggle the pause (said on the paused line).
    bool keysTogglePause = false;
};

// `velto record`: checks what the user typed, starts the recording, prints its events
// (JSON lines, or the live meter on a terminal), stops it on Ctrl-C or at the end of
// --duration, and reports success only once `finished` arrived and the event stream ended.
// togglePause() pauses a running recording or resumes a paused one; --duration counts
// recorded time, so a pause lengthens the run.
//
// Threads: run() on the main thread, once; interrupt() and togglePause() from any thread
// (the signal watcher, the terminal's key reader), before, during or after run().
class RecordCommand {
public:
    RecordCommand(RecordOptions options, RecordingBackend& backend, Console& console, RecordEnvironment environment = {});

    // The process's exit status: 0 finished, 1 failed, kCancelledExitStatus cancelled.
    int run();
    void interrupt();
    // Ignored before the recording runs and once it is being stopped; blocks while the
    // library pauses or resumes.
    void togglePause();

private:
    struct Outcome {
        std::optional<std::filesystem::path> finishedFile;
        std::optional<std::filesystem::path> cancelledFile;
        std::exception_ptr failure;
    };

    // Reports a problem found before or after recording (JSON too); returns 1.
    int fail(const std::string& problem);
    void readEvents(EventStream<RecordingEvent>& events, Outcome& outcome);
    void handle(const RecordingEvent& event, Outcome& outcome);
    void stopWhenDurationReached();
    int report(const Outcome& outcome);
    std::string announcement(const std::optional<std::filesystem::path>& outputFile) const;
    void showMeter(double elapsedSeconds);

    const RecordOptions options_;
    RecordingBackend& backend_;
    Console& console_;
    RecordEnvironment environment_;
    // Main thread only.
    double startedAtSeconds_ = 0;
    bool sawProgress_ = false;
    bool stalled_ = false;  // cancelled because no progress event ever arrived
    double recordedSeconds_ = 0;
    // The last progress event: its levels stay on the meter line until the next one.
    RecordingEvent lastProgress_ = RecordingEvent::progress(0, AudioLevels::silence());
    bool paused_ = false;  // between the paused and resumed events
    double pausedAtSeconds_ = 0;
    std::map<RecordingEvent::Source, double> silentSince_;
    // Any thread.
    std::atomic<bool> acceptsPause_{false};  // the service is recording: it accepts a pause
    std::mutex pauseMutex_;                  // one toggle at a time
    bool pauseWanted_ = false;               // guarded by pauseMutex_
    RecordingControl control_;  // last: its thread calls into the members above
};

}  // namespace velto::cli
