#include "veltoaudio/RecordingService.hpp"

#include "service/RecordingServiceAssembly.hpp"
#include "service/RecordingServiceCore.hpp"

namespace velto {

RecordingService::RecordingService(std::shared_ptr<MicrophonePreferencesStorage> microphoneStorage)
    : RecordingService(FromCore{},
                       RecordingServiceCore::create(defaultRecordingServiceDependencies(std::move(microphoneStorage)))) {}

RecordingService::RecordingService(FromCore, std::shared_ptr<RecordingServiceCore> core) : core_(std::move(core)) {}

std::unique_ptr<RecordingService> RecordingServiceAssembly::make(RecordingServiceDependencies dependencies) {
    return std::unique_ptr<RecordingService>(new RecordingService(RecordingService::FromCore{}, RecordingServiceCore::create(std::move(dependencies))));
}

RecordingService::~RecordingService() { core_->shutdown(); }

bool RecordingService::isRecordingActive() {
    auto state = core_->recordingState();
    return state == RecordingState::starting || state == RecordingState::recording || state == RecordingState::paused;
}
bool RecordingService::isRecording() { return core_->recordingState() == RecordingState::recording; }
bool RecordingService::isPaused() { return core_->recordingState() == RecordingState::paused; }
std::optional<AudioBufferStream> RecordingService::audioStream() { return core_->audioStream(); }
RecordingState RecordingService::recordingState() { return core_->recordingState(); }

EventStream<RecordingEvent> RecordingService::startRecording(const RecordingConfiguration& configuration) {
    return core_->startRecording(configuration, std::nullopt);
}

EventStream<RecordingEvent> RecordingService::startRecording() {
    return startRecording(RecordingConfiguration(AudioFormat::flac, AudioSources::microphoneOnly(), std::nullopt,
                                                 BufferConfiguration::defaultConfiguration()));
}

EventStream<RecordingEvent> RecordingService::startRecording(const RecordingConfiguration& configuration,
                                                             const std::filesystem::path& outputFile) {
    return core_->startRecording(configuration, outputFile);
}

EventStream<RecordingEvent> RecordingService::restartRecording() { return core_->restartRecording(); }
void RecordingService::stopRecording() noexcept { core_->stopRecording(); }
void RecordingService::cancelRecording() noexcept { core_->cancelRecording(); }
void RecordingService::pauseRecording() noexcept { core_->pauseRecording(); }
void RecordingService::resumeRecording() noexcept { core_->resumeRecording(); }

bool RecordingService::hasPermission() { return core_->hasPermission(); }
bool RecordingService::requestSystemAudioPermission() { return core_->requestSystemAudioPermission(); }
bool RecordingService::requestMicrophonePermission() { return core_->requestMicrophonePermission(); }
PermissionStatus RecordingService::getPermissionStatus(const RecordingConfiguration& configuration) {
    return core_->getPermissionStatus(configuration);
}
std::vector<MicrophoneDevice> RecordingService::getAvailableMicrophones() { return core_->getAvailableMicrophones(); }
std::optional<MicrophoneDevice> RecordingService::getCurrentMicrophone() { return core_->getCurrentMicrophone(); }
void RecordingService::setPreferredMicrophone(std::optional<MicrophoneDevice> device) {
    core_->setPreferredMicrophone(std::move(device));
}
void RecordingService::clearPreferredMicrophone() { core_->clearPreferredMicrophone(); }
bool RecordingService::hasStoredMicrophonePreference() { return core_->hasStoredMicrophonePreference(); }

}  // namespace velto
