#include "ServiceBackend.hpp"

namespace velto::cli {

ServiceBackend::ServiceBackend() : service_(std::make_unique<RecordingService>(nullptr)) {}

EventStream<RecordingEvent> ServiceBackend::startRecording(const RecordingConfiguration& configuration,
                                                           const std::optional<std::filesystem::path>& outputFile) {
    if (outputFile) return service_->startRecording(configuration, *outputFile);
    return service_->startRecording(configuration);
}

void ServiceBackend::stopRecording() { service_->stopRecording(); }
void ServiceBackend::cancelRecording() { service_->cancelRecording(); }
void ServiceBackend::pauseRecording() { service_->pauseRecording(); }
void ServiceBackend::resumeRecording() { service_->resumeRecording(); }
std::vector<MicrophoneDevice> ServiceBackend::availableMicrophones() { return service_->getAvailableMicrophones(); }
std::optional<MicrophoneDevice> ServiceBackend::currentMicrophone() { return service_->getCurrentMicrophone(); }
bool ServiceBackend::hasStoredMicrophonePreference() { return service_->hasStoredMicrophonePreference(); }
void ServiceBackend::setPreferredMicrophone(const MicrophoneDevice& device) { service_->setPreferredMicrophone(device); }
void ServiceBackend::clearPreferredMicrophone() { service_->clearPreferredMicrophone(); }

PermissionStatus ServiceBackend::permissionStatus(const RecordingConfiguration& configuration) {
    return service_->getPermissionStatus(configuration);
}

}  // namespace velto::cli
