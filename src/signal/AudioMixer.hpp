#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "dispatch/Clock.hpp"
#include "dispatch/RepeatingTimer.hpp"
#include "dispatch/SerialQueue.hpp"
#include "signal/AudioConverter.hpp"
#include "signal/AudioFile.hpp"
#include "signal/AudioMixerError.hpp"
#include "signal/FloatRingBuffer.hpp"
#include "model/EventSource.hpp"
#include "signal/MonoSampleFifo.hpp"
#include "veltoaudio/AudioLevels.hpp"
#include "veltoaudio/EventStream.hpp"
#include "veltoaudio/PcmBuffer.hpp"

namespace velto {

// Who drives the mixing ticks.
enum class MixingTicks {
    timer,   // a 60 Hz timer on the mixer's own queue (production)
    caller,  // nobody: the owner calls tick() itself (simulations and tests)
};

// Mixes up to two capture ring buffers (system audio, microphone) into one
// mono stream: 60 times a second it works out from the clock how many frames
// are due at the mixing rate, keeps a jitter reserve in each ring, reads each
// source, folds it to mono, resamples it to the mixing rate, applies its gain,
// sums, meters and clips the block, converts it to the output format, appends
// it to the output file and delivers it on audioStream().
//
// Frame accounting is exact over any length of recording: after k mixing
// frames a source has given exactly floor(k × its rate ÷ mixing rate) frames,
// and a resampled source is primed once with silence so that every block is
// full (a short resampler call never inserts silence mid-stream). Sources are
// delayed by the same amount so that they stay aligned with each other.
//
// Stopping loses nothing captured: stopMixing() mixes what is left in the
// rings (the jitter reserve included), then the resamplers' tails, into the
// file and the stream before it lets them go.
//
// Degradation policy: per-block problems (a source short of frames, a failed
// conversion, a failed file write) are logged and become silence or a skipped
// block; mixing goes on. A failed write is also reported once through the
// write-failure handler, because only the owner can decide to end the recording.
//
// Threads: create, start*, stopMixing and the setters are called from the
// owner's serial queue. Ticks run on the mixer's queue "io.veltoaudio.AudioMixer.mixing"
// (or, with MixingTicks::caller, on the caller's thread, one at a time).
// currentLevels(), the gains, the counters, isMixing() and audioStream() may be
// read from any thread. The ring buffers are held weakly and checked every tick.
class AudioMixer : public std::enable_shared_from_this<AudioMixer> {
public:
    static std::shared_ptr<AudioMixer> create(int64_t bufferFrameCapacity, int64_t jitterBufferFrames,
                                              std::shared_ptr<Clock> clock = Clock::system(),
                                              MixingTicks ticks = MixingTicks::timer);
    ~AudioMixer();
    AudioMixer(const AudioMixer&) = delete;
    AudioMixer& operator=(const AudioMixer&) = delete;

    float systemGain() const { return systemGain_.load(); }
    void setSystemGain(float gain);
    float microphoneGain() const { return microphoneGain_.load(); }
    void setMicrophoneGain(float gain);

    // Throws AudioMixerError or AudioConverterError; a second start while
    // mixing is logged and ignored.
    void startDualSourceMixing(std::shared_ptr<FloatRingBuffer> systemRing, double systemSampleRate,
                               uint32_t systemChannels, std::shared_ptr<FloatRingBuffer> microphoneRing,
                               double microphoneSampleRate, std::shared_ptr<AudioFile> outputFile,
                               const PcmFormat& outputFormat);
    // One source: exactly one of the two rings is non-null.
    void startMixing(std::shared_ptr<FloatRingBuffer> systemRing, std::shared_ptr<FloatRingBuffer> microphoneRing,
                     double sampleRate, uint32_t channels, std::shared_ptr<AudioFile> outputFile,
                     const PcmFormat& outputFormat);
    void stopMixing();

    // The mixed blocks, each exactly once and in order, as the same buffers
    // that were written to the file; ends at stopMixing().
    AudioBufferStream audioStream();
    AudioLevels currentLevels() const;
    bool isMixing() const { return isMixing_.load(); }
    int64_t underrunCount() const;
    int64_t overflowCount() const;

    // Called once, on the mixing queue, with the error of the first failed write.
    void setWriteFailureHandler(std::function<void(ErrorPtr)> handler);

    // Runs one tick now and returns when it is done. With MixingTicks::timer
    // it runs on the mixing queue; with MixingTicks::caller on this thread.
    void tick();

    // The first of 8000, 16000, 24000, 44100, 48000, 96000, 192000 Hz at least
    // as high as both rates; above that the higher rate itself.
    static double chooseMixingRate(double systemSampleRate, double microphoneSampleRate);

    double mixingSampleRate() const;
    int64_t bufferFrameCapacity() const { return bufferFrameCapacity_; }
    int64_t jitterBufferFrames() const { return jitterBufferFrames_; }
    int64_t totalFramesProcessed() const;
    // Silence inserted because a resampled source came up short after its
    // priming; stays 0 unless the resampler breaks its own hold-back bound.
    int64_t paddedSilenceFrames() const;

