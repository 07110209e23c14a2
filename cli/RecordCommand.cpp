#include "RecordCommand.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <system_error>

#include "ErrorMessages.hpp"
#include "EventJson.hpp"
#include "LevelMeter.hpp"
#include "OutputPathCheck.hpp"
#include "veltoaudio/BufferConfiguration.hpp"
#include "veltoaudio/Error.hpp"

namespace velto::cli {

namespace fs = std::filesystem;

namespace {

double steadySeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

const char* sourcesPhrase(SourceChoice choice) {
    switch (choice) {
        case SourceChoice::microphone: return "the microphone";
        case SourceChoice::system: return "the system's audio";
        case SourceChoice::both: return "the microphone and the system's audio";
    }
    return "the microphone";
}

// A start that failed must not leave behind a file the user did not have before.
void removeFileOfFailedStart(const std::optional<fs::path>& outputFile, bool existedBefore) {
    if (!outputFile || existedBefore) return;
    std::error_code ignored;
    fs::remove(*outputFile, ignored);
}

bool isEmptyFile(const fs::path& file) {
    std::error_code error;
    auto size = fs::file_size(file, error);
    return !error && size == 0;
}

}  // namespace

RecordCommand::RecordCommand(RecordOptions options, RecordingBackend& backend, Console& console,
                             RecordEnvironment environment)
    : options_(std::move(options)),
      backend_(backend),
      console_(console),
      environment_(std::move(environment)),
      control_(RecordingControl::Actions{
          [this] { backend_.stopRecording(); },
          [this] { backend_.cancelRecording(); },
          [this] {
              console_.printMessage("velto: interrupted again; exiting without waiting for the recording to end");
              environment_.abandon();
          }}) {
    if (!environment_.monotonicSeconds) environment_.monotonicSeconds = steadySeconds;
    if (!environment_.abandon) environment_.abandon = [] { ::_exit(kCancelledExitStatus); };
}

void RecordCommand::togglePause() {
    if (!acceptsPause_.load() || control_.stopRequested() || control_.cancelRequested()) return;
    std::lock_guard lock(pauseMutex_);
    pauseWanted_ = !pauseWanted_;
    if (pauseWanted_) {
        backend_.pauseRecording();
    } else {
        backend_.resumeRecording();
    }
}

void RecordCommand::interrupt() {
    if (control_.interruptions() == 0 && console_.meterEnabled()) {
        console_.printMessage("velto: stopping; press Ctrl-C again to cancel");
    }
    control_.interrupt();
}

int RecordCommand::fail(const std::string& problem) {
    if (options_.json) console_.printResult(jsonLine(errorJson(problem, std::nullopt)));
    console_.printMessage(failureLine(problem));
    return 1;
}

std::string RecordCommand::announcement(const std::optional<fs::path>& outputFile) const {
    std::string where = outputFile ? "'" + outputFile->string() + "'" : "the recordings folder";
    std::string until = "until Ctrl-C";
    if (options_.durationSeconds) {
        // %g: any finite duration the parser lets through prints sensibly, 1e+300 included.
        char seconds[32];
        std::snprintf(seconds, sizeof seconds, "%g", *options_.durationSeconds);
        until = std::string("for ") + seconds + " s; Ctrl-C stops earlier";
    }
    std::string line = std::string("velto: recording ") + sourcesPhrase(options_.sources) + " to " + where + " " + until;
    if (environment_.keysTogglePause) line += "; space or Enter pauses";
    return line;
}

void RecordCommand::showMeter(double elapsedSeconds) {
    if (paused_) {
        console_.showMeter(renderPausedLine(elapsedSeconds, environment_.keysTogglePause));
        return;
    }
    RecordingEvent progress = lastProgress_;
    progress.elapsedSeconds = elapsedSeconds;
    std::string line = renderMeterLine(progress);
    for (const auto& [source, since] : silentSince_) {
        line += std::string("  no signal from the ") + sourceName(source) + " since " + formatElapsed(since);
    }
    console_.showMeter(line);
}

int RecordCommand::run() {
    std::optional<MicrophoneDevice> microphone;
    if (options_.microphoneId) {
        auto devices = backend_.availableMicrophones();
        auto found = std::find_if(devices.begin(), devices.end(),
                                  [&](const MicrophoneDevice& device) { return device.id == *options_.microphoneId; });
        if (found == devices.end()) {
            return fail("no microphone has the identifier '" + *options_.microphoneId +
                        "'. Run 'velto devices' to list the microphones");
        }
        microphone = *found;
    }

    std::optional<fs::path> outputFile;
    if (options_.outputPath) {
        std::error_code error;
        fs::path absolute = fs::absolute(*options_.outputPath, error);
        if (error) absolute = *options_.outputPath;
        if (auto problem = outputPathProblem(absolute, options_.overwrite); !problem.empty()) {
            return fail(problem);
        }
        outputFile = absolute.lexically_normal();
    }

    RecordingConfiguration configuration(effectiveFormat(options_), toAudioSources(options_.sources), microphone,
                                         BufferConfiguration::defaultConfiguration());
    configuration.trackLayout = options_.tracks;
    configuration.echoCancellation = options_.echoCancellation;
    // The library ends the recording on the very frame: the file is as long as asked.
    configuration.maximumDurationSeconds = options_.durationSeconds;
    std::error_code ignored;
    bool existedBefore = outputFile && fs::exists(*outputFile, ignored);
    if (console_.meterEnabled()) console_.printMessage(announcement(outputFile));

    EventStream<RecordingEvent> events;
    try {
        events = backend_.startRecording(configuration, outputFile);
    } catch (...) {
        auto error = std::current_exception();
        removeFileOfFailedStart(outputFile, existedBefore);
        if (options_.json) console_.printResult(jsonLine(errorJson(describeError(error), std::nullopt)));
        console_.printMessage(failureLine(error));
        return 1;
    }
    startedAtSeconds_ = environment_.monotonicSeconds();
    control_.markStarted();

    Outcome outcome;
    readEvents(events, outcome);
    console_.clearMeter();
    return report(outcome);
}

void RecordCommand::readEvents(EventStream<RecordingEvent>& events, Outcome& outcome) {
    while (true) {
        if (!events.waitFor(environment_.pollInterval)) {
            stopWhenDurationReached();
            continue;
        }
        std::optional<RecordingEvent> event;
        try {
            event = events.next();
        } catch (...) {
            outcome.failure = std::current_exception();
            return;
        }
        if (!event) return;  // drained: the service has nothing more to say
        handle(*event, outcome);
    }
}

void RecordCommand::handle(const RecordingEvent& event, Outcome& outcome) {
    if (options_.json) console_.printResult(jsonLine(eventJson(event)));
    switch (event.kind) {
        case RecordingEvent::Kind::progress:
            if (!sawProgress_) {
                sawProgress_ = true;
                control_.markRecording();
                acceptsPause_ = true;
            }
            recordedSeconds_ = event.elapsedSeconds;
            lastProgress_ = event;
            showMeter(event.elapsedSeconds);
            stopWhenDurationReached();
            break;
        case RecordingEvent::Kind::paused:
            paused_ = true;
            pausedAtSeconds_ = environment_.monotonicSeconds();
            recordedSeconds_ = event.elapsedSeconds;
            showMeter(event.elapsedSeconds);
            break;
        case RecordingEvent::Kind::resumed:
            if (paused_) {
                // The wall-clock limit of --duration waits for recorded time, which a pause holds.
                startedAtSeconds_ += environment_.monotonicSeconds() - pausedAtSeconds_;
            }
            paused_ = false;
            showMeter(event.elapsedSeconds);
            break;
        case RecordingEvent::Kind::silence:
            silentSince_[event.source] = event.elapsedSeconds;
            if (!options_.json && !console_.meterEnabled()) {
                console_.printMessage(std::string("velto: no signal from the ") + sourceName(event.source) + " since " +
                                      formatElapsed(event.elapsedSeconds) + "; the recording goes on");
            }
            if (sawProgress_) showMeter(recordedSeconds_);
            break;
        case RecordingEvent::Kind::signal:
            silentSince_.erase(event.source);
            if (sawProgress_) showMeter(recordedSeconds_);
            break;
        case RecordingEvent::Kind::finished:
            outcome.finishedFile = event.fileURL;
            break;
        case RecordingEvent::Kind::cancelled:
            outcome.cancelledFile = event.fileURL;
            break;
        case RecordingEvent::Kind::starting:
        case RecordingEvent::Kind::started:
            break;
    }
}

void RecordCommand::stopWhenDurationReached() {
    if (!options_.durationSeconds || control_.stopRequested() || stalled_ || paused_) return;
    double duration = *options_.durationSeconds;
    // The library ends the recording itself when the file holds the duration; a stop is
    // only asked for when it has not (a recording that went on past it, or no audio at all).
    bool recordedEnough = sawProgress_ && recordedSeconds_ >= duration + environment_.durationGraceSeconds;
    bool clockRanOut = environment_.monotonicSeconds() - startedAtSeconds_ >= duration + environment_.durationGraceSeconds;
    if (recordedEnough || (clockRanOut && sawProgress_)) {
        control_.requestStop();
    } else if (clockRanOut && !stalled_) {
        stalled_ = true;
        control_.requestCancel();
    }
}

int RecordCommand::report(const Outcome& outcome) {
    if (outcome.failure) {
        auto kept = outcome.finishedFile ? outcome.finishedFile : outcome.cancelledFile;
        if (options_.json) {
            console_.printResult(jsonLine(errorJson(describeError(outcome.failure), kept)));
        } else if (kept) {
            console_.printResult(kept->string());
        }
        console_.printMessage(failureLine(outcome.failure));
        return 1;
    }
    if (outcome.finishedFile) {
        if (isEmptyFile(*outcome.finishedFile)) {
            // Stopped before the first block reached the file: what is left is not even a
            // header, and no player would open it.
            std::error_code ignored;
            fs::remove(*outcome.finishedFile, ignored);
            return fail("the recording was stopped before any audio reached the file, so no file was kept");
        }
        if (!options_.json) console_.printResult(outcome.finishedFile->string());
        return 0;
    }
    if (stalled_) {
        return fail("no audio arrived from the sound server, so the recording was abandoned. "
                    "Check that a sound server (PulseAudio or PipeWire) is running");
    }
    if (outcome.cancelledFile || control_.cancelRequested()) {
        std::string line = "velto: recording cancelled";
        if (outcome.cancelledFile) line += "; what was recorded is kept in '" + outcome.cancelledFile->string() + "'";
        console_.printMessage(line);
        return kCancelledExitStatus;
    }
    return fail("the recording ended before its file was completed. Run again with -v to see why");
}

}  // namespace velto::cli
