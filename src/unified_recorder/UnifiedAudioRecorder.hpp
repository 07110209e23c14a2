#pragma once
// Records system audio, the microphone, or both into one file: a SystemAudioTap and/or a
// MicrophoneCapture fill their ring buffers, one AudioMixer mixes them into the file and
// into the live audio stream. Progress is reported ten times a second. When the machine's
// audio configuration changes, capture and mixing are rebuilt in place and go on writing
// into the same file.
//
// Elapsed time in every event is recorded time: the length of audio in the file, which is
// what a recording app's timer shows. Pausing keeps the sources and the mixer running (so
// that a resume is instant and starts from live audio) while the mixer writes nothing to
// the file or the live stream; no progress is reported until the resume. A configuration
// change while paused is applied all the same, so that the resume records from the right
// devices. A source that delivers only digital silence for a while is reported once with
// a `silence` event, and with `signal` when it comes back.
//
// Degradation policy: per-block problems stay inside the mixer (silence, a skipped
// block). Only these end a recording from inside: a failed start (the stream ends with
// the error), a failed restart after a configuration change, and an output file that can
// no longer be written — both of the latter close the file with everything written so
// far, emit `finished` with its location and then end the stream with the error.
//
// Threads: start, stop, cancel, pause, resume, progress ticks, configuration changes and
// write failures all run on one work queue ("io.veltoaudio.UnifiedAudioRecorder", shared
// by every recorder unless a test injects its own), so the recorder's fields are touched
// only there. The public operations may be called from any thread but that queue's work;
// stop(), pause(), resume() and cancel() return once their work has run. The forwarding
// threads touch only the LiveOutput they share with the recorder.

#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

#include "dispatch/Clock.hpp"
#include "dispatch/RepeatingTimer.hpp"
#include "dispatch/SerialQueue.hpp"
#include "dispatch/ThreadAnnotations.hpp"
#include "model/EventSource.hpp"
#include "model/LiveAudioFeed.hpp"
#include "platform/PlatformServices.hpp"
#include "model/AudioRecorderProtocol.hpp"
#include "signal/AudioMixer.hpp"
#include "signal/SilenceWatch.hpp"
#include "veltoaudio/AudioLevels.hpp"
#include "veltoaudio/Error.hpp"
#include "veltoaudio/RecordingConfiguration.hpp"