    struct Private;
    AudioMixer(const Private&, int64_t bufferFrameCapacity, int64_t jitterBufferFrames, std::shared_ptr<Clock> clock,
               MixingTicks ticks);

private:
    // One capture source's path to the mix. Touched only by ticks and by
    // start/stop (which never overlap a tick).
    struct Source {
        const char* conversionFailureMessage = "";
        std::weak_ptr<FloatRingBuffer> ring;
        double sampleRate = 48000.0;
        std::shared_ptr<AudioConverter> converter;
        std::shared_ptr<PcmBuffer> conversionInput;  // need frames at the source rate, allocated at start
        MonoSampleFifo aligned;                      // mixing-rate samples waiting to be mixed
        bool usesAlignment = false;
        int64_t mixingFramesAccounted = 0;  // mixing frames this source has been read for
        int64_t sourceFramesConsumed = 0;   // = floor(mixingFramesAccounted × rate ÷ mixing rate)
        int64_t drainEndSourceFrames = 0;   // where the final drain stops reading this source
        std::unique_ptr<float[]> blockBuffer;  // the source's mono block at the mixing rate
        std::unique_ptr<float[]> tempBuffer;   // mono at the source rate
        std::unique_ptr<float[]> leftBuffer;
        std::unique_ptr<float[]> rightBuffer;
    };

    void beginMixing(const PcmFormat& outputFormat);
    void setupConverters(const PcmFormat& outputFormat);
    void setupSourceConverter(Source& source, const PcmFormat& mixingFormat, const char* label,
                              AudioMixerError (*inputFormatFailure)());
    void prepareSourcePaths();
    void startTimer();
    void tickOnQueue();
    int64_t framesToProcess(const std::shared_ptr<FloatRingBuffer>& systemRing,
                            const std::shared_ptr<FloatRingBuffer>& microphoneRing);
    int64_t framesWithinReserve(const Source& source, int64_t availableFrames) const;
    void processSource(Source& source, const std::shared_ptr<FloatRingBuffer>& ring, int64_t frames,
                       bool draining = false);
    void drainRemainingAudio();
    void convertSourceBlock(Source& source, int64_t needFrames, int64_t frames);
    void mixSources(int64_t frames, bool withSystem, bool withMicrophone);
    void clip(int64_t frames);
    void updateLevels(int64_t frames);
    void writeOutput(int64_t frames);
    void deliverOutput(std::shared_ptr<PcmBuffer> block);  // to the file and the audio stream
    void addUnderrun();
    // Runs `work` where ticks run: on the mixing queue, or at once when the
    // caller drives the ticks.
    template <class Work>
    void onMixingContext(Work&& work) const;

    const int64_t bufferFrameCapacity_;
    const int64_t jitterBufferFrames_;
    const std::shared_ptr<Clock> clock_;
    const MixingTicks ticks_;
    const std::shared_ptr<SerialQueue> mixingQueue_;
    // With caller ticks the mixing context is whichever thread ticks, stops or reads the
    // counters; this lock makes those one at a time, as the queue does for timer ticks.
    // Recursive so a tick's own calls back into the mixer do not deadlock.
    mutable std::recursive_mutex callerContext_;

    std::atomic<float> systemGain_{0.7f};
    std::atomic<float> microphoneGain_{1.0f};
    std::atomic<bool> isMixing_{false};

    // Owner's queue (start/stop) and ticks; never at the same time.
    std::shared_ptr<RepeatingTimer> mixingTimer_;
    std::shared_ptr<AudioFile> outputFile_;
    std::optional<PcmFormat> outputFormat_;
    uint32_t systemAudioChannels_ = 1;  // as reported by the source; processing uses the ring's own count
    double mixingSampleRate_ = 48000.0;
    std::shared_ptr<AudioConverter> outputConverter_;
    Source system_;
    Source microphone_;
    std::unique_ptr<float[]> mixedOutputBuffer_;
    double mixingStartTimeSeconds_ = 0;
    int64_t totalFramesProcessed_ = 0;
    float maxPeakSinceStart_ = 0.0f;
    float lastBlockRms_ = 0.0f;   // of the last mixed block, after clipping
    float lastBlockPeak_ = 0.0f;  // of the last mixed block, after clipping
    int64_t paddedSilenceFrames_ = 0;
    bool writeFailureReported_ = false;

    mutable std::mutex counterLock_;
    int64_t underrunCounter_ = 0;  // guarded by counterLock_
    int64_t overflowCounter_ = 0;  // guarded by counterLock_

    mutable std::mutex levelsLock_;
    AudioLevels currentLevels_ = AudioLevels::silence();  // guarded by levelsLock_

    mutable std::mutex streamLock_;
    std::optional<AudioBufferStream> audioStream_;                        // guarded by streamLock_
    std::optional<AudioBufferSource::Continuation> audioStreamContinuation_;  // guarded by streamLock_
    std::function<void(ErrorPtr)> writeFailureHandler_;                   // guarded by streamLock_
};

}  // namespace velto
