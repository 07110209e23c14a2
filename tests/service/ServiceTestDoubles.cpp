#include "service/ServiceTestDoubles.hpp"

namespace velto::testing {

bool eventually(const std::function<bool()>& condition) {
    for (int attempt = 0; attempt < 2000; ++attempt) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return condition();
}

ScriptedRecorder::ScriptedRecorder(std::filesystem::path fileURL) : fileURL_(std::move(fileURL)) {
    auto events = EventStream<RecordingEvent>::make();
    events_ = events.first;
    continuation_ = events.second;
    auto audio = AudioBufferStream::make();
    audio_ = audio.first;
    audioContinuation_ = audio.second;
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

void ScriptedRecorder::stop() {
    record("stop");
    if (!endsOnStopAndCancel) return;
    continuation_.yield(RecordingEvent::finished(fileURL_));
    continuation_.finish();
}

void ScriptedRecorder::cancel() {
    record("cancel");
    if (!endsOnStopAndCancel) return;
    continuation_.yield(RecordingEvent::cancelled(fileURL_));
    continuation_.finish();
}

void ScriptedRecorder::pause() { record("pause"); }
void ScriptedRecorder::resume() { record("resume"); }
AudioBufferStream ScriptedRecorder::audioStream() { return audio_; }

void ScriptedRecorder::emit(RecordingEvent event) { continuation_.yield(std::move(event)); }
void ScriptedRecorder::end() { continuation_.finish(); }
void ScriptedRecorder::fail(std::exception_ptr error) { continuation_.finish(std::move(error)); }

std::vector<std::string> ScriptedRecorder::calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
}

bool ScriptedRecorder::wasCalled(const std::string& call) const {
    std::lock_guard lock(mutex_);
    for (const auto& c : calls_)
        if (c == call) return true;
    return false;
}

void FakeSessionManager::setDevices(std::vector<MicrophoneDevice> devices) {
    std::lock_guard lock(mutex_);
    devices_ = std::move(devices);
}

void FakeSessionManager::failConfigurationWith(std::exception_ptr error) {
    std::lock_guard lock(mutex_);
    configurationError_ = std::move(error);
}

std::vector<std::optional<MicrophoneDevice>> FakeSessionManager::configuredMicrophones() const {
    std::lock_guard lock(mutex_);
    return configured_;
}

int FakeSessionManager::deviceInformationLogs() const {
    std::lock_guard lock(mutex_);
    return deviceInformationLogs_;
}

std::vector<MicrophoneDevice> FakeSessionManager::availableMicrophones() {
    std::lock_guard lock(mutex_);
    return devices_;
}

void FakeSessionManager::configureSession(std::optional<MicrophoneDevice> preferredMicrophone) {
    std::lock_guard lock(mutex_);
    configured_.push_back(preferredMicrophone);
    if (configurationError_) std::rethrow_exception(configurationError_);
}

void FakeSessionManager::logDeviceInformation() {
    std::lock_guard lock(mutex_);
    ++deviceInformationLogs_;
}

std::optional<MicrophoneDevice> FakeSessionManager::preferredMicrophone() const { return std::nullopt; }

std::optional<std::string> InMemoryMicrophoneStorage::getSelectedMicrophoneId() {
    std::lock_guard lock(mutex_);
    return id_;
}

void InMemoryMicrophoneStorage::setSelectedMicrophoneId(std::optional<std::string> id) {
    std::lock_guard lock(mutex_);
    id_ = std::move(id);
}

PermissionState ScriptedTccProvider::checkPermissionStatus() {
    ++statusQueries;
    return status.load();
}

bool ScriptedTccProvider::requestAudioCapturePermission() {
    ++requests;
    if (requestError) std::rethrow_exception(requestError);
    return requestAnswer.load();
}

}  // namespace velto::testing