namespace velto {

class AudioFile;
class CarriedOverAudio;
class FloatRingBuffer;
class MicrophoneCapture;
class SystemAudioTap;

class UnifiedAudioRecorder final : public AudioRecorderProtocol,
                                   public std::enable_shared_from_this<UnifiedAudioRecorder> {
public:
    enum class RecorderState { idle, recording, paused, stopping, finished, cancelling, cancelled };

    static constexpr double kProgressIntervalSeconds = 0.1;
    static constexpr std::uint32_t kMicrophoneBufferSizeFrames = 1024;

    // `clock` gives the elapsed times and paces the mixer; `workQueue` (null: the shared
    // queue) runs the recorder's work and its progress timer; `mixingTicks` says who ticks
    // the mixers (their own timer, or a test through mixer()->tick()).
    static std::shared_ptr<UnifiedAudioRecorder> create(std::filesystem::path fileURL,
                                                        RecordingConfiguration configuration,
                                                        platform::PlatformServices services,
                                                        std::shared_ptr<Clock> clock = Clock::system(),
                                                        std::shared_ptr<SerialQueue> workQueue = nullptr,
                                                        MixingTicks mixingTicks = MixingTicks::timer);
    ~UnifiedAudioRecorder() override;
    UnifiedAudioRecorder(const UnifiedAudioRecorder&) = delete;
    UnifiedAudioRecorder& operator=(const UnifiedAudioRecorder&) = delete;
    UnifiedAudioRecorder(UnifiedAudioRecorder&&) = delete;
    UnifiedAudioRecorder& operator=(UnifiedAudioRecorder&&) = delete;

    // Taking the events schedules the start (it runs once, from idle).
    EventStream<RecordingEvent> events() override;
    AudioBufferStream audioStream() override;
    void stop() override;
    void pause() override;
    void resume() override;
    void cancel() override;

    // Read on the work queue, so the answer reflects all work queued before.
    RecorderState state() const;
    const std::filesystem::path& fileURL() const { return fileURL_; }
    // The current mixer (replaced at each restart); null when none runs. Read on the work queue.
    std::shared_ptr<AudioMixer> mixer() const;

    // The queue every recorder works on unless given its own.
    static const std::shared_ptr<SerialQueue>& sharedWorkQueue();

    // What the forwarding threads share with the recorder: the live audio feed and the
    // mixer's latest levels. Any thread.
    struct LiveOutput {
        LiveAudioFeed audio;
        mutable Mutex levelsLock;
        MixerLevels currentLevels VELTO_GUARDED_BY(levelsLock);
        // Each source's loudest block peak (dBFS, before its gain) written since the last
        // takeLoudestPeaks(); none for a source with no block in between.
        struct LoudestPeaks {
            std::optional<float> microphone;
            std::optional<float> systemAudio;
        };
        LoudestPeaks loudestPeaks VELTO_GUARDED_BY(levelsLock);
        MixerLevels levels() const;
        void setLevels(MixerLevels levels);
        LoudestPeaks takeLoudestPeaks();
    };

    struct Private;
    UnifiedAudioRecorder(const Private&, std::filesystem::path fileURL, RecordingConfiguration configuration,
                         platform::PlatformServices services, std::shared_ptr<Clock> clock,
                         std::shared_ptr<SerialQueue> workQueue, MixingTicks mixingTicks);

private:
    void startRecording();
    void configureOutputFile();
    void setupAudioComponents();
    void startAudioCapture();
    void startAudioMixing();
    double microphoneSampleRate() const;
    bool separateTracks() const;
    RecordingEvent progressEvent(double elapsedSeconds) const;
    void startForwarding(const std::shared_ptr<AudioMixer>& mixer);
    void endForwarding();
    void startProgressTimer();
    void progressTick();
    void pauseRecording();
    void resumeRecording();
    void finishRecording(RecorderState transitional, RecorderState final);
    void handleConfigurationChange();
    void discardCarriedIfRateChanged(int64_t prefilledFrames, const std::optional<CarriedOverAudio>& carried,
                                     double newSampleRateHertz, const std::shared_ptr<FloatRingBuffer>& ring);
    void handleWriteFailure(const std::shared_ptr<AudioMixer>& failedMixer, ErrorPtr cause);
    void handleLengthReached(const std::shared_ptr<AudioMixer>& mixer);
    // Before the mixer takes its last frames: the sources hand over all they have captured.
    void flushSources();
    void stopComponents();
    void cleanup(std::exception_ptr endingError = nullptr);
    // The length of audio in the file so far.
    double recordedSeconds() const;
    void watchForSilence();

    const std::shared_ptr<SerialQueue> queue_;
    const std::shared_ptr<Clock> clock_;
    const platform::PlatformServices services_;
    const std::filesystem::path fileURL_;
    const RecordingConfiguration configuration_;
    const std::shared_ptr<LiveOutput> liveOutput_;
    const MixingTicks mixingTicks_;

    // Fixed at creation.
    EventStream<RecordingEvent> stream_;
    EventSource<RecordingEvent>::Continuation recordingEventStreamContinuation_;

    // Work queue only.
    std::shared_ptr<SystemAudioTap> systemAudioTap_;
    std::shared_ptr<MicrophoneCapture> microphoneCapture_;
    std::shared_ptr<AudioMixer> audioMixer_;
    std::shared_ptr<AudioFile> audioFile_;
    std::shared_ptr<RepeatingTimer> progressTimer_;
    std::vector<SilenceWatch> silenceWatches_;
    RecorderState recorderState_ = RecorderState::idle;
    std::optional<platform::ConfigurationChangeObserverToken> configurationChangeObserver_;
    // The consumer end of the running mixer's stream, kept while its blocks are relayed.
    AudioBufferStream relayedMixerStream_;
    // A source's clock as the mixer before a restart had come to know it: the
    // restarted mixer starts from it when the source comes back on the same device.
    struct KnownClock {
        std::string deviceUID;
        double skew = 0.0;
    };
    std::optional<KnownClock> microphoneClock_;
    std::optional<KnownClock> systemClock_;
    // Before the mixer goes: what it learnt of each source's clock.
    void rememberSourceClocks();
    std::optional<double> carriedSkew(const std::optional<KnownClock>& known, const std::string& deviceUID,
                                      const char* sourceName) const;
};

const char* caseName(UnifiedAudioRecorder::RecorderState state);

}  // namespace velto
