#pragma once

#include <filesystem>

#include "veltoaudio/Export.hpp"
#include "veltoaudio/AudioLevels.hpp"

namespace velto {

// What a running recording reports, one value at a time.
struct RecordingEvent {
    enum class Kind { progress, paused, resumed, finished, cancelled, starting, started };

    static RecordingEvent progress(double elapsedSeconds, AudioLevels audioLevels) {
        return RecordingEvent(Kind::progress, elapsedSeconds, audioLevels, {});
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

    Kind kind;
    double elapsedSeconds;        // progress, paused, resumed
    AudioLevels audioLevels;      // progress
    std::filesystem::path fileURL;  // finished, cancelled

private:
    RecordingEvent(Kind kind, double elapsed, AudioLevels levels, std::filesystem::path file)
        : kind(kind), elapsedSeconds(elapsed), audioLevels(levels), fileURL(std::move(file)) {}
};

VELTO_EXPORT const char* caseName(RecordingEvent::Kind kind);

}  // namespace velto
