#pragma once

#include <filesystem>
#include <optional>

#include "veltoaudio/Export.hpp"
#include "veltoaudio/AudioLevels.hpp"

namespace velto {

// What a running recording reports, one value at a time.
struct RecordingEvent {
    enum class Kind { progress, paused, resumed, finished, cancelled, starting, started, silence, signal };
    // The source a silence or signal event speaks of.
    enum class Source { microphone, systemAudio };

    static RecordingEvent progress(double elapsedSeconds, AudioLevels audioLevels,
                                   std::optional<AudioLevels> microphoneLevels = std::nullopt,
                                   std::optional<AudioLevels> systemLevels = std::nullopt) {
        RecordingEvent event(Kind::progress, elapsedSeconds, audioLevels, {});
        event.microphoneLevels = microphoneLevels;
        event.systemLevels = systemLevels;
        return event;
    }
    static RecordingEvent paused(double elapsedSeconds) { return RecordingEvent(Kind::paused, elapsedSeconds, {}, {}); }
    static RecordingEvent resumed(double elapsedSeconds) { return RecordingEvent(Kind::resumed, elapsedSeconds, {}, {}); }
    static RecordingEvent finished(std::filesystem::path fileURL) {
        return RecordingEvent(Kind::finished, 0, {}, std::move(fileURL));
    }
    static RecordingEvent cancelled(std::filesystem::path fileURL) {
        return RecordingEvent(Kind::cancelled, 0, {}, std::move(fileURL));
    }
    static RecordingEvent starting() { return RecordingEvent(Kind::starting, 0, {}, {}); }
    static RecordingEvent started() { return RecordingEvent(Kind::started, 0, {}, {}); }
    // The source has delivered nothing but digital silence since `sinceSeconds` of
    // recorded time (reported once it has lasted long enough to be worth a warning).
    // The recording goes on.
    static RecordingEvent silence(Source source, double sinceSeconds) {
        RecordingEvent event(Kind::silence, sinceSeconds, {}, {});
        event.source = source;
        return event;
    }
    // The source that was silent carries a signal again, from `elapsedSeconds`.
    static RecordingEvent signal(Source source, double elapsedSeconds) {
        RecordingEvent event(Kind::signal, elapsedSeconds, {}, {});
        event.source = source;
        return event;
    }

    Kind kind;
    // Recorded time, in seconds: the length of audio in the file when the event was made
    // (time spent paused is not counted). progress, paused, resumed; silence: since when;
    // signal: since when the source carries a signal again.
    double elapsedSeconds;
    AudioLevels audioLevels;      // progress: the recording's (the mix's) levels
    // progress: each recorded source's own levels, before any mixing gain; unset for a
    // source the recording does not include
    std::optional<AudioLevels> microphoneLevels;
    std::optional<AudioLevels> systemLevels;
    std::filesystem::path fileURL;  // finished, cancelled
    Source source = Source::microphone;  // silence, signal

private:
    RecordingEvent(Kind kind, double elapsed, AudioLevels levels, std::filesystem::path file)
        : kind(kind), elapsedSeconds(elapsed), audioLevels(levels), fileURL(std::move(file)) {}
};

VELTO_EXPORT const char* caseName(RecordingEvent::Kind kind);
VELTO_EXPORT const char* caseName(RecordingEvent::Source source);

}  // namespace velto
