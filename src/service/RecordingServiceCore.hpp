#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "dispatch/SerialQueue.hpp"
#include "model/EventSource.hpp"
#include "service/ForwardingTask.hpp"
#include "service/RecordingServiceDependencies.hpp"
#include "veltoaudio/RecordingState.hpp"

namespace velto {

// The state and logic behind RecordingService, shared so that the forwarding tasks and
// the event streams' termination handlers hold it weakly.
//
// Serialisation works like an actor with await points: every operation, each step of a
// forwarding task and each cleanup runs while holding the "turn" (turn_). An operation
// gives the turn back while it waits on something outside (the recorder's stop(), pause(),
// resume() or cancel(), a permission request), so the recording's events keep flowing
// meanwhile and may end the recording first. Fields marked [turn] are read and written
// only with the turn held.
//
// Threads: every public member may be called from any thread; none may be called from a
// recorder's own callbacks. shutdown() once, from the owner, before the last release.
class RecordingServiceCore : public std::enable_shared_from_this<RecordingServiceCore> {
public:
    static std::shared_ptr<RecordingServiceCore> create(RecordingServiceDependencies dependencies);
    explicit RecordingServiceCore(RecordingServiceDependencies dependencies);

    RecordingState recordingState();
    std::optional<AudioBufferStream> audioStream();

    EventStream<RecordingEvent> startRecording(const RecordingConfiguration& configuration,
                                               const std::optional<std::filesystem::path>& outputFile);
    EventStream<RecordingEvent> restartRecording();
    void stopRecording() noexcept;
    void cancelRecording() noexcept;
    void pauseRecording() noexcept;
    void resumeRecording() noexcept;

    bool hasPermission();
    bool requestSystemAudioPermission();
    bool requestMicrophonePermission();
    PermissionStatus getPermissionStatus(const RecordingConfiguration& configuration);
    std::vector<MicrophoneDevice> getAvailableMicrophones();
    std::optional<MicrophoneDevice> getCurrentMicrophone();
    void setPreferredMicrophone(std::optional<MicrophoneDevice> device);
    void clearPreferredMicrophone();
    bool hasStoredMicrophonePreference();

    // Cancels a running recording and waits for every background task of the service.
    void shutdown();

private:
    using Turn = std::unique_lock<std::mutex>;

    void transition(RecordingState newState, Turn&);
    EventStream<RecordingEvent> startRecordingLocked(const RecordingConfiguration& configuration,
                                                     const std::optional<std::filesystem::path>& outputFile, Turn&);
    EventStream<RecordingEvent> prepareRecording(const RecordingConfiguration& configuration,
                                                 const std::optional<std::filesystem::path>& outputFile, Turn&);
    std::optional<MicrophoneDevice> currentMicrophoneLocked(Turn&);
    // Throws RecordingError::soundServerUnreachable when no sound server answers.
    void throwIfNoSoundServer();
    void cleanup(Turn&);
    void joinEndedTasks(Turn&);
    bool isCurrentSession(std::uint64_t generation, Turn&) const;

    // The forwarding task's body and its steps, each with the turn held.
    static void forwardEvents(std::weak_ptr<RecordingServiceCore> weakCore, std::shared_ptr<ForwardingTask> task,
                              std::filesystem::path fileURL, RecordingConfiguration configuration,
                              std::optional<MicrophoneDevice> microphone,
                              EventSource<RecordingEvent>::Continuation continuation);
    std::optional<EventStream<RecordingEvent>> makeRecorderAndTakeEvents(
        ForwardingTask& task, const std::filesystem::path& fileURL, const RecordingConfiguration& configuration,
        const std::optional<MicrophoneDevice>& microphone, Turn&);
    void relayEvent(ForwardingTask& task, RecordingEvent event,
                    const EventSource<RecordingEvent>::Continuation& continuation, Turn&);
    void finishForwarding(ForwardingTask& task, std::exception_ptr failure,
                          const EventSource<RecordingEvent>::Continuation& continuation, Turn&);
    void cleanupForTerminatedStream(std::uint64_t generation);

    // Waits, without the turn, for the recording's last events to be relayed after the
    // recorder was told to stop or cancel.
    void waitForForwardingToEnd(const std::shared_ptr<ForwardingTask>& task);

    const RecordingServiceDependencies dependencies_;
    // Runs the cleanups that the caller's stream's termination handler starts.
    const std::shared_ptr<SerialQueue> backgroundQueue_;

    std::mutex turn_;
    RecordingState recordingState_ = RecordingState::idle;                 // [turn]
    std::shared_ptr<AudioRecorderProtocol> recorderStream_;                // [turn]
    std::shared_ptr<ForwardingTask> recordingTask_;                        // [turn]
    std::optional<RecordingConfiguration> configuration_;                  // [turn]
    // Counts accepted starts, so that a task or handler of an earlier session never
    // cleans up a later one.
    std::uint64_t sessionGeneration_ = 0;                                  // [turn]
    std::vector<std::shared_ptr<ForwardingTask>> tasks_;                   // [turn] every task not yet joined
    bool shuttingDown_ = false;                                            // [turn]
};

}  // namespace velto
