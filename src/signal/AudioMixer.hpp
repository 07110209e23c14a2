#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

#include "dispatch/Clock.hpp"
#include "dispatch/RepeatingTimer.hpp"
#include "dispatch/ThreadAnnotations.hpp"
#include "dispatch/SerialQueue.hpp"
#include "signal/AudioMixerError.hpp"
#include "signal/EchoCanceller.hpp"
#include "signal/MixBus.hpp"
#include "signal/MixOutput.hpp"
#include "signal/MixPacer.hpp"
#include "signal/MixerInputs.hpp"
#include "signal/SourcePath.hpp"
#include "veltoaudio/AudioLevels.hpp"
#include "veltoaudio/EventStream.hpp"

namespace velto {

// Who drives the mixing ticks.
enum class MixingTicks {
    timer,   // a 60 Hz timer on the mixer's own queue (production)
    caller,  // nobody: the owner calls tick() itself (simulations and tests)
};

// The levels of the last mixed block: the output's, and each source's own
// (before its gain) for the sources in the run.
struct MixerLevels {
    AudioLevels mix = AudioLevels::silence();
    std::optional<AudioLevels> microphone;
    std::optional<AudioLevels> system;
};

// Mixes up to two capture ring buffers (system audio, microphone) into the
// output: 60 times a second the pacer says how many frames are due at the
// mixing rate; each source's path reads its ring (keeping a jitter reserve),
// folds it to mono and resamples it; the bus sums (or lays side by side),
// clips and meters; the output converts, appends to the file and delivers on
// audioStream(). With echo cancellation the microphone's block loses the
// system audio's echo between the source paths and the bus; the canceller
// delays both blocks alike, so the output starts that much later and the
// drain gives the held frames back.
//
// Stopping loses nothing captured: stopMixing() mixes what is left in the
// rings (the jitter reserve included), then the resamplers' tails, into the
// file and the stream before it lets them go. Pausing the output mixes what
// was captured up to the pause, then drops what arrives until the resume.
//
// Degradation policy: per-block problems (a source short of frames, a failed
// conversion, a failed file write) are logged and become silence or a skipped
// block; mixing goes on. A failed write is also reported once through the
// write-failure handler, because only the owner can decide to end the recording.
//
// Threads: create, start, stopMixing, setOutputPaused and the setters are called
// from the owner's serial queue. Ticks run on the mixer's queue
// "io.veltoaudio.AudioMixer.mixing" (or, with MixingTicks::caller, on the
// caller's thread, one at a time). The levels, gains, counters, isMixing() and
// audioStream() may be read from any thread. The rings are held weakly and
// checked every tick.
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

    // At least one source. Throws AudioMixerError or AudioConverterError and
    // stays idle; a start while mixing is logged and ignored, changing nothing.
    void start(const MixerInputs& inputs);
    void stopMixing();
    // While paused the sources are read but nothing reaches the file or the stream.
    void setOutputPaused(bool paused);
    bool isOutputPaused() const { return outputPaused_.load(); }

    // The mixed blocks, each exactly once and in order, as the same buffers
    // that were written to the file; ends at stopMixing().
    AudioBufferStream audioStream() { return output_.audioStream(); }
    AudioLevels currentLevels() const;
    MixerLevels levels() const;
    bool isMixing() const { return isMixing_.load(); }
    int64_t underrunCount() const;
    int64_t overflowCount() const;
    // Output-rate frames written so far (the recorded length this mixer added).
    int64_t outputFramesWritten() const { return output_.framesWritten(); }

    // Called once, on the mixing queue, with the error of the first failed write.
    void setWriteFailureHandler(std::function<void(ErrorPtr)> handler) {
        output_.setWriteFailureHandler(std::move(handler));
    }
    // Called once, on the mixing queue, when the file holds MixerInputs::fileFrameLimit.
    void setLimitReachedHandler(std::function<void()> handler) { output_.setLimitReachedHandler(std::move(handler)); }

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
    int64_t paddedSilenceFrames() const;

    // Each steered source's skew against the mixing clock (+0.0005: its clock is
    // 500 ppm fast), as last estimated; kept after stopMixing() so that a
    // restart on the same device can start from it.
    struct SkewEstimates {
        std::optional<double> system;
        std::optional<double> microphone;
    };
    SkewEstimates skewEstimates() const;

    struct Private;
    AudioMixer(const Private&, int64_t bufferFrameCapacity, int64_t jitterBufferFrames, std::shared_ptr<Clock> clock,
               MixingTicks ticks);

private:
    void startTimer();
    void tickOnQueue();
    int64_t framesToProcess(const std::shared_ptr<FloatRingBuffer>& systemRing,
                            const std::shared_ptr<FloatRingBuffer>& microphoneRing);
    // One block through the echo canceller (when it runs and `cancelEcho`), the
    // bus and the output, `frames` of each present source's block() being ready.
    void mixAndWrite(int64_t frames, bool withSystem, bool withMicrophone, bool cancelEcho = true);
    void drainEchoCanceller();
    void logEchoCancellation() const;
    // Everything the rings hold now, into the output.
    void mixWhatTheRingsHold(const std::shared_ptr<FloatRingBuffer>& systemRing,
                             const std::shared_ptr<FloatRingBuffer>& microphoneRing, bool endTogether = false);
    void drainRemainingAudio();
    // After a mixed block: each steered source's controller sees its ring.
    void followClocks(double nowSeconds, const std::shared_ptr<FloatRingBuffer>& systemRing,
                      const std::shared_ptr<FloatRingBuffer>& microphoneRing);
    // Mixing frames the final drain writes: with steered sources, both sources end
    // together (the later one's extra beyond one tick is left out).
    int64_t framesToDrain(const std::shared_ptr<FloatRingBuffer>& systemRing,
                          const std::shared_ptr<FloatRingBuffer>& microphoneRing) const;
    void logSkews();
    void publishLevels(const MixBus::Measurement& mix, bool withSystem, bool withMicrophone);
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
    std::atomic<bool> outputPaused_{false};

    // Owner's queue (start/stop) and ticks; never at the same time.
    std::shared_ptr<RepeatingTimer> mixingTimer_;
    MixPacer pacer_;
    SourcePath system_;
    SourcePath microphone_;
    MixBus bus_;
    MixOutput output_;
    // The most mixing frames one block may take: the source paths' work arrays hold
    // bufferFrameCapacity_ frames at the source's rate, which a mix at a lower rate
    // than a source's (16 kHz for echo cancellation) reaches with fewer mixing frames.
    int64_t blockFrameLimit_ = 0;
    // Present for a run with echo cancellation; created at start.
    std::unique_ptr<EchoCanceller> echoCanceller_;
    // The canceller's leading silence still to be left out of the output.
    int64_t echoLatencyFramesToSkip_ = 0;
    float maxPeakSinceStart_ = 0.0f;
    bool skewOutOfRangeReported_ = false;
    bool paceFromFirstBlock_ = false;  // the pacer restarts when the reserve is first there
    SkewEstimates skewEstimates_;  // mixing context

    mutable Mutex counterLock_;
    int64_t underrunCounter_ VELTO_GUARDED_BY(counterLock_) = 0;
    int64_t overflowCounter_ VELTO_GUARDED_BY(counterLock_) = 0;

    mutable Mutex levelsLock_;
    MixerLevels levels_ VELTO_GUARDED_BY(levelsLock_);
};

}  // namespace velto
