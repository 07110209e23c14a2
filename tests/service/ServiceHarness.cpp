#include "service/ServiceHarness.hpp"

#include "platform/SystemAudioPermissionManager.hpp"
#include "veltoaudio/RecordingError.hpp"

namespace velto::testing {

RecordingConfiguration makeConfiguration(AudioSources sources, AudioFormat format,
                                         std::optional<MicrophoneDevice> preferredMicrophone) {
    return RecordingConfiguration(format, sources, std::move(preferredMicrophone),
                                  BufferConfiguration::defaultConfiguration());
}

std::vector<RecordingEvent::Kind> DrainedEvents::kinds() const {
    std::vector<RecordingEvent::Kind> result;
    for (const auto& event : events) result.push_back(event.kind);
    return result;
}

DrainedEvents drain(EventStream<RecordingEvent>& stream) {
    DrainedEvents drained;
    try {
        while (auto event = stream.next()) drained.events.push_back(*event);
    } catch (...) {
        drained.error = std::current_exception();
    }
    return drained;
}

ServiceHarness::ServiceHarness() { rebuild(); }

ServiceHarness::~ServiceHarness() { service_.reset(); }

RecordingService& ServiceHarness::rebuild() {
    service_.reset();
    service_ = std::make_unique<RecordingService>(dependencies());
    return *service_;
}

RecordingServiceDependencies ServiceHarness::dependencies() {
    RecordingServiceDependencies d;
    d.makeUnifiedRecorder = [this](const std::filesystem::path& file, const RecordingConfiguration&) {
        if (recorderConstructionFails) throw RecordingError::recorderInitializationFailed();
        auto recorder = std::make_shared<ScriptedRecorder>(file);
        std::lock_guard lock(mutex_);
        recorders_.push_back(recorder);
        recorderKinds_.push_back("unified");
        return std::shared_ptr<AudioRecorderProtocol>(recorder);
    };
    d.makeMicrophoneRecorder = [this](const std::filesystem::path& file, AudioFormat,
                                      const std::optional<MicrophoneDevice>& microphone) {
        if (recorderConstructionFails) throw RecordingError::recorderInitializationFailed();
        auto recorder = std::make_shared<ScriptedRecorder>(file);
        std::lock_guard lock(mutex_);
        recorders_.push_back(recorder);
        recorderKinds_.push_back("microphone");
        microphoneRecorderDevices_.push_back(microphone);
        return std::shared_ptr<AudioRecorderProtocol>(recorder);
    };
    d.generateRecordingFileURL = [this](AudioFormat format) {
        std::lock_guard lock(mutex_);
        auto file = std::filesystem::path("/recordings") /
                    ("Recording-" + std::to_string(generatedFiles_.size() + 1) + "." + fileExtension(format));
        generatedFiles_.push_back(file);
        return file;
    };
    d.sessionManager = sessionManager;
    d.microphoneStorage = storage;
    d.microphoneAuthorizationStatus = [this] {
        ++microphoneStatusQueries;
        return microphoneStatus.load();
    };
    d.requestMicrophoneAccess = [this] { return microphoneAccessAnswer.load(); };
    auto version = [this] {
        std::lock_guard lock(mutex_);
        return version_;
    };
    d.operatingSystemVersion = version;
    d.tccPermissionProvider = tcc;
    d.systemAudioPermissionManager = std::make_shared<platform::SystemAudioPermissionManager>(tcc, hardware, version);
    d.clock = clock;
    return d;
}

std::shared_ptr<ScriptedRecorder> ServiceHarness::recorder(std::size_t index) {
    std::shared_ptr<ScriptedRecorder> found;
    eventually([&] {
        std::lock_guard lock(mutex_);
        if (recorders_.size() <= index || !recorders_[index]->wasCalled("events")) return false;
        found = recorders_[index];
        return true;
    });
    return found;
}

std::size_t ServiceHarness::recorderCount() {
    std::lock_guard lock(mutex_);
    return recorders_.size();
}

std::vector<std::string> ServiceHarness::recorderKinds() {
    std::lock_guard lock(mutex_);
    return recorderKinds_;
}

std::vector<std::optional<MicrophoneDevice>> ServiceHarness::microphoneRecorderDevices() {
    std::lock_guard lock(mutex_);
    return microphoneRecorderDevices_;
}

std::vector<std::filesystem::path> ServiceHarness::generatedFiles() {
    std::lock_guard lock(mutex_);
    return generatedFiles_;
}

}  // namespace velto::testing
