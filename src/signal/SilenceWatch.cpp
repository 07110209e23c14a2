#include "signal/SilenceWatch.hpp"

#include <cmath>

namespace velto {

SilenceWatch::SilenceWatch(RecordingEvent::Source source, double reportAfterSeconds)
    : source_(source), reportAfterSeconds_(reportAfterSeconds) {}

std::optional<RecordingEvent> SilenceWatch::observe(float peakDecibels, double recordedSeconds) {
    const double spanStartSeconds = previousRecordedSeconds_;
    previousRecordedSeconds_ = recordedSeconds;
    // A broken reading (NaN) says nothing either way: it neither starts nor ends a silence.
    if (std::isnan(peakDecibels)) return std::nullopt;
    const bool silent = peakDecibels < kSilenceCeilingDecibels;

    if (silent) {
        if (!silentSinceSeconds_) silentSinceSeconds_ = spanStartSeconds;
        if (!reported_ && recordedSeconds - *silentSinceSeconds_ >= reportAfterSeconds_) {
            reported_ = true;
            return RecordingEvent::silence(source_, *silentSinceSeconds_);
        }
        return std::nullopt;
    }

    silentSinceSeconds_.reset();
    if (!reported_) return std::nullopt;
    reported_ = false;
    return RecordingEvent::signal(source_, spanStartSeconds);
}

}  // namespace velto
