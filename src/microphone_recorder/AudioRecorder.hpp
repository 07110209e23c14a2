#pragma once
// Records the microphone alone into one WAV or FLAC file through one audio engine:
// each tapped block is brought to 16000 Hz when needed, appended to the file, handed to
// the live audio stream, metered and reported as one progress event.
//
// Threads: every piece of work (start, block handling, pause, resume, stop, cancel, the
// reader's cancellation) runs on the one recorder queue "io.veltoaudio.AudioRecorder",
// shared by all recorders, so the fields below need no lock. The public operations may be
// called from any thread except that queue's own work; stop(), pause(), resume() and
// cancel() return once their work has run. The engine's tap thread only copies samples
// into a TapInlet allocated at set-up; the queue collects them every 10 ms (and before
// every state change, so that a block is handled in the state it arrived in).
//
// Elapsed time in its events is recorded time, the length of audio in the file: blocks
// that arrive while paused are dropped and do not count.
//
// It does not end a recording at RecordingConfiguration::maximumDurationSeconds: it serves
// only systems without system-audio capture, which the Linux build never reports, and the
// host's stop ends it there.

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>

#include "dispatch/Clock.hpp"
#include "dispatch/RepeatingTimer.hpp"
#include "dispatch/SerialQueue.hpp"
#include "model/EventSource.hpp"
#include "model/LiveAudioFeed.hpp"
#include "platform/PlatformServices.hpp"
#include "model/AudioRecorderProtocol.hpp"
#include "signal/SilenceWatch.hpp"
#include "veltoaudio/AudioFormat.hpp"
#include "veltoaudio/AudioLevels.hpp"
#include "veltoaudio/MicrophoneDevice.hpp"

namespace velto {

class AudioConverter;
class AudioFile;
class TapInlet;

class AudioRecorder final : public AudioRecorderProtocol, public std::enable_shared_from_this<AudioRecorder> {
public:
    enum class RecorderState { idle, recording, paused, stopping, finished, cancelling, cancelled };

    // Creating the recorder starts it: the start is queued at once.
    static std::shared_ptr<AudioRecorder> create(std::filesystem::path fileURL, AudioFormat format,
                                                 std::optional<MicrophoneDevice> preferredMicrophone,
                                                 platform::PlatformServices services,
                                                 std::shared_ptr<Clock> clock = Clock::system());
    ~AudioRecorder() override;
    AudioRecorder(const AudioRecorder&) = delete;
    AudioRecorder& operator=(const AudioRecorder&) = delete;

    EventStream<RecordingEvent> events() override;
    AudioBufferStream audioStream() override;
    void stop() override;
    void pause() override;
    void resume() override;
    void cancel() override;

    // Read on the recorder queue, so the answer reflects all work queued before.
    RecorderState state() const;
    // The output file; the format-corrected location once set-up has run.
    std::filesystem::path fileURL() const;

    // The queue every AudioRecorder works on.
    static const std::shared_ptr<SerialQueue>& recorderQueue();

    // Levels of the first channel, in dBFS: silence and empty buffers read -160.
    static AudioLevels calculateLevels(const PcmBuffer& buffer);

    struct Private;
    AudioRecorder(const Private&, std::filesystem::path fileURL, AudioFormat format,
                  std::optional<MicrophoneDevice> preferredMicrophone, platform::PlatformServices services,
                  std::shared_ptr<Clock> clock);

private:
    void startEngineRecording();
    void setupRecording();
    void configureInputDevice(const MicrophoneDevice& device, const platform::AudioSystemSnapshot& system);
    void processAudioBuffer(const std::shared_ptr<PcmBuffer>& buffer);
    void startDrainTimer();
    void stopDrainTimer();
    void takeEverythingCaptured();
    void drainTapInlet(bool everything);
    void endAfterWriteFailure(std::exception_ptr writeError);
    void pauseRecording();
    void resumeRecording();
    void stopEngineAndCloseFile();
    void stopRecording();
    void cancelRecording();
    void handleCancellation();
    void cleanup();
    double elapsedSeconds() const;

    const std::shared_ptr<SerialQueue> queue_;
    const std::shared_ptr<Clock> clock_;
    const platform::PlatformServices services_;
    const AudioFormat format_;
    const std::optional<MicrophoneDevice> preferredMicrophone_;
    const std::shared_ptr<platform::AudioInputEngine> audioEngine_;

    // Recorder queue only.
    std::filesystem::path fileURL_;
    std::shared_ptr<AudioFile> audioFile_;
    std::shared_ptr<AudioConverter> audioConverter_;
    EventSource<RecordingEvent>::Continuation continuation_;
    RecorderState recorderState_ = RecorderState::idle;
    bool tapInstalled_ = false;
    std::shared_ptr<TapInlet> tapInlet_;
    std::shared_ptr<RepeatingTimer> drainTimer_;
    int64_t reportedDroppedFrames_ = 0;
    SilenceWatch silenceWatch_{RecordingEvent::Source::microphone};

    // Fixed at creation.
    EventStream<RecordingEvent> stream_;

    // Any thread: the host opts in by reading audioStream().
    LiveAudioFeed liveAudio_;
};

const char* caseName(AudioRecorder::RecorderState state);

}  // namespace velto
