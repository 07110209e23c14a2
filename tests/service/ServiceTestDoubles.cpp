#include "service/ServiceTestDoubles.hpp"

#include <algorithm>

namespace velto::testing {

ScriptedRecorder::ScriptedRecorder(std::filesystem::path fileURL) : fileURL_(std::move(fileURL)) {
    std::tie(events_, continuation_) = EventSource<RecordingEvent>::make();
    std::tie(audio_, audioContinuation_) = AudioBufferSource::make();
}

void ScriptedRecorder::record(std::string call) {
    std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
}

EventStream<RecordingEvent> ScriptedRecorder::events() {
    record("events");
    // The recorder keeps no consumer handle of its own, so the service's cancellation
    // reaches the channel.
    return std::exchange(events_, EventStream<RecordingEvent>());
}

void ScriptedRecorder::endWith(std::string call, RecordingEvent last) {
    record(std::move(call));
    if (!endsOnStopAndCancel) return;
    continuation_.yield(std::move(last));
    continuation_.finish();
}

bool ScriptedRecorder::wasCalled(const std::string& call) const {
    std::lock_guard lock(mutex_);
    return std::find(calls_.begin(), calls_.end(), call) != calls_.end();
}

}  // namespace velto::testing
