#include "service/RecordingServiceCore.hpp"

#include <cmath>
#include <string>
#include <utility>

#include "logging/LoggerCompat.hpp"
#include "veltoaudio/RecordingError.hpp"
#include "veltoaudio/UserDefaultsMicrophoneStorage.hpp"

namespace velto {

namespace {

LoggerCompat& logger() {
    static LoggerCompat l{kLogSubsystem, "RecordingService"};
    return l;
}

// A stopped or cancelled recorder delivers its last events (finished, cancelled) and
// ends its sequence as part of stop()/cancel(); the forwarding task then relays them.
// The operation waits this long for that before it cleans up, so that a recorder which
// never ends its sequence cannot hold the caller forever.
constexpr double kForwardingDrainSeconds = 2.0;

constexpr const char* kDefaultMicrophoneStorageKey = "selectedMicrophoneDeviceId";

RecordingServiceDependencies withDefaults(RecordingServiceDependencies dependencies) {
    if (!dependencies.microphoneStorage) {
        dependencies.microphoneStorage =
            std::make_shared<UserDefaultsMicrophoneStorage>(kDefaultMicrophoneStorageKey);
    }
    if (!dependencies.clock) dependencies.clock = Clock::system();
    if (!dependencies.operatingSystemVersion) dependencies.operatingSystemVersion = currentOperatingSystemVersion;
    return dependencies;
}

bool supportsSystemAudio(const OperatingSystemVersion& version) { return version.isAtLeast(14, 4, 0); }

PermissionState mapMicrophoneStatus(platform::AuthorizationStatus status) {
    switch (status) {
        case platform::AuthorizationStatus::notDetermined: return PermissionState::notDetermined;
        case platform::AuthorizationStatus::restricted: return PermissionState::denied;
        case platform::AuthorizationStatus::denied: return PermissionState::denied;
        case platform::AuthorizationStatus::authorized: return PermissionState::granted;
    }
    return PermissionState::notDetermined;
}

// The recorder contract says its control operations never throw; one that does anyway
// must not take the service down with it.
template <class Call>
void callRecorder(const char* operation, Call call) {
    try {
        call();
    } catch (...) {
        logger().error(std::string("Recorder ") + operation + " failed: " + describeError(std::current_exception()));
    }
}

}  // namespace

std::shared_ptr<RecordingServiceCore> RecordingServiceCore::create(RecordingServiceDependencies dependencies) {
    return std::make_shared<RecordingServiceCore>(std::move(dependencies));
}

RecordingServiceCore::RecordingServiceCore(RecordingServiceDependencies dependencies)
    : dependencies_(withDefaults(std::move(dependencies))),
      backgroundQueue_(SerialQueue::create(std::string(kIdentifierPrefix) + ".RecordingService.cleanup",
                                           QualityOfService::defaultQoS, dependencies_.clock)) {}

// MARK: - State

void RecordingServiceCore::transition(RecordingState newState, Turn&) {
    logger().debug(std::string("State transition: ") + caseName(recordingState_) + " -> " + caseName(newState));
    recordingState_ = newState;
}

RecordingState RecordingServiceCore::recordingState() {
    Turn turn(turn_);
    return recordingState_;
}

std::optional<AudioBufferStream> RecordingServiceCore::audioStream() {
    Turn turn(turn_);
    // Asked for, not taken at construction: a recorder keeps no live copy of its audio
    // until a host wants one.
    if (!recorderStream_) return std::nullopt;
    return recorderStream_->audioStream();
}

bool RecordingServiceCore::isCurrentSession(std::uint64_t generation, Turn&) const {
    return generation == sessionGeneration_;
}

void RecordingServiceCore::cleanup(Turn& turn) {
    if (recordingState_ == RecordingState::idle) {
        logger().debug("Cleanup called but already in idle state");
        return;
    }
    logger().debug(std::string("Starting cleanup from state: ") + caseName(recordingState_));
    if (recordingTask_) {
        recordingTask_->cancel();
        recordingTask_.reset();
    }
    // The recorder is released without any call on it.
    recorderStream_.reset();
    transition(RecordingState::idle, turn);
    logger().debug("Cleanup completed");
}

// MARK: - Start

EventStream<RecordingEvent> RecordingServiceCore::startRecording(const RecordingConfiguration& configuration,
                                                                 const std::optional<std::filesystem::path>& outputFile) {
    Turn turn(turn_);
    return startRecordingLocked(configuration, outputFile, turn);
}

EventStream<RecordingEvent> RecordingServiceCore::startRecordingLocked(
    const RecordingConfiguration& configuration, const std::optional<std::filesystem::path>& outputFile, Turn& turn) {
    logger().info("Starting unified recording session with configuration");
    if (recordingState_ != RecordingState::idle) {
        logger().critical(std::string("Recording start failed - invalid state transition from ") +
                          caseName(recordingState_));
        throw RecordingError::invalidState();
    }
    if (configuration.trackLayout == TrackLayout::separate && configuration.sources.kind() != AudioSources::Kind::both) {
        logger().error("Separate tracks refused: the recording has one source");
        throw RecordingError::separateTracksNeedBothSources();
    }
    if (const auto& limit = configuration.maximumDurationSeconds; limit && !(std::isfinite(*limit) && *limit > 0)) {
        logger().error("Maximum duration refused: " + std::to_string(*limit) + " s");
        throw RecordingError::invalidMaximumDuration();
    }
    transition(RecordingState::starting, turn);
    configuration_ = configuration;
    ++sessionGeneration_;
    try {
        return prepareRecording(configuration, outputFile, turn);
    } catch (...) {
        // Nothing was made before the failure: back to idle, ready for the next start (the
        // configuration stays for a restart).
        transition(RecordingState::idle, turn);
        throw;
    }
}

EventStream<RecordingEvent> RecordingServiceCore::prepareRecording(
    const RecordingConfiguration& configuration, const std::optional<std::filesystem::path>& outputFile, Turn& turn) {
    const auto& sources = configuration.sources;
    // Without a server every later check would answer wrongly (no permission, no tap).
    throwIfNoSoundServer();
    if (sources.includeMicrophone() &&
        dependencies_.microphoneAuthorizationStatus() != platform::AuthorizationStatus::authorized) {
        logger().critical("Recording start failed - microphone permission denied");
        throw RecordingError::permissionDenied();
    }
    if (sources.includeSystemAudio()) {
        if (!supportsSystemAudio(dependencies_.operatingSystemVersion())) {
            logger().critical("Recording start failed - system audio capture is not available on this system");
            throw RecordingError::systemAudioFormatNotSupported();
        }
        // The tap's creation reports a refusal; asking here would prompt twice.
        logger().debug("System audio requested - permission will be validated during tap creation");
    }

    std::optional<MicrophoneDevice> microphone =
        configuration.preferredMicrophone ? configuration.preferredMicrophone : currentMicrophoneLocked(turn);

    if (sources.includeMicrophone()) {
        try {
            dependencies_.sessionManager->configureSession(microphone);
        } catch (...) {
            auto failure = std::current_exception();
            logger().critical("Recording start failed - session configuration failed: " + describeError(failure));
            throw RecordingError::sessionConfigurationFailed(captureError(failure));
        }
        logger().debug("Audio session configured successfully");
        dependencies_.sessionManager->logDeviceInformation();
    }

    std::filesystem::path fileURL =
        outputFile ? *outputFile : dependencies_.generateRecordingFileURL(configuration.audioFormat);

    auto made = EventSource<RecordingEvent>::make();
    EventStream<RecordingEvent> stream = made.first;
    EventSource<RecordingEvent>::Continuation continuation = made.second;

    joinEndedTasks(turn);
    auto task = std::make_shared<ForwardingTask>(sessionGeneration_);
    recordingTask_ = task;
    tasks_.push_back(task);

    std::weak_ptr<RecordingServiceCore> weakCore = weak_from_this();
    const std::uint64_t generation = sessionGeneration_;
    // May run on any thread, the forwarding task's included (with the turn held), so it
    // only hands the cleanup to the background queue.
    continuation.setOnTermination([weakCore, generation](StreamTermination) {
        if (auto core = weakCore.lock()) core->cleanupForTerminatedStream(generation);
    });
    // The task waits for the turn, which this operation holds until it has returned.
    task->start([weakCore, task, fileURL, configuration, microphone, continuation] {
        forwardEvents(weakCore, task, fileURL, configuration, microphone, continuation);
    });
    return stream;
}

EventStream<RecordingEvent> RecordingServiceCore::restartRecording() {
    Turn turn(turn_);
    logger().info("Restarting recording session");
    if (recordingState_ != RecordingState::idle) {
        logger().debug("Cancelling current recording before restart");
        // The current recorder gets no stop() or cancel(): it is simply released.
        if (recordingTask_) recordingTask_->cancel();
        cleanup(turn);
    }
    if (!configuration_) throw RecordingError::invalidState();
    RecordingConfiguration configuration = *configuration_;
    // A restart records into a new file.
    return startRecordingLocked(configuration, std::nullopt, turn);
}

// MARK: - Forwarding

void RecordingServiceCore::forwardEvents(std::weak_ptr<RecordingServiceCore> weakCore,
                                         std::shared_ptr<ForwardingTask> task, std::filesystem::path fileURL,
                                         RecordingConfiguration configuration,
                                         std::optional<MicrophoneDevice> microphone,
                                         EventSource<RecordingEvent>::Continuation continuation) {
    std::optional<EventStream<RecordingEvent>> events;
    std::exception_ptr failure;
    if (auto core = weakCore.lock()) {
        Turn turn(core->turn_);
        try {
            events = core->makeRecorderAndTakeEvents(*task, fileURL, configuration, microphone, turn);
        } catch (...) {
            failure = std::current_exception();
        }
    }

    // Waits on the recorder without the turn; each event is handled with it.
    while (events && !failure) {
        std::optional<RecordingEvent> event;
        try {
            event = events->next();
        } catch (...) {
            failure = std::current_exception();
            break;
        }
        if (!event) break;
        auto core = weakCore.lock();
        if (!core) break;
        Turn turn(core->turn_);
        core->relayEvent(*task, std::move(*event), continuation, turn);
    }

    if (auto core = weakCore.lock()) {
        Turn turn(core->turn_);
        core->finishForwarding(*task, std::move(failure), continuation, turn);
    } else if (failure) {
        continuation.finish(std::move(failure));
    } else {
        continuation.finish();
    }
    task->markEnded();
}

std::optional<EventStream<RecordingEvent>> RecordingServiceCore::makeRecorderAndTakeEvents(
    ForwardingTask& task, const std::filesystem::path& fileURL, const RecordingConfiguration& configuration,
    const std::optional<MicrophoneDevice>& microphone, Turn&) {
    // Cleaned up before the task had its first turn: there is no recording to make.
    if (task.isCancelled()) return std::nullopt;

    // The one place the recorder is chosen. On Linux the reported feature level is fixed
    // (currentOperatingSystemVersion() answers 14.4), so a real process always takes the
    // unified recorder, microphone-only recordings included; the microphone-only recorder
    // runs only where a lower level is injected, as in the service tests.
    std::shared_ptr<AudioRecorderProtocol> recorder;
    if (supportsSystemAudio(dependencies_.operatingSystemVersion())) {
        logger().info("Using UnifiedAudioRecorder for multi-source recording");
        recorder = dependencies_.makeUnifiedRecorder(fileURL, configuration);
    } else {
        // Only microphone recordings get here: system audio was refused at start.
        logger().info("Using AudioRecorder for microphone-only recording");
        recorder = dependencies_.makeMicrophoneRecorder(fileURL, configuration.audioFormat, microphone);
    }
    if (!recorder) throw RecordingError::recorderInitializationFailed();

    recorderStream_ = recorder;
    EventStream<RecordingEvent> events = recorder->events();
    task.setRecorderEvents(events);
    return events;
}

void RecordingServiceCore::relayEvent(ForwardingTask& task, RecordingEvent event,
                                      const EventSource<RecordingEvent>::Continuation& continuation, Turn& turn) {
    // A task that was cleaned up while this event waited for the turn still hands it on
    // (it may be the `finished` a stopping caller waits for) but no longer moves the state.
    // Only from starting: a progress report made just before a pause may arrive after it,
    // and must not undo it.
    if (event.kind == RecordingEvent::Kind::progress && recordingState_ == RecordingState::starting &&
        !task.isCancelled()) {
        transition(RecordingState::recording, turn);
    }
    continuation.yield(std::move(event));
}

void RecordingServiceCore::finishForwarding(ForwardingTask& task, std::exception_ptr failure,
                                            const EventSource<RecordingEvent>::Continuation& continuation,
                                            Turn& turn) {
    // A task of an earlier session (released by a restart) must not touch the new one.
    const bool ownSession = isCurrentSession(task.sessionGeneration(), turn);
    if (!failure) {
        logger().info("Recording stream completed successfully");
        continuation.finish();
    } else {
        if (ownSession) transition(RecordingState::error, turn);
        logger().critical("Recording stream failed: " + describeError(failure));
        // Handed over, not copied: the caller's side then holds the error's last reference,
        // so it is released on the thread that reads it.
        continuation.finish(std::move(failure));
    }
    if (ownSession) cleanup(turn);
}

void RecordingServiceCore::cleanupForTerminatedStream(std::uint64_t generation) {
    std::weak_ptr<RecordingServiceCore> weakCore = weak_from_this();
    backgroundQueue_->async([weakCore, generation] {
        auto core = weakCore.lock();
        if (!core) return;
        Turn turn(core->turn_);
        if (core->shuttingDown_ || !core->isCurrentSession(generation, turn)) return;
        core->cleanup(turn);
    });
}

void RecordingServiceCore::joinEndedTasks(Turn&) {
    // An ended task has given back the turn for good, so joining it here cannot wait on us.
    std::erase_if(tasks_, [](const std::shared_ptr<ForwardingTask>& task) {
        if (!task->hasEnded()) return false;
        task->join();
        return true;
    });
}

void RecordingServiceCore::waitForForwardingToEnd(const std::shared_ptr<ForwardingTask>& task) {
    if (!task) return;
    const auto& clock = *dependencies_.clock;
    task->waitUntilEnded(clock, clock.nowSeconds() + kForwardingDrainSeconds);
}

// MARK: - Control

void RecordingServiceCore::stopRecording() noexcept {
    std::shared_ptr<AudioRecorderProtocol> recorder;
    std::shared_ptr<ForwardingTask> task;
    {
        Turn turn(turn_);
        logger().info("Stopping recording session");
        if (recordingState_ != RecordingState::recording && recordingState_ != RecordingState::paused) {
            logger().error(std::string("Cannot stop recording - invalid state: ") + caseName(recordingState_));
            return;
        }
        transition(RecordingState::stopping, turn);
        if (!recorderStream_) {
            logger().error("No active recording stream to stop");
            cleanup(turn);
            return;
        }
        recorder = recorderStream_;
        task = recordingTask_;
    }
    callRecorder("stop", [&] { recorder->stop(); });
    waitForForwardingToEnd(task);
    Turn turn(turn_);
    logger().debug("Recording stream stopped successfully");
    cleanup(turn);
}

void RecordingServiceCore::cancelRecording() noexcept {
    std::shared_ptr<AudioRecorderProtocol> recorder;
    std::shared_ptr<ForwardingTask> task;
    {
        Turn turn(turn_);
        logger().info("Cancelling recording session");
        if (recordingState_ != RecordingState::starting && recordingState_ != RecordingState::recording &&
            recordingState_ != RecordingState::paused) {
            logger().error(std::string("Cannot cancel recording - invalid state: ") + caseName(recordingState_));
            return;
        }
        transition(RecordingState::cancelling, turn);
        if (!recorderStream_) {
            logger().error("No active recording stream to cancel");
            cleanup(turn);
            return;
        }
        recorder = recorderStream_;
        task = recordingTask_;
    }
    callRecorder("cancel", [&] { recorder->cancel(); });
    waitForForwardingToEnd(task);
    Turn turn(turn_);
    logger().debug("Recording stream cancelled successfully");
    cleanup(turn);
}

void RecordingServiceCore::pauseRecording() noexcept {
    std::shared_ptr<AudioRecorderProtocol> recorder;
    {
        Turn turn(turn_);
        logger().info("Pausing recording session");
        if (recordingState_ != RecordingState::recording) {
            logger().error(std::string("Cannot pause recording - invalid state: ") + caseName(recordingState_));
            return;
        }
        if (!recorderStream_) {
            logger().error("No active recording stream to pause");
            transition(RecordingState::error, turn);
            return;
        }
        recorder = recorderStream_;
    }
    callRecorder("pause", [&] { recorder->pause(); });
    Turn turn(turn_);
    transition(RecordingState::paused, turn);
    logger().debug("Recording session paused successfully");
}

void RecordingServiceCore::resumeRecording() noexcept {
    std::shared_ptr<AudioRecorderProtocol> recorder;
    {
        Turn turn(turn_);
        logger().info("Resuming recording session");
        if (recordingState_ != RecordingState::starting && recordingState_ != RecordingState::paused) {
            logger().error(std::string("Cannot resume recording - invalid state: ") + caseName(recordingState_));
            return;
        }
        if (!recorderStream_) {
            logger().error("No active recording stream to resume");
            transition(RecordingState::error, turn);
            return;
        }
        recorder = recorderStream_;
    }
    callRecorder("resume", [&] { recorder->resume(); });
    Turn turn(turn_);
    transition(RecordingState::recording, turn);
    logger().debug("Recording session resumed successfully");
}

// MARK: - Permissions and microphones

bool RecordingServiceCore::hasPermission() {
    return dependencies_.microphoneAuthorizationStatus() == platform::AuthorizationStatus::authorized;
}

bool RecordingServiceCore::requestMicrophonePermission() { return dependencies_.requestMicrophoneAccess(); }

bool RecordingServiceCore::requestSystemAudioPermission() {
    if (!supportsSystemAudio(dependencies_.operatingSystemVersion())) return false;
    logger().info("Requesting system audio permission");
    // Blocks until the user answered; it uses no service state, so it holds no turn.
    return dependencies_.systemAudioPermissionManager->requestPermission();
}

void RecordingServiceCore::throwIfNoSoundServer() {
    if (!dependencies_.unreachableSoundServer) return;
    if (auto address = dependencies_.unreachableSoundServer()) {
        logger().critical("No sound server reachable at " + *address);
        throw RecordingError::soundServerUnreachable(*address);
    }
}

PermissionStatus RecordingServiceCore::getPermissionStatus(const RecordingConfiguration& configuration) {
    // No server, no answer: "not determined" would send the user after permissions.
    throwIfNoSoundServer();
    auto systemAudioState = [this] {
        if (!supportsSystemAudio(dependencies_.operatingSystemVersion())) return PermissionState::denied;
        return dependencies_.tccPermissionProvider->checkPermissionStatus();
    };
    switch (configuration.sources.kind()) {
        case AudioSources::Kind::microphoneOnly:
            return {mapMicrophoneStatus(dependencies_.microphoneAuthorizationStatus()), PermissionState::notRequired};
        case AudioSources::Kind::systemAudioOnly:
            return {PermissionState::notRequired, systemAudioState()};
        case AudioSources::Kind::both: {
            // The microphone is read before the system-audio query.
            PermissionState microphone = mapMicrophoneStatus(dependencies_.microphoneAuthorizationStatus());
            return {microphone, systemAudioState()};
        }
    }
    return {PermissionState::notDetermined, PermissionState::notDetermined};
}

std::vector<MicrophoneDevice> RecordingServiceCore::getAvailableMicrophones() {
    Turn turn(turn_);
    return dependencies_.sessionManager->availableMicrophones();
}

std::optional<MicrophoneDevice> RecordingServiceCore::getCurrentMicrophone() {
    Turn turn(turn_);
    return currentMicrophoneLocked(turn);
}

std::optional<MicrophoneDevice> RecordingServiceCore::currentMicrophoneLocked(Turn&) {
    const auto devices = dependencies_.sessionManager->availableMicrophones();
    // A stored id that matches no attached device is kept: the device may come back.
    if (auto storedId = dependencies_.microphoneStorage->getSelectedMicrophoneId()) {
        for (const auto& device : devices)
            if (device.id == *storedId) return device;
    }
    for (const auto& device : devices)
        if (device.isDefault) return device;
    return std::nullopt;
}

void RecordingServiceCore::setPreferredMicrophone(std::optional<MicrophoneDevice> device) {
    Turn turn(turn_);
    if (recordingState_ != RecordingState::idle) throw RecordingError::invalidState();
    if (!device) {
        dependencies_.microphoneStorage->setSelectedMicrophoneId(std::nullopt);
        return;
    }
    const auto devices = dependencies_.sessionManager->availableMicrophones();
    bool attached = false;
    for (const auto& candidate : devices) attached = attached || candidate.id == device->id;
    if (!attached) throw RecordingError::deviceNotFound();
    // Only the id is kept; the device is applied at the next start.
    dependencies_.microphoneStorage->setSelectedMicrophoneId(device->id);
}

void RecordingServiceCore::clearPreferredMicrophone() {
    Turn turn(turn_);
    dependencies_.microphoneStorage->setSelectedMicrophoneId(std::nullopt);
}

bool RecordingServiceCore::hasStoredMicrophonePreference() {
    Turn turn(turn_);
    return dependencies_.microphoneStorage->getSelectedMicrophoneId().has_value();
}

// MARK: - Shutdown

void RecordingServiceCore::shutdown() {
    RecordingState state = recordingState();
    // A recording still running when its service goes away is cancelled, so the recorder
    // closes its file and the caller's stream ends.
    if (state == RecordingState::starting || state == RecordingState::recording || state == RecordingState::paused) {
        cancelRecording();
    }
    std::vector<std::shared_ptr<ForwardingTask>> tasks;
    {
        Turn turn(turn_);
        shuttingDown_ = true;
        if (recordingState_ != RecordingState::idle) cleanup(turn);
        tasks.swap(tasks_);
    }
    for (const auto& task : tasks) task->join();
    // Termination-handler cleanups already queued find the service shutting down.
    backgroundQueue_->sync([] {});
}

}  // namespace velto
