#pragma once
// A RecordingService over scripted collaborators, with helpers to drive a recording.

#include <atomic>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/fake/FakeAudioHardware.hpp"
#include "service/RecordingServiceAssembly.hpp"
#include "service/ServiceTestDoubles.hpp"
#include "support/RecorderTestSupport.hpp"
#include "veltoaudio/RecordingError.hpp"
#include "veltoaudio/RecordingService.hpp"

namespace velto::testing {

RecordingConfiguration makeConfiguration(AudioSources sources, AudioFormat format = AudioFormat::wav,
                                         std::optional<MicrophoneDevice> preferredMicrophone = std::nullopt);

// The RecordingError `operation` throws, if it throws one.
template <class Operation>
std::optional<RecordingError> thrown(Operation operation) {
    try {
        operation();
    } catch (const RecordingError& error) {
        return error;
    }
    return std::nullopt;
}
template <class Operation>
std::optional<RecordingError::Code> thrownCode(Operation operation) {
    const auto error = thrown(operation);
    return error ? std::optional<RecordingError::Code>(error->code()) : std::nullopt;
}

inline DrainedEvents drain(EventStream<RecordingEvent>& stream) { return drainUntilEnd(stream); }

class ServiceHarness {
    template <class F>
    auto locked(F f) -> decltype(f()) {
        std::lock_guard lock(mutex_);
        return f();
    }

public:
    ServiceHarness() { rebuild(); }
    ~ServiceHarness() { service_.reset(); }

    RecordingService& service() { return *service_; }
    // Builds a fresh service over the same collaborators (the old one is destroyed first).
    RecordingService& rebuild();
    void destroyService() { service_.reset(); }

    // The index-th recorder, once the service has taken its events.
    std::shared_ptr<ScriptedRecorder> recorder(std::size_t index = 0);
    std::size_t recorderCount() { return locked([&] { return recorders_.size(); }); }
    std::vector<std::filesystem::path> generatedFiles() { return locked([&] { return generatedFiles_; }); }
    // The address no server answers at; nothing: a server runs.
    void setUnreachableServer(std::optional<std::string> address) {
        locked([&] { unreachableServer_ = std::move(address); });
    }

    const std::shared_ptr<FakeSessionManager> sessionManager = std::make_shared<FakeSessionManager>();
    const std::shared_ptr<InMemoryMicrophoneStorage> storage = std::make_shared<InMemoryMicrophoneStorage>();
    const std::shared_ptr<ScriptedTccProvider> tcc = std::make_shared<ScriptedTccProvider>();
    const std::shared_ptr<platform::FakeAudioHardware> hardware = platform::FakeAudioHardware::create();
    std::atomic<platform::AuthorizationStatus> microphoneStatus{platform::AuthorizationStatus::authorized};
    std::atomic<int> microphoneStatusQueries{0};
    std::atomic<bool> recorderConstructionFails{false};
    // Bounds the wait for a stopped recorder's last events; set before rebuild().
    std::shared_ptr<Clock> clock = Clock::system();

private:
    RecordingServiceDependencies dependencies();
    std::shared_ptr<AudioRecorderProtocol> makeRecorder(const std::filesystem::path& file);

    std::mutex mutex_;
    std::optional<std::string> unreachableServer_;
    std::vector<std::shared_ptr<ScriptedRecorder>> recorders_;
    std::vector<std::filesystem::path> generatedFiles_;
    std::unique_ptr<RecordingService> service_;
};

}  // namespace velto::testing
