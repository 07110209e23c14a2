#pragma once
// Scripted collaborators of the recording service: a recorder whose events the test
// drives, a session manager with a settable device list, an in-memory preference store
// and a permission provider with scripted answers. All thread-safe.

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "model/EventSource.hpp"
#include "platform/TCCPermissionProviderProtocol.hpp"
#include "model/AudioRecorderProtocol.hpp"
#include "platform/AudioSessionManagerProtocol.hpp"
#include "support/RecorderTestSupport.hpp"
#include "veltoaudio/MicrophonePreferencesStorage.hpp"

namespace velto::testing {

// A recorder like the real ones in what the service relies on: stop() delivers
// `finished` and ends the sequence, cancel() delivers `cancelled` and ends it, each
// before returning. Every call is recorded.
class ScriptedRecorder final : public AudioRecorderProtocol {
public:
    explicit ScriptedRecorder(std::filesystem::path fileURL);

    EventStream<RecordingEvent> events() override;
    void stop() override { endWith("stop", RecordingEvent::finished(fileURL_)); }
    void cancel() override { endWith("cancel", RecordingEvent::cancelled(fileURL_)); }
    void pause() override { record("pause"); }
    void resume() override { record("resume"); }
    AudioBufferStream audioStream() override { return audio_; }

    // --- driving it ---
    void emit(RecordingEvent event) { continuation_.yield(std::move(event)); }
    void end() { continuation_.finish(); }
    void fail(std::exception_ptr error) { continuation_.finish(std::move(error)); }
    // When false, stop() and cancel() record the call and do nothing else.
    std::atomic<bool> endsOnStopAndCancel{true};

    // --- observing it ---
    bool wasCalled(const std::string& call) const;
    // True once the consumer end of the event sequence was cancelled or ended.
    bool eventsTerminated() const { return continuation_.isTerminated(); }
    const std::filesystem::path& fileURL() const { return fileURL_; }

private:
    void record(std::string call);
    void endWith(std::string call, RecordingEvent last);
    const std::filesystem::path fileURL_;
    EventStream<RecordingEvent> events_;
    EventSource<RecordingEvent>::Continuation continuation_;
    AudioBufferStream audio_;
    AudioBufferSource::Continuation audioContinuation_;
    mutable std::mutex mutex_;
    std::vector<std::string> calls_;
};

class FakeSessionManager final : public AudioSessionManagerProtocol {
    template <class F>
    auto locked(F f) const -> decltype(f()) {
        std::lock_guard lock(mutex_);
        return f();
    }

public:
    void setDevices(std::vector<MicrophoneDevice> devices) { locked([&] { devices_ = std::move(devices); }); }
    void failConfigurationWith(std::exception_ptr error) { locked([&] { configurationError_ = std::move(error); }); }
    std::vector<std::optional<MicrophoneDevice>> configuredMicrophones() const { return locked([&] { return configured_; }); }

    std::vector<MicrophoneDevice> availableMicrophones() override { return locked([&] { return devices_; }); }
    void configureSession(std::optional<MicrophoneDevice> preferredMicrophone) override {
        std::lock_guard lock(mutex_);
        configured_.push_back(preferredMicrophone);
        if (configurationError_) std::rethrow_exception(configurationError_);
    }
    void logDeviceInformation() override {}
    std::optional<MicrophoneDevice> preferredMicrophone() const override { return std::nullopt; }

private:
    mutable std::mutex mutex_;
    std::vector<MicrophoneDevice> devices_;
    std::exception_ptr configurationError_;
    std::vector<std::optional<MicrophoneDevice>> configured_;
};

class InMemoryMicrophoneStorage final : public MicrophonePreferencesStorage {
public:
    std::optional<std::string> getSelectedMicrophoneId() override {
        std::lock_guard lock(mutex_);
        return id_;
    }
    void setSelectedMicrophoneId(std::optional<std::string> id) override {
        std::lock_guard lock(mutex_);
        id_ = std::move(id);
    }

private:
    std::mutex mutex_;
    std::optional<std::string> id_;
};

class ScriptedTccProvider final : public platform::TCCPermissionProviderProtocol {
public:
    std::atomic<PermissionState> status{PermissionState::granted};
    std::atomic<bool> requestAnswer{true};
    std::exception_ptr requestError;  // set before use
    std::atomic<int> statusQueries{0};

    PermissionState checkPermissionStatus() override {
        ++statusQueries;
        return status.load();
    }
    bool requestAudioCapturePermission() override {
        if (requestError) std::rethrow_exception(requestError);
        return requestAnswer.load();
    }
};

}  // namespace velto::testing
