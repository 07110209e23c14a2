#include "service/ServiceHarness.hpp"

#include "platform/SystemAudioPermissionManager.hpp"
#include "veltoaudio/RecordingError.hpp"

namespace velto::testing {

RecordingConfiguration makeConfiguration(AudioSources sources, AudioFormat format,
                                         std::optional<MicrophoneDevice> preferredMicrophone) {
    return RecordingConfiguration(format, sources, std::move(preferredMicrophone),
                                  BufferConfiguration::defaultConfiguration());
}

RecordingService& ServiceHarness::rebuild() {
    service_.reset();
    service_ = RecordingServiceAssembly::make(dependencies());
    return *service_;
}

std::shared_ptr<AudioRecorderProtocol> ServiceHarness::makeRecorder(const std::filesystem::path& file) {
    if (recorderConstructionFails) throw RecordingError::recorderInitializationFailed();
    auto recorder = std::make_shared<ScriptedRecorder>(file);
    locked([&] { recorders_.push_back(recorder); });
    return recorder;
}

RecordingServiceDependencies ServiceHarness::dependencies() {
    RecordingServiceDependencies d;
    d.makeUnifiedRecorder = [this](const std::filesystem::path& file, const RecordingConfiguration&) {
        return makeRecorder(file);
    };
    d.makeMicrophoneRecorder = [this](const std::filesystem::path& file, AudioFormat,
                                      const std::optional<MicrophoneDevice>&) { return makeRecorder(file); };
    d.generateRecordingFileURL = [this](AudioFormat format) {
        return locked([&] {
            generatedFiles_.push_back(std::filesystem::path("/recordings") /
                                      ("Recording-" + std::to_string(generatedFiles_.size() + 1) + "." +
                                       fileExtension(format)));
            return generatedFiles_.back();
        });
    };
    d.sessionManager = sessionManager;
    d.microphoneStorage = storage;
    d.microphoneAuthorizationStatus = [this] {
        ++microphoneStatusQueries;
        return microphoneStatus.load();
    };
    d.requestMicrophoneAccess = [] { return true; };
    d.unreachableSoundServer = [this] { return locked([&] { return unreachableServer_; }); };
    d.tccPermissionProvider = tcc;
    d.systemAudioPermissionManager = std::make_shared<platform::SystemAudioPermissionManager>(tcc, hardware);
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

}  // namespace velto::testing
