#include "microphone_recorder/AudioRecorder.hpp"

#include <cmath>
#include <cstring>
#include <system_error>

#include "logging/LoggerCompat.hpp"
#include "logging/NumberFormat.hpp"
#include "model/AudioEngineRecorderError.hpp"
#include "signal/PrivateRecordingFile.hpp"
#include "microphone_recorder/TapInlet.hpp"
#include "platform/InputDeviceSelection.hpp"
#include "signal/AudioConverter.hpp"
#include "signal/AudioFile.hpp"
#include "veltoaudio/RecordingError.hpp"

namespace velto {

namespace {

LoggerCompat& logger() {
    static LoggerCompat l{kLogSubsystem, "AudioRecorder"};
    return l;
}

constexpr std::uint32_t kInputBus = 0;
constexpr std::uint32_t kTapBufferSizeFrames = 1024;
constexpr double kFileSampleRateHertz = 16000.0;

// The textual form of a settings dictionary, e.g. "[AVSampleRateKey: 48000.0, ...]".
std::string describeInputSettings(const PcmFormat& format) {
    return "[AVFormatIDKey: " + std::to_string(kAudioFormatLinearPCM) +
           ", AVSampleRateKey: " + formatDouble(format.sampleRate) +
           ", AVNumberOfChannelsKey: " + std::to_string(format.channelCount) +
           ", AVLinearPCMBitDepthKey: 32, AVLinearPCMIsFloatKey: 1, AVLinearPCMIsBigEndianKey: 0" +
           ", AVLinearPCMIsNonInterleaved: " + (format.interleaved ? "0" : "1") + "]";
}

// How often the recorder queue collects the tap's blocks, and how much may wait.
constexpr double kDrainIntervalSeconds = 0.01;
constexpr double kInletCapacitySeconds = 2.0;

}  // namespace

struct AudioRecorder::Private {};

const std::shared_ptr<SerialQueue>& AudioRecorder::recorderQueue() {
    static const std::shared_ptr<SerialQueue> queue =
        SerialQueue::create(std::string(kIdentifierPrefix) + ".AudioRecorder", QualityOfService::userInitiated);
    return queue;
}

std::shared_ptr<AudioRecorder> AudioRecorder::create(std::filesystem::path fileURL, AudioFormat format,
                                                     std::optional<MicrophoneDevice> preferredMicrophone,
                                                     platform::PlatformServices services,
                                                     std::shared_ptr<Clock> clock) {
    auto recorder = std::make_shared<AudioRecorder>(Private{}, std::move(fileURL), format,
                                                    std::move(preferredMicrophone), std::move(services),
                                                    clock ? std::move(clock) : Clock::system());

    // The reader walking away is a cancellation; a finish of ours is not.
    std::weak_ptr<AudioRecorder> weak = recorder;
    auto queue = recorder->queue_;
    recorder->continuation_.setOnTermination([weak, queue](StreamTermination termination) {
        if (termination != StreamTermination::cancelled) return;
        if (weak.expired()) return;
        queue->async([weak] {
            if (auto self = weak.lock()) self->handleCancellation();
        });
    });

    queue->async([recorder] { recorder->startEngineRecording(); });
    return recorder;
}

AudioRecorder::AudioRecorder(const Private&, std::filesystem::path fileURL, AudioFormat format,
                             std::optional<MicrophoneDevice> preferredMicrophone, platform::PlatformServices services,
                             std::shared_ptr<Clock> clock)
    : queue_(recorderQueue()),
      clock_(std::move(clock)),
      services_(std::move(services)),
      format_(format),
      preferredMicrophone_(std::move(preferredMicrophone)),
      audioEngine_(services_.audioEngineFactory->makeEngine()),
      fileURL_(std::move(fileURL)) {
    auto [stream, continuation] = EventSource<RecordingEvent>::make();
    stream_ = std::move(stream);
    continuation_ = std::move(continuation);
}

AudioRecorder::~AudioRecorder() {
    // Released without stop or cancel (the service drops its recorder): leave no tap
    // running into a recorder that no longer exists. The file keeps what was written.
    if (drainTimer_) drainTimer_->cancel();
    if (tapInstalled_) audioEngine_->removeTap(kInputBus);
    if (audioEngine_->isRunning()) audioEngine_->stop();
    if (audioFile_) audioFile_->close();
}

EventStream<RecordingEvent> AudioRecorder::events() { return stream_; }

AudioBufferStream AudioRecorder::audioStream() { return liveAudio_.stream(); }

void AudioRecorder::stop() {
    auto self = shared_from_this();
    queue_->sync([self] { self->stopRecording(); });
}

void AudioRecorder::cancel() {
    auto self = shared_from_this();
    queue_->sync([self] { self->cancelRecording(); });
}

void AudioRecorder::pause() {
    std::weak_ptr<AudioRecorder> weak = weak_from_this();
    queue_->sync([weak] {
        if (auto self = weak.lock()) self->pauseRecording();
    });
}

void AudioRecorder::resume() {
    std::weak_ptr<AudioRecorder> weak = weak_from_this();
    queue_->sync([weak] {
        if (auto self = weak.lock()) self->resumeRecording();
    });
}

AudioRecorder::RecorderState AudioRecorder::state() const {
    RecorderState state = RecorderState::idle;
    auto self = std::const_pointer_cast<AudioRecorder>(shared_from_this());
    queue_->sync([&] {
        self->drainTapInlet(/*everything=*/true);
        state = recorderState_;
    });
    return state;
}

std::filesystem::path AudioRecorder::fileURL() const {
    std::filesystem::path url;
    queue_->sync([&] { url = fileURL_; });
    return url;
}

double AudioRecorder::elapsedSeconds() const {
    // Recorded time, what a recording app's timer shows: paused spans are not in the file.
    if (!audioFile_) return 0.0;
    return static_cast<double>(audioFile_->framesWritten()) / audioFile_->fileFormat().sampleRate;
}

void AudioRecorder::startEngineRecording() {
    if (recorderState_ != RecorderState::idle) {
        continuation_.finish(std::make_exception_ptr(AudioEngineRecorderError::alreadyInProgress()));
        return;
    }
    logger().info("Starting PulseAudio input engine recording to: " + fileURL_.string());
    continuation_.yield(RecordingEvent::starting());
    try {
        setupRecording();
        audioEngine_->start();
    } catch (...) {
        const auto error = std::current_exception();
        logger().critical("Failed to start recording: " + describeError(error));
        // What set-up already did stays in place; the recorder is never used again.
        continuation_.finish(error);
        return;
    }
    recorderState_ = RecorderState::recording;
    continuation_.yield(RecordingEvent::started());
    startDrainTimer();
}

void AudioRecorder::startDrainTimer() {
    drainTimer_ = RepeatingTimer::create(queue_);
    std::weak_ptr<AudioRecorder> weak = weak_from_this();
    drainTimer_->setEventHandler([weak] {
        if (auto self = weak.lock()) self->drainTapInlet(/*everything=*/false);
    });
    drainTimer_->schedule(queue_->clock()->nowSeconds() + kDrainIntervalSeconds, kDrainIntervalSeconds, 0.0);
    drainTimer_->resume();
}

void AudioRecorder::stopDrainTimer() {
    if (drainTimer_) drainTimer_->cancel();
    drainTimer_.reset();
}

void AudioRecorder::takeEverythingCaptured() {
    // The engine may still hold audio from before this moment: it belongs to the state the
    // recorder is leaving, so it is fetched and handled before the state changes.
    if (tapInstalled_ && audioEngine_->isRunning()) audioEngine_->flushCapturedInput();
    drainTapInlet(/*everything=*/true);
}

void AudioRecorder::drainTapInlet(bool everything) {
    if (!tapInlet_) return;
    // Blocks are handled in the state they arrived in: every state change drains first.
    while (auto block = tapInlet_->take(everything ? 1 : kTapBufferSizeFrames, kTapBufferSizeFrames)) {
        processAudioBuffer(block);
    }
    const int64_t dropped = tapInlet_->droppedFrames();
    if (dropped != reportedDroppedFrames_) {
        logger().error("Tap overrun: " + std::to_string(dropped - reportedDroppedFrames_) +
                       " frames did not fit while the recorder queue was busy");
        reportedDroppedFrames_ = dropped;
    }
}

void AudioRecorder::setupRecording() {
    // One read of the system serves the device selection and the input's format.
    const platform::AudioSystemSnapshot system = services_.audioHardware->readSnapshotForOperation();
    if (preferredMicrophone_) configureInputDevice(*preferredMicrophone_, system);

    const PcmFormat inputFormat = audioEngine_->inputFormat(kInputBus, system);
    logger().info("Input format: " + formatDouble(inputFormat.sampleRate) + " Hz, " +
                  std::to_string(inputFormat.channelCount) + " channels");
    logger().info("Input format settings: " + describeInputSettings(inputFormat));
    logger().info("Recording format: " + fileExtension(format_));
    logger().info("File URL: " + fileURL_.string());

    fileURL_.replace_extension(fileExtension(format_));
    logger().info("Format-corrected URL: " + fileURL_.string());

    const auto inletCapacityFrames = std::max<int64_t>(16 * kTapBufferSizeFrames,
                                                       static_cast<int64_t>(inputFormat.sampleRate * kInletCapacitySeconds));
    tapInlet_ = std::make_shared<TapInlet>(inputFormat, inletCapacityFrames);

    if (inputFormat.sampleRate != kFileSampleRateHertz) {
        const auto processingFormat = PcmFormat::standard(kFileSampleRateHertz, inputFormat.channelCount);
        if (!processingFormat) throw AudioEngineRecorderError::failedToCreateConverter();
        audioConverter_ = AudioConverter::create(tapInlet_->blockFormat(), *processingFormat);
        logger().info("Sample rate conversion enabled: " + formatDouble(inputFormat.sampleRate) +
                      " Hz -> 16000.0 Hz");
    }

    createPrivateRecordingFile(fileURL_);
    audioFile_ = AudioFile::openForWriting(fileURL_, makeAudioSettings(format_), /*interleaved=*/false, clock_);
    if (!audioFile_) throw AudioEngineRecorderError::failedToCreateFile();
    makeRecordingFilePrivate(fileURL_, logger());

    logger().info("File format (on-disk): " + audioFile_->fileFormat().description());
    logger().info("Processing format (for writing): " + audioFile_->processingFormat().description());
    logger().info("Input format (from microphone): " + inputFormat.description());

    // The tap thread only copies samples into the inlet; the recorder queue collects them.
    auto inlet = tapInlet_;
    audioEngine_->installTap(kInputBus, kTapBufferSizeFrames, inputFormat,
                             [inlet](const PcmBuffer& buffer, double) { inlet->push(buffer); });
    tapInstalled_ = true;
}

void AudioRecorder::configureInputDevice(const MicrophoneDevice& device, const platform::AudioSystemSnapshot& system) {
    const auto selected =
        platform::configureInputDevice(device, system, *services_.captureDeviceDiscovery, *audioEngine_, logger());
    if (!selected) throw AudioEngineRecorderError::unknownError();
}

void AudioRecorder::processAudioBuffer(const std::shared_ptr<PcmBuffer>& buffer) {
    if (recorderState_ != RecorderState::recording || !audioFile_) return;  // paused, stopping or over: dropped

    std::shared_ptr<PcmBuffer> output = buffer;
    if (audioConverter_) {
        try {
            output = audioConverter_->convert(*buffer);
        } catch (...) {
            // One bad block is dropped; the next one is converted normally.
            logger().critical("Failed to write audio buffer: " + describeError(std::current_exception()));
            return;
        }
        logger().debug([&] {
            return "Converted audio: " + std::to_string(buffer->frameLength()) + " -> " +
                   std::to_string(output->frameLength()) + " frames";
        });
    }

    try {
        audioFile_->write(*output);
    } catch (...) {
        const auto error = std::current_exception();
        logger().critical("Failed to write audio buffer: " + describeError(error));
        // A file that can no longer be written (disk full, I/O error) would drop every
        // later block too: end the recording with what the file holds.
        endAfterWriteFailure(error);
        return;
    }

    liveAudio_.deliver(output);
    const AudioLevels levels = calculateLevels(*output);
    const double elapsed = elapsedSeconds();
    continuation_.yield(RecordingEvent::progress(elapsed, levels));
    if (auto silence = silenceWatch_.observe(levels.peak, elapsed)) continuation_.yield(std::move(*silence));
}

void AudioRecorder::endAfterWriteFailure(std::exception_ptr writeError) {
    logger().critical("Recording ended: the output file can no longer be written");
    recorderState_ = RecorderState::stopping;
    stopDrainTimer();
    if (tapInstalled_) {
        audioEngine_->removeTap(kInputBus);
        tapInstalled_ = false;
    }
    audioEngine_->stop();
    if (audioFile_) audioFile_->close();
    audioFile_.reset();
    // The caller learns where the audio written so far is, then why the recording ended.
    continuation_.yield(RecordingEvent::finished(fileURL_));
    recorderState_ = RecorderState::finished;
    cleanup();
    continuation_.finish(std::make_exception_ptr(RecordingError::fileSystemError(captureError(writeError))));
}

AudioLevels AudioRecorder::calculateLevels(const PcmBuffer& buffer) {
    const auto channels = buffer.floatChannelData();
    if (channels.empty() || channels[0] == nullptr) return AudioLevels::silence();
    const float* samples = channels[0];
    const std::size_t stride = buffer.format().interleaved ? buffer.channelCount() : 1;
    const std::uint32_t frames = buffer.frameLength();

    float sumOfSquares = 0.0f;
    float peak = 0.0f;
    for (std::uint32_t i = 0; i < frames; ++i) {
        const float x = samples[i * stride];
        sumOfSquares += x * x;
        peak = std::max(peak, std::fabs(x));
    }
    // With no frames the mean is 0/0, not-a-number, which reads as silence below.
    const float rms = std::sqrt(sumOfSquares / static_cast<float>(frames));
    const float average = rms > 0.0f ? 20.0f * std::log10(std::max(rms, 1e-8f)) : -160.0f;
    const float peakDecibels = peak > 0.0f ? 20.0f * std::log10(std::max(peak, 1e-8f)) : -160.0f;
    return AudioLevels{average, peakDecibels};
}

void AudioRecorder::pauseRecording() {
    takeEverythingCaptured();
    if (recorderState_ != RecorderState::recording) return;
    recorderState_ = RecorderState::paused;
    const double elapsed = elapsedSeconds();
    logger().info("Recording paused at " + formatDouble(elapsed) + "s");
    continuation_.yield(RecordingEvent::paused(elapsed));
}

void AudioRecorder::resumeRecording() {
    takeEverythingCaptured();
    if (recorderState_ != RecorderState::paused) return;
    recorderState_ = RecorderState::recording;
    const double elapsed = elapsedSeconds();
    logger().info("Recording resumed at " + formatDouble(elapsed) + "s");
    continuation_.yield(RecordingEvent::resumed(elapsed));
}

// Stop and cancel end the capture the same way: no more buffers, the file complete on disk.
void AudioRecorder::stopEngineAndCloseFile() {
    stopDrainTimer();
    audioEngine_->removeTap(kInputBus);
    tapInstalled_ = false;
    audioEngine_->stop();
    if (audioFile_) audioFile_->close();
    audioFile_.reset();
}

void AudioRecorder::stopRecording() {
    takeEverythingCaptured();
    if (recorderState_ != RecorderState::recording && recorderState_ != RecorderState::paused) return;
    logger().info("Stopping recording");
    recorderState_ = RecorderState::stopping;
    stopEngineAndCloseFile();

    std::error_code error;
    if (!std::filesystem::exists(fileURL_, error)) {
        logger().critical("Recording file not found");
        recorderState_ = RecorderState::finished;
        continuation_.finish(std::make_exception_ptr(AudioEngineRecorderError::fileNotFound()));
        return;
    }
    const auto sizeBytes = std::filesystem::file_size(fileURL_, error);
    if (!error && sizeBytes > 0) {
        logger().info("Recording finished successfully, file size: " + std::to_string(sizeBytes) + " bytes");
        continuation_.yield(RecordingEvent::finished(fileURL_));
        recorderState_ = RecorderState::finished;
        cleanup();
        continuation_.finish();
        return;
    }
    logger().critical("Recording file is empty");
    recorderState_ = RecorderState::finished;
    continuation_.finish(std::make_exception_ptr(AudioEngineRecorderError::emptyFile()));
}

void AudioRecorder::cancelRecording() {
    drainTapInlet(/*everything=*/true);
    if (recorderState_ != RecorderState::recording && recorderState_ != RecorderState::paused) return;
    logger().info("Cancelling recording");
    recorderState_ = RecorderState::cancelling;
    stopEngineAndCloseFile();

    std::error_code ignored;  // a file that cannot be removed is left; nothing to report to
    if (std::filesystem::exists(fileURL_, ignored)) std::filesystem::remove(fileURL_, ignored);

    recorderState_ = RecorderState::cancelled;
    continuation_.finish();
}

void AudioRecorder::handleCancellation() {
    drainTapInlet(/*everything=*/true);
    logger().info("Recording cancelled");
    if (recorderState_ == RecorderState::finished) {
        logger().debug("handleCancellation() called but already finished, ignoring");
        return;
    }
    const RecorderState previous = recorderState_;
    recorderState_ = RecorderState::finished;
    stopDrainTimer();
    if (previous == RecorderState::recording || previous == RecorderState::paused ||
        previous == RecorderState::stopping) {
        audioEngine_->stop();
        audioEngine_->removeTap(kInputBus);
        tapInstalled_ = false;
        if (audioFile_) audioFile_->close();
        std::error_code ignored;
        std::filesystem::remove(fileURL_, ignored);
    }
    cleanup();
    // The reader has already gone; this only settles the stream's state.
    continuation_.finish(std::make_exception_ptr(
        PlatformError("Swift.CancellationError", 0, "The operation couldn't be completed. (Swift.CancellationError error 1.)")));
}

void AudioRecorder::cleanup() {
    if (audioFile_) audioFile_->close();
    audioFile_.reset();
    audioConverter_.reset();
    liveAudio_.finish();
}

const char* caseName(AudioRecorder::RecorderState state) {
    using State = AudioRecorder::RecorderState;
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
