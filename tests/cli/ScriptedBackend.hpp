#pragma once

#include <atomic>
#include <condition_variable>
#include <exception>
#include <fstream>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "RecordingBackend.hpp"
#include "model/EventSource.hpp"

namespace velto::cli::testing {

// A stand-in for the recording service. A started recording announces itself, sends
// `progressEvents` progress events 0.1 s apart (in recorded time; nothing sleeps), then
// waits for stop or cancel, which it answers like the multi-source recorder: `finished`
// or `cancelled`, then the end of the stream (with `errorAfterEnd`, if set). A recording
// with a maximum duration ends by itself once its progress reaches it, as the library's does.
class ScriptedBackend final : public RecordingBackend {
public:
    ~ScriptedBackend() override {
        {
            std::lock_guard lock(mutex_);
            shuttingDown_ = true;
        }
        changed_.notify_all();
        if (recorder_.joinable()) recorder_.join();
    }

    // Script (set before the command runs).
    std::vector<MicrophoneDevice> devices;
    std::optional<std::string> storedMicrophoneId;
    PermissionStatus permission{PermissionState::granted, PermissionState::notRequired};
    std::exception_ptr startError;
    std::exception_ptr errorAfterEnd;  // the stream ends with it after finished/cancelled
    std::exception_ptr setPreferredError;
    bool createsFileBeforeFailing = false;  // a failed start that has already opened the output
    bool endsWithoutFileEvent = false;      // the stream ends after stop without finished/cancelled
    int progressEvents = 3;
    // Yielded after the progress events, before the recording waits for its stop.
    std::vector<RecordingEvent> laterEvents;
    std::filesystem::path defaultFile = "/recordings/Recording-2026-01-01-00-00-00.flac";

    // What happened.
    std::optional<RecordingConfiguration> startedConfiguration;
    std::optional<std::filesystem::path> requestedOutput;

    std::atomic<int> stopCalls{0}, cancelCalls{0}, pauseCalls{0}, resumeCalls{0};

    EventStream<RecordingEvent> startRecording(const RecordingConfiguration& configuration,
                                               const std::optional<std::filesystem::path>& outputFile) override {
        if (startError) {
            if (outputFile && createsFileBeforeFailing) std::ofstream(*outputFile) << "half a header";
            std::rethrow_exception(startError);
        }
        startedConfiguration = configuration;
        requestedOutput = outputFile;
        auto [stream, continuation] = EventSource<RecordingEvent>::make();
        std::filesystem::path file = outputFile ? *outputFile : defaultFile;
        recorder_ = std::thread([this, continuation = continuation, file] { record(continuation, file); });
        return stream;
    }

    void stopRecording() override { request(stopCalls); }
    void cancelRecording() override { request(cancelCalls); }
    // Answers like a recorder: paused/resumed at the recorded time, on the event stream.
    void pauseRecording() override { pauseOrResume(true); }
    void resumeRecording() override { pauseOrResume(false); }

    std::vector<MicrophoneDevice> availableMicrophones() override { return devices; }
    std::optional<MicrophoneDevice> currentMicrophone() override {
        for (const auto& device : devices) {
            if (storedMicrophoneId && device.id == *storedMicrophoneId) return device;
        }
        for (const auto& device : devices) {
            if (device.isDefault) return device;
        }
        return std::nullopt;
    }
    bool hasStoredMicrophonePreference() override { return storedMicrophoneId.has_value(); }
    void setPreferredMicrophone(const MicrophoneDevice& device) override {
        if (setPreferredError) std::rethrow_exception(setPreferredError);
        storedMicrophoneId = device.id;
    }
    void clearPreferredMicrophone() override { storedMicrophoneId.reset(); }
    PermissionStatus permissionStatus(const RecordingConfiguration&) override { return permission; }

private:
    void pauseOrResume(bool pause) {
        std::lock_guard lock(mutex_);
        ++(pause ? pauseCalls : resumeCalls);
        if (events_) {
            events_->yield(pause ? RecordingEvent::paused(0.1 * progressEvents) : RecordingEvent::resumed(0.1 * progressEvents));
        }
    }

    // Counted under the lock the recording waits on, so that its wait cannot miss it.
    void request(std::atomic<int>& counter) {
        {
            std::lock_guard lock(mutex_);
            ++counter;
        }
        changed_.notify_all();
    }

    void record(const EventSource<RecordingEvent>::Continuation& events, const std::filesystem::path& file) {
        {
            std::lock_guard lock(mutex_);
            events_ = events;
        }
        events.yield(RecordingEvent::starting());
        events.yield(RecordingEvent::started());
        const double limit = startedConfiguration->maximumDurationSeconds.value_or(1e9);
        bool limitReached = false;
        for (int i = 1; i <= progressEvents && !limitReached; ++i) {
            events.yield(RecordingEvent::progress(0.1 * i, AudioLevels{-20.0f, -6.0f}));
            limitReached = 0.1 * i >= limit - 1e-9;
        }
        for (const auto& event : laterEvents) events.yield(event);
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return limitReached || stopCalls > 0 || cancelCalls > 0 || shuttingDown_; });
        bool cancelled = cancelCalls > 0;
        events_.reset();
        lock.unlock();
        if (!endsWithoutFileEvent) {
            events.yield(cancelled ? RecordingEvent::cancelled(file) : RecordingEvent::finished(file));
        }
        events.finish(errorAfterEnd);
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::optional<EventSource<RecordingEvent>::Continuation> events_;  // while waiting for the stop
    bool shuttingDown_ = false;
    std::thread recorder_;
};

}  // namespace velto::cli::testing
