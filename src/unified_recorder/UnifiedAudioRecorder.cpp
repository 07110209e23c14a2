#include "unified_recorder/UnifiedAudioRecorder.hpp"

#include <cmath>
#include <utility>

#include "capture/MicrophoneCapture.hpp"
#include "capture/SystemAudioTap.hpp"
#include "logging/LoggerCompat.hpp"
#include "logging/NumberFormat.hpp"
#include "signal/PrivateRecordingFile.hpp"
#include "signal/AudioFile.hpp"
#include "unified_recorder/CarriedOverAudio.hpp"
#include "unified_recorder/UnifiedAudioRecorderError.hpp"
#include "veltoaudio/RecordingError.hpp"

namespace velto {

namespace {

LoggerCompat& logger() {
    static LoggerCompat l{kLogSubsystem, "UnifiedAudioRecorder"};
    return l;
}

constexpr double kOutputSampleRateHertz = 16000.0;
constexpr double kMicrophoneFallbackRateHertz = 48000.0;

// A capturing source's stop() logs its own "Stopping ..." and "... stopped" lines under
// its own category, and clears its capturing flag.
void stopIfCapturing(SystemAudioTap& tap) {
    if (tap.isCapturing()) tap.stop();
}

void stopIfCapturing(MicrophoneCapture& capture) {
    if (capture.isCapturing()) capture.stop();
}

}  // namespace

struct UnifiedAudioRecorder::Private {};

MixerLevels UnifiedAudioRecorder::LiveOutput::levels() const {
    MutexLock lock(levelsLock);
    return currentLevels;
}

void UnifiedAudioRecorder::LiveOutput::setLevels(MixerLevels levels) {
    MutexLock lock(levelsLock);
    currentLevels = levels;
    const auto keepLouder = [](std::optional<float>& loudest, const std::optional<AudioLevels>& source) {
        if (source && (!loudest || source->peak > *loudest)) loudest = source->peak;
    };
    keepLouder(loudestPeaks.microphone, levels.microphone);
    keepLouder(loudestPeaks.systemAudio, levels.system);
}

UnifiedAudioRecorder::LiveOutput::LoudestPeaks UnifiedAudioRecorder::LiveOutput::takeLoudestPeaks() {
    MutexLock lock(levelsLock);
    return std::exchange(loudestPeaks, LoudestPeaks{});
}

const std::shared_ptr<SerialQueue>& UnifiedAudioRecorder::sharedWorkQueue() {
    static const std::shared_ptr<SerialQueue> queue = SerialQueue::create(
        std::string(kIdentifierPrefix) + ".UnifiedAudioRecorder", QualityOfService::userInitiated);
    return queue;
}

std::shared_ptr<UnifiedAudioRecorder> UnifiedAudioRecorder::create(std::filesystem::path fileURL,
                                                                   RecordingConfiguration configuration,
                                                                   platform::PlatformServices services,
                                                                   std::shared_ptr<Clock> clock,
                                                                   std::shared_ptr<SerialQueue> workQueue,
                                                                   MixingTicks mixingTicks) {
    if (!workQueue) workQueue = sharedWorkQueue();
    auto recorder = std::make_shared<UnifiedAudioRecorder>(Private{}, std::move(fileURL), std::move(configuration),
                                                           std::move(services), clock ? std::move(clock) : Clock::system(),
                                                           std::move(workQueue), mixingTicks);

    std::weak_ptr<UnifiedAudioRecorder> weak = recorder;
    auto queue = recorder->queue_;
    if (recorder->services_.configurationChangeCenter) {
        recorder->configurationChangeObserver_ =
            recorder->services_.configurationChangeCenter->addObserver([weak, queue] {
                queue->async([weak] {
                    if (auto self = weak.lock()) self->handleConfigurationChange();
                });
            });
    }
    return recorder;
}

UnifiedAudioRecorder::UnifiedAudioRecorder(const Private&, std::filesystem::path fileURL,
                                           RecordingConfiguration configuration, platform::PlatformServices services,
                                           std::shared_ptr<Clock> clock, std::shared_ptr<SerialQueue> workQueue,
                                           MixingTicks mixingTicks)
    : queue_(std::move(workQueue)),
      clock_(std::move(clock)),
      services_(std::move(services)),
      fileURL_(std::move(fileURL)),
      configuration_(std::move(configuration)),
      liveOutput_(std::make_shared<LiveOutput>()),
      mixingTicks_(mixingTicks) {
    auto [events, eventsContinuation] = EventSource<RecordingEvent>::make();
    stream_ = std::move(events);
    recordingEventStreamContinuation_ = std::move(eventsContinuation);
}

UnifiedAudioRecorder::~UnifiedAudioRecorder() {
    // Released while still recording (the service drops its recorder without a stop):
    // tear the signal path down so that nothing keeps writing into a recorder that is
    // gone. No events: nobody is listening any more.
    if (progressTimer_) progressTimer_->cancel();
    if (configurationChangeObserver_ && services_.configurationChangeCenter) {
        services_.configurationChangeCenter->removeObserver(*configurationChangeObserver_);
    }
    if (audioMixer_) audioMixer_->stopMixing();
    endForwarding();
    if (systemAudioTap_) systemAudioTap_->stop();
    if (microphoneCapture_) microphoneCapture_->stop();
    if (audioFile_) audioFile_->close();
    liveOutput_->audio.finish();
}

EventStream<RecordingEvent> UnifiedAudioRecorder::events() {
    std::weak_ptr<UnifiedAudioRecorder> weak = weak_from_this();
    queue_->async([weak] {
        if (auto self = weak.lock()) self->startRecording();
    });
    return stream_;
}

AudioBufferStream UnifiedAudioRecorder::audioStream() { return liveOutput_->audio.stream(); }

void UnifiedAudioRecorder::stop() {
    auto self = shared_from_this();
    queue_->sync([self] { self->finishRecording(RecorderState::stopping, RecorderState::finished); });
}

void UnifiedAudioRecorder::cancel() {
    auto self = shared_from_this();
    queue_->sync([self] { self->finishRecording(RecorderState::cancelling, RecorderState::cancelled); });
}

void UnifiedAudioRecorder::pause() {
    auto self = shared_from_this();
    queue_->sync([self] { self->pauseRecording(); });
}

void UnifiedAudioRecorder::resume() {
    auto self = shared_from_this();
    queue_->sync([self] { self->resumeRecording(); });
}

UnifiedAudioRecorder::RecorderState UnifiedAudioRecorder::state() const {
    RecorderState state = RecorderState::idle;
    queue_->sync([&] { state = recorderState_; });
    return state;
}

std::shared_ptr<AudioMixer> UnifiedAudioRecorder::mixer() const {
    std::shared_ptr<AudioMixer> current;
    queue_->sync([&] { current = audioMixer_; });
    return current;
}

double UnifiedAudioRecorder::recordedSeconds() const {
    if (!audioFile_) return 0.0;
    return static_cast<double>(audioFile_->framesWritten()) / audioFile_->fileFormat().sampleRate;
}

void UnifiedAudioRecorder::startRecording() {
    if (recorderState_ != RecorderState::idle) return;
    recordingEventStreamContinuation_.yield(RecordingEvent::starting());
    logger().debug("Starting modern ring-buffer-based recording");
    try {
        configureOutputFile();
        setupAudioComponents();
        startAudioCapture();
        startAudioMixing();
    } catch (...) {
        const auto error = std::current_exception();
        logger().critical("Failed to start modern recording: " + caseDescriptionOf(error));
        cleanup(error);  // still idle: no terminal event, the stream ends with the error
        recorderState_ = RecorderState::finished;
        return;
    }
    recorderState_ = RecorderState::recording;
    // The mixer meters each source before its gain, so each source has a watch of its own.
    if (configuration_.sources.includeMicrophone()) silenceWatches_.emplace_back(RecordingEvent::Source::microphone);
    if (configuration_.sources.includeSystemAudio()) silenceWatches_.emplace_back(RecordingEvent::Source::systemAudio);
    recordingEventStreamContinuation_.yield(RecordingEvent::started());
    startProgressTimer();
    logger().debug("Modern ring-buffer recording started successfully");
}

void UnifiedAudioRecorder::configureOutputFile() {
    // Separate tracks: channel 1 the microphone, channel 2 the system audio.
    const int64_t channels = separateTracks() ? 2 : 1;
    const auto processingFormat =
        PcmFormat::make(kOutputSampleRateHertz, static_cast<uint32_t>(channels), /*interleaved=*/true);
    if (!processingFormat) throw RecordingError::recorderInitializationFailed();
    auto settings = makeAudioSettings(configuration_.audioFormat);
    settings[AVNumberOfChannelsKey] = channels;
    createPrivateRecordingFile(fileURL_);
    audioFile_ = AudioFile::openForWriting(fileURL_, settings, processingFormat->interleaved, clock_);
    makeRecordingFilePrivate(fileURL_, logger());
    logger().debug("Output file configured with format: " + audioFile_->processingFormat().description());
}

void UnifiedAudioRecorder::setupAudioComponents() {
    const auto& buffers = configuration_.bufferConfiguration;
    audioMixer_ = AudioMixer::create(buffers.mixingBufferCapacity(), buffers.jitterBufferFrames(), clock_,
                                     mixingTicks_);
    const int64_t ringCapacityFrames = buffers.ringBufferCapacity();

    switch (configuration_.sources.kind()) {
        case AudioSources::Kind::microphoneOnly:
            microphoneCapture_ = MicrophoneCapture::create(1, ringCapacityFrames, services_);
            systemAudioTap_.reset();
            logger().debug("Initialized only microphone capture");
            audioMixer_->setSystemGain(0.0f);
            audioMixer_->setMicrophoneGain(0.5f);
            logger().debug("Configured mixer for microphone capture only - mic: " +
                           formatFloat(audioMixer_->microphoneGain()));
            break;
        case AudioSources::Kind::systemAudioOnly:
            systemAudioTap_ = SystemAudioTap::create(2, ringCapacityFrames, services_);
            microphoneCapture_.reset();
            logger().debug("Initialized only system audio tap");
            audioMixer_->setSystemGain(0.5f);
            audioMixer_->setMicrophoneGain(0.0f);
            logger().debug("Configured mixer for system audio only - system: " +
                           formatFloat(audioMixer_->systemGain()) + ", mic: " +
                           formatFloat(audioMixer_->microphoneGain()));
            break;
        case AudioSources::Kind::both:
            microphoneCapture_ = MicrophoneCapture::create(1, ringCapacityFrames, services_);
            systemAudioTap_ = SystemAudioTap::create(2, ringCapacityFrames, services_);
            logger().debug("Initialized both microphone capture and system audio tap");
            audioMixer_->setSystemGain(0.3f);
            audioMixer_->setMicrophoneGain(0.3f);
            logger().debug("Configured mixer for dual-source - system: " + formatFloat(audioMixer_->systemGain()) +
                           ", mic: " + formatFloat(audioMixer_->microphoneGain()));
            break;
    }

    // Every delivery is stamped with the mixer's clock: the mixer keeps each
    // source in step with that clock by how far the source's deliveries run ahead or behind.
    if (microphoneCapture_) microphoneCapture_->ringBuffer()->stampDeliveriesWith(clock_);
    if (systemAudioTap_) systemAudioTap_->ringBuffer()->stampDeliveriesWith(clock_);
}

void UnifiedAudioRecorder::startAudioCapture() {
    // One read of the system serves every lookup of both sources' starts: on a sound server
    // each read is a round trip, and one read sees the devices at one moment.
    const platform::AudioSystemSnapshot system = services_.audioHardware->readSnapshotForOperation();
    if (microphoneCapture_) {
        if (configuration_.preferredMicrophone) {
            microphoneCapture_->configureInputDevice(*configuration_.preferredMicrophone, system);
        }
        microphoneCapture_->start(kMicrophoneBufferSizeFrames, system);
        logger().debug("Started microphone capture with 1024 frame buffer size");
    } else {
        logger().debug("Microphone capture not configured");
    }
    if (systemAudioTap_) {
        systemAudioTap_->start(system);
        logger().debug("Started system audio tap");
    } else {
        logger().debug("System audio tap not configured");
    }
}

void UnifiedAudioRecorder::startAudioMixing() {
    if (!audioMixer_ || !audioFile_) throw UnifiedAudioRecorderError::missingMixerOrOutputFile();
    const PcmFormat outputFormat = audioFile_->processingFormat();
    const std::string output = "output (" + formatDouble(outputFormat.sampleRate) + "Hz, " +
                               std::to_string(outputFormat.channelCount) + "ch)";

    MixerInputs inputs;
    inputs.outputFile = audioFile_;
    inputs.outputFormat = outputFormat;
    inputs.layout = separateTracks() ? MixerTrackLayout::separate : MixerTrackLayout::mixed;
    if (configuration_.maximumDurationSeconds) {
        inputs.fileFrameLimit =
            std::llround(*configuration_.maximumDurationSeconds * audioFile_->fileFormat().sampleRate);
    }
    if (systemAudioTap_) {
        inputs.system = MixerSourceInput{systemAudioTap_->ringBuffer(), systemAudioTap_->asbd().mSampleRate,
                                         systemAudioTap_->asbd().mChannelsPerFrame,
                                         carriedSkew(systemClock_, systemAudioTap_->clockDeviceUID(), "system audio")};
    }
    if (microphoneCapture_) {
        inputs.microphone =
            MixerSourceInput{microphoneCapture_->ringBuffer(), microphoneSampleRate(), 1,
                             carriedSkew(microphoneClock_, microphoneCapture_->clockDeviceUID(), "microphone")};
    }
    inputs.echoCancellation = configuration_.cancelsEcho();
    inputs.driftCorrection = true;
    if (inputs.system && inputs.microphone) {
        logger().debug("Starting dual-source mixing: system (" + formatDouble(inputs.system->sampleRateHertz) + "Hz, " +
                       std::to_string(inputs.system->channels) + "ch) + microphone (" +
                       formatDouble(inputs.microphone->sampleRateHertz) + "Hz) -> " + output);
    } else if (inputs.system) {
        logger().debug("Starting system audio only mixing: " + formatDouble(inputs.system->sampleRateHertz) + "Hz, " +
                       std::to_string(inputs.system->channels) + "ch -> " + output);
    } else if (inputs.microphone) {
        logger().debug("Starting microphone audio only mixing: " + formatDouble(inputs.microphone->sampleRateHertz) +
                       "Hz -> " + output);
    }
    // A mixer rebuilt while paused starts paused: nothing reaches the file before the resume.
    inputs.startPaused = recorderState_ == RecorderState::paused;
    audioMixer_->start(inputs);
    startForwarding(audioMixer_);
    logger().debug("Audio mixing started successfully");
}

bool UnifiedAudioRecorder::separateTracks() const {
    return configuration_.trackLayout == TrackLayout::separate && configuration_.sources.kind() == AudioSources::Kind::both;
}

double UnifiedAudioRecorder::microphoneSampleRate() const {
    if (!microphoneCapture_) return 0.0;
    const auto& format = microphoneCapture_->inputFormat();
    return format ? format->sampleRate : kMicrophoneFallbackRateHertz;  // no format yet: mixed as 48 kHz
}

void UnifiedAudioRecorder::startForwarding(const std::shared_ptr<AudioMixer>& mixer) {
    // A file that can no longer be written ends the recording; the report hops onto the
    // work queue and names its mixer, so a report from a mixer already replaced by a
    // restart is recognised and ignored.
    std::weak_ptr<UnifiedAudioRecorder> weak = weak_from_this();
    std::weak_ptr<AudioMixer> weakMixer = mixer;
    auto queue = queue_;
    mixer->setWriteFailureHandler([weak, weakMixer, queue](ErrorPtr cause) {
        queue->async([weak, weakMixer, cause] {
            if (auto self = weak.lock()) self->handleWriteFailure(weakMixer.lock(), cause);
        });
    });
    // A file that holds the longest duration asked for ends the recording as a stop would.
    mixer->setLimitReachedHandler([weak, weakMixer, queue] {
        queue->async([weak, weakMixer] {
            if (auto self = weak.lock()) self->handleLengthReached(weakMixer.lock());
        });
    });

    // Blocks are relayed on the mixer's own thread as they are mixed, rather than by a
    // thread of ours woken for every block. The relay holds the shared live output and
    // only a weak reference to the mixer: whoever yields a block already holds the mixer.
    relayedMixerStream_ = mixer->audioStream();
    AudioBufferSource::relay(relayedMixerStream_, [weakMixer, live = liveOutput_](std::shared_ptr<PcmBuffer> block) {
        live->audio.deliver(std::move(block));
        if (auto yieldingMixer = weakMixer.lock()) live->setLevels(yieldingMixer->levels());
    });
}

void UnifiedAudioRecorder::endForwarding() {
    // Called once the mixer has stopped (stopMixing finishes its stream): no relay runs
    // any more, and the consumer end can go.
    relayedMixerStream_ = {};
}

void UnifiedAudioRecorder::startProgressTimer() {
    progressTimer_ = RepeatingTimer::create(queue_);
    std::weak_ptr<UnifiedAudioRecorder> weak = weak_from_this();
    progressTimer_->setEventHandler([weak] {
        if (auto self = weak.lock()) self->progressTick();
    });
    progressTimer_->schedule(queue_->clock()->nowSeconds(), kProgressIntervalSeconds, 0.0);
    progressTimer_->resume();
}

RecordingEvent UnifiedAudioRecorder::progressEvent(double elapsedSeconds) const {
    const MixerLevels levels = liveOutput_->levels();
    return RecordingEvent::progress(elapsedSeconds, levels.mix, levels.microphone, levels.system);
}

void UnifiedAudioRecorder::progressTick() {
    if (recorderState_ != RecorderState::recording) return;
    recordingEventStreamContinuation_.yield(progressEvent(recordedSeconds()));
    watchForSilence();
}

void UnifiedAudioRecorder::watchForSilence() {
    const auto peaks = liveOutput_->takeLoudestPeaks();
    const double recorded = recordedSeconds();
    for (auto& watch : silenceWatches_) {
        // No block of this source written since the last look: no new span to judge.
        const auto& peakDecibels =
            watch.source() == RecordingEvent::Source::microphone ? peaks.microphone : peaks.systemAudio;
        if (!peakDecibels) continue;
        if (auto event = watch.observe(*peakDecibels, recorded)) {
            logger().info(std::string(event->kind == RecordingEvent::Kind::silence ? "Only digital silence from the "
                                                                                    : "Signal again from the ") +
                          caseName(watch.source()) + " since " + formatDouble(event->elapsedSeconds) + "s");
            recordingEventStreamContinuation_.yield(std::move(*event));
        }
    }
}

void UnifiedAudioRecorder::pauseRecording() {
    if (recorderState_ != RecorderState::recording) return;
    recorderState_ = RecorderState::paused;
    if (audioMixer_) audioMixer_->setOutputPaused(true);
    const double recorded = recordedSeconds();
    logger().debug("Recording paused at " + formatDouble(recorded) + "s");
    recordingEventStreamContinuation_.yield(RecordingEvent::paused(recorded));
}

void UnifiedAudioRecorder::resumeRecording() {
    if (recorderState_ != RecorderState::paused) return;
    recorderState_ = RecorderState::recording;
    if (audioMixer_) audioMixer_->setOutputPaused(false);
    const double recorded = recordedSeconds();
    logger().debug("Recording resumed at " + formatDouble(recorded) + "s");
    recordingEventStreamContinuation_.yield(RecordingEvent::resumed(recorded));
}

void UnifiedAudioRecorder::finishRecording(RecorderState transitional, RecorderState final) {
    if (recorderState_ != RecorderState::recording && recorderState_ != RecorderState::paused) return;
    recorderState_ = transitional;
    if (progressTimer_) progressTimer_->cancel();
    progressTimer_.reset();
    cleanup();  // the file stays on disk, cancelled or not
    recorderState_ = final;
}

void UnifiedAudioRecorder::flushSources() {
    if (systemAudioTap_) systemAudioTap_->flushCapturedAudio();
    if (microphoneCapture_) microphoneCapture_->flushCapturedAudio();
}

void UnifiedAudioRecorder::stopComponents() {
    if (audioMixer_) audioMixer_->stopMixing();
    endForwarding();
    if (systemAudioTap_) stopIfCapturing(*systemAudioTap_);
    if (microphoneCapture_) stopIfCapturing(*microphoneCapture_);
}

void UnifiedAudioRecorder::handleConfigurationChange() {
    // Paused too: the resume must record from the devices in use then.
    if (recorderState_ != RecorderState::recording && recorderState_ != RecorderState::paused) {
        logger().debug("Audio configuration changed but not currently recording, ignoring");
        return;
    }
    logger().debug("Audio configuration changed, restarting recording seamlessly");

    // The sources hand over what they still hold, then the old mixer stops; what it left
    // unread in the rings goes to the new ones. Each ring is emptied right as its source
    // stops: a block handed on in between would be lost with the ring. Where the platform
    // keeps a stopped stream for the restart, the new source then goes on from there.
    flushSources();
    if (audioMixer_) audioMixer_->stopMixing();
    endForwarding();
    rememberSourceClocks();
    std::optional<CarriedOverAudio> carriedMicrophone;
    std::optional<CarriedOverAudio> carriedSystem;
    if (systemAudioTap_) {
        carriedSystem = CarriedOverAudio::takeFrom(*systemAudioTap_->ringBuffer(), systemAudioTap_->asbd().mSampleRate);
        stopIfCapturing(*systemAudioTap_);
    }
    if (microphoneCapture_) {
        carriedMicrophone = CarriedOverAudio::takeFrom(*microphoneCapture_->ringBuffer(), microphoneSampleRate());
        stopIfCapturing(*microphoneCapture_);
    }
    audioMixer_.reset();
    systemAudioTap_.reset();
    microphoneCapture_.reset();
    logger().debug("Stopped audio components for restart");

    try {
        setupAudioComponents();
        // Before the sources start, the work queue is their rings' only producer.
        const int64_t microphonePrefill =
            carriedMicrophone && microphoneCapture_ ? carriedMicrophone->prefill(*microphoneCapture_->ringBuffer()) : 0;
        const int64_t systemPrefill =
            carriedSystem && systemAudioTap_ ? carriedSystem->prefill(*systemAudioTap_->ringBuffer()) : 0;
        startAudioCapture();
        // A source that came back at another rate would play the carried frames at the
        // wrong pitch: they are read back out (they are the oldest) before mixing starts.
        discardCarriedIfRateChanged(microphonePrefill, carriedMicrophone, microphoneSampleRate(),
                                    microphoneCapture_ ? microphoneCapture_->ringBuffer() : nullptr);
        discardCarriedIfRateChanged(systemPrefill, carriedSystem,
                                    systemAudioTap_ ? systemAudioTap_->asbd().mSampleRate : 0.0,
                                    systemAudioTap_ ? systemAudioTap_->ringBuffer() : nullptr);
        logger().debug("Carried over " + std::to_string(microphonePrefill) + " microphone frames and " +
                       std::to_string(systemPrefill) + " system audio frames into the restarted capture");
        startAudioMixing();  // the new mixer appends to the same open file
    } catch (...) {
        const auto error = std::current_exception();
        logger().critical("Failed to restart recording after configuration change: " + caseDescriptionOf(error));
        recorderState_ = RecorderState::stopping;
        cleanup(error);  // emits finished with the file, then ends with the error
        recorderState_ = RecorderState::finished;
        return;
    }
    logger().debug("Successfully restarted recording after configuration change");
    if (recorderState_ == RecorderState::recording) {
        recordingEventStreamContinuation_.yield(progressEvent(recordedSeconds()));
    }
}

void UnifiedAudioRecorder::rememberSourceClocks() {
    microphoneClock_.reset();
    systemClock_.reset();
    if (!audioMixer_) return;
    const AudioMixer::SkewEstimates skews = audioMixer_->skewEstimates();
    if (skews.microphone && microphoneCapture_) microphoneClock_ = KnownClock{microphoneCapture_->clockDeviceUID(), *skews.microphone};
    if (skews.system && systemAudioTap_) systemClock_ = KnownClock{systemAudioTap_->clockDeviceUID(), *skews.system};
}

std::optional<double> UnifiedAudioRecorder::carriedSkew(const std::optional<KnownClock>& known,
                                                        const std::string& deviceUID, const char* sourceName) const {
    if (!known) return std::nullopt;
    // Another device has another clock: its drift is learnt afresh.
    if (known->deviceUID.empty() || known->deviceUID != deviceUID) {
        logger().debug(std::string("The ") + sourceName + " moved to another device: its clock drift is learnt afresh");
        return std::nullopt;
    }
    return known->skew;
}

void UnifiedAudioRecorder::discardCarriedIfRateChanged(int64_t prefilledFrames,
                                                        const std::optional<CarriedOverAudio>& carried,
                                                        double newSampleRateHertz,
                                                        const std::shared_ptr<FloatRingBuffer>& ring) {
    if (prefilledFrames == 0 || !carried || !ring || carried->sampleRateHertz() == newSampleRateHertz) return;
    std::vector<std::vector<float>> scratch(static_cast<size_t>(ring->channels()),
                                            std::vector<float>(static_cast<size_t>(prefilledFrames)));
    std::vector<float*> destinations;
    for (auto& channel : scratch) destinations.push_back(channel.data());
    ring->read(destinations, prefilledFrames);
}

void UnifiedAudioRecorder::handleLengthReached(const std::shared_ptr<AudioMixer>& mixer) {
    if (!mixer || mixer != audioMixer_) return;  // a mixer already replaced or stopped
    logger().info("Recording reached its maximum duration of " +
                  formatDouble(configuration_.maximumDurationSeconds.value_or(0)) + " s");
    finishRecording(RecorderState::stopping, RecorderState::finished);
}

void UnifiedAudioRecorder::handleWriteFailure(const std::shared_ptr<AudioMixer>& failedMixer, ErrorPtr cause) {
    if (!failedMixer || failedMixer != audioMixer_) return;  // a mixer already replaced or stopped
    if (recorderState_ != RecorderState::recording && recorderState_ != RecorderState::paused) return;
    logger().critical("Recording ended: the output file can no longer be written: " +
                      (cause ? cause->errorDescription() : std::string("Unknown error")));
    recorderState_ = RecorderState::stopping;
    if (progressTimer_) progressTimer_->cancel();
    progressTimer_.reset();
    cleanup(std::make_exception_ptr(RecordingError::fileSystemError(std::move(cause))));
    recorderState_ = RecorderState::finished;
}

void UnifiedAudioRecorder::cleanup(std::exception_ptr endingError) {
    logger().debug("Starting cleanup of unified recorder");
    if (progressTimer_) progressTimer_->cancel();
    progressTimer_.reset();
    if (configurationChangeObserver_) {
        if (services_.configurationChangeCenter) {
            services_.configurationChangeCenter->removeObserver(*configurationChangeObserver_);
        }
        configurationChangeObserver_.reset();
    }
    flushSources();
    stopComponents();
    audioMixer_.reset();
    systemAudioTap_.reset();
    microphoneCapture_.reset();
    if (audioFile_) audioFile_->close();
    audioFile_.reset();
    liveOutput_->audio.finish();

    switch (recorderState_) {
        case RecorderState::cancelling:
        case RecorderState::cancelled:
            recordingEventStreamContinuation_.yield(RecordingEvent::cancelled(fileURL_));
            break;
        case RecorderState::stopping:
        case RecorderState::finished:
            recordingEventStreamContinuation_.yield(RecordingEvent::finished(fileURL_));
            break;
        default:
            break;
    }
    if (endingError) {
        recordingEventStreamContinuation_.finish(endingError);
    } else {
        recordingEventStreamContinuation_.finish();
    }
    logger().debug("Cleanup completed");
}

const char* caseName(UnifiedAudioRecorder::RecorderState state) {
    using State = UnifiedAudioRecorder::RecorderState;
    switch (state) {
        case State::idle: return "idle";
        case State::recording: return "recording";
        case State::paused: return "paused";
        case State::stopping: return "stopping";
        case State::finished: return "finished";
        case State::cancelling: return "cancelling";
        case State::cancelled: return "cancelled";
    }
    return "idle";
}

}  // namespace velto
