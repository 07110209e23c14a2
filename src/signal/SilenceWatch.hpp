#pragma once

#include <optional>

#include "veltoaudio/RecordingEvent.hpp"

namespace velto {

// Notices a source that has delivered nothing but digital silence for a while (a muted
// microphone, the monitor of an output nothing plays on), and notices it coming back.
// Users only find out about an hour of silence afterwards unless someone tells them.
//
// Fed one observation per progress report: the loudest sample of the source since the
// previous observation, and the recorded time at the end of that span. A span whose peak
// is below kSilenceCeilingDecibels (an exact zero reads as the meter's floor, far below)
// is silent. Once the silence has lasted `reportAfterSeconds` of recorded time, one
// `silence` event says since when; the first span that is not silent afterwards gives
// one `signal` event, from the start of that span. Nothing else: the recording goes on.
//
// Recorded time, not wall time: a pause neither counts towards the silence nor ends it.
//
// Threads: one owner at a time (the recorder's work queue).
class SilenceWatch {
public:
    static constexpr double kSilenceCeilingDecibels = -90.0;
    static constexpr double kDefaultReportAfterSeconds = 10.0;

    explicit SilenceWatch(RecordingEvent::Source source, double reportAfterSeconds = kDefaultReportAfterSeconds);

    // The event to hand on, if this observation starts or ends a reported silence.
    std::optional<RecordingEvent> observe(float peakDecibels, double recordedSeconds);

    RecordingEvent::Source source() const { return source_; }
    bool isReportedSilent() const { return reported_; }

private:
    const RecordingEvent::Source source_;
    const double reportAfterSeconds_;
    double previousRecordedSeconds_ = 0.0;  // the end of the last observed span
    std::optional<double> silentSinceSeconds_;
    bool reported_ = false;
};

}  // namespace velto
