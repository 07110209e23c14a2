#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "signal/EchoDelayEstimator.hpp"
#include "signal/EchoFilter.hpp"
#include "signal/MonoSampleFifo.hpp"

namespace velto {

// Removes the loudspeaker echo from the microphone, using the system audio (the
// very signal the loudspeakers play) as the reference.
//
// Our own delay estimate lines the reference up with the echo; a linear echo
// filter (EchoFilter, 64 ms long) then models the room from there. There is no
// nonlinear suppressor: measured offline, the ones available (WebRTC's, speex's
// residual suppressor) bought 4-10 dB more echo reduction with 0.6-10 dB of the
// near-end voice, which is what a recording keeps. The filter's output is used
// only once the delay estimate has seen an echo and the filter has proved that
// it removes it (6 dB of the microphone while the system audio plays): until
// then, and with headphones forever, the microphone passes untouched, whatever
// the delay estimate thought it saw. An engaged filter that stops removing the echo
// has its residual searched for it, and is placed again where the echo has moved.
//
// The filter is most of the cost, so it runs only where it can matter: not before
// the delay estimate has found an echo (with headphones, never); not once it has
// tried for kProbeFrames of system audio without proving itself (a correlation that
// was no echo), until the estimate moves or a rest has passed; and not while
// the system audio has been silent over the filter's whole span, where the echo it
// would take away is nothing.
//
// Works at 16 kHz only, internally in 16 ms frames, four at a time: in a recording
// the other threads run between the mixer's ticks, and the filter's and estimate's
// state is cold at every tick's first frame. Taken four at a time the other three
// find it warm: in recordings, echo cancellation (on against off) cost the mixing
// thread about 2.1 ms per recorded second, against 4.2 one frame at a time and 2.6
// two at a time. Both
// blocks come out delayed by latencyFrames() (64 ms), so they stay sample-aligned
// with each other; the first latencyFrames() of output are silence and drain()
// gives back the last.
//
// Threads: process() and drain() on one thread (the mixing thread); they never
// allocate, lock or log. report() may be called from any thread.
class EchoCanceller {
public:
    static constexpr int64_t kSampleRateHertz = 16000;
    static constexpr int64_t kFrameFrames = 256;                  // 16 ms
    static constexpr int64_t kBatchFrames = 4 * kFrameFrames;     // worked through at once (see above)
    static constexpr int64_t kFilterFrames = 1024;                // 64 ms of room after the delay
    static constexpr int64_t kMaximumDelayFrames = 8000;          // 500 ms of echo delay
    static constexpr int64_t kAlignmentMarginFrames = 240;        // the filter starts 15 ms before the echo
    // A newly placed filter first runs over this much of the recent past, so that it
    // has converged about as far as the echo has lasted before the estimate found it.
    static constexpr int64_t kReplayFrames = 60 * kFrameFrames;  // 0.96 s
    // Suppression is measured from this long after the echo first showed itself.
    static constexpr int64_t kConvergenceFrames = 3 * kSampleRateHertz;
    // Frames of system audio the filter gets to prove an echo it was placed on, and
    // how long it rests after failing before it tries again on the same estimate:
    // twice as long after each failure, up to the longest rest.
    static constexpr int64_t kProbeFrames = 8 * kSampleRateHertz;
    static constexpr int64_t kRetryFrames = 30 * kSampleRateHertz;
    static constexpr int64_t kLongestRestFrames = 8 * kRetryFrames;

    struct Report {
        // The echo delay found, in milliseconds; -1 when no echo was found.
        int64_t echoDelayMs = -1;
        // Microphone energy in over energy out while the system audio played,
        // from 3 s after the echo first showed itself (the filter's time to converge;
        // a device's stream may start late); 0 when there was nothing to measure.
        double suppressionDb = 0;
        // How much of the stream the echo filter ran on (besides up to a second of
        // history each time it is placed), and the stream's length.
        double filteredSeconds = 0;
        double processedSeconds = 0;
        // Times the echo moved after the filter had engaged on it, and the filter was placed anew.
        int64_t echoMoves = 0;
    };

    static std::unique_ptr<EchoCanceller> create(int64_t maximumBlockFrames);
    ~EchoCanceller();
    EchoCanceller(const EchoCanceller&) = delete;
    EchoCanceller& operator=(const EchoCanceller&) = delete;

    // In place on both blocks, 1..maximumBlockFrames frames.
    void process(float* microphone, float* system, int64_t frames) noexcept;

    // At the end of a stream: writes up to maxFrames of the held frames and
    // returns how many; 0 once all latencyFrames() are out. process() must not
    // be called after drain().
    int64_t drain(float* microphone, float* system, int64_t maxFrames) noexcept;

    int64_t latencyFrames() const { return kBatchFrames; }
    Report report() const;

private:
    explicit EchoCanceller(int64_t maximumBlockFrames);
    void processFrame() noexcept;
    bool filterShouldRun(const float* reference) noexcept;
    void startProbing() noexcept;
    void readHistory(const std::vector<float>& history, int64_t framesBack, float* frame) const noexcept;
    // Energies per frame over the last frames of a replay of the history.
    struct ReplayTail {
        double microphoneEnergy = 0;
        double filteredEnergy = 0;
    };
    ReplayTail learnFromHistory(EchoFilter& filter, int64_t shiftFrames) noexcept;
    bool tryFilterAt(int64_t delayFrames) noexcept;
    bool measureRemoval(double systemEnergy, const float* microphone, const float* cancelled) noexcept;
    void watchForAMovedEcho(const float* system, const float* cancelled, bool active) noexcept;
    void placeFilter(int64_t delayFrames) noexcept;
    void learnAfresh() noexcept;
    void watchAfresh() noexcept;
    bool needsRealigning(int64_t delayFrames) const noexcept;

    int64_t maximumBlockFrames_;
    std::unique_ptr<EchoFilter> filter_;
    // A second filter, to try a moved echo's delay on the recent past before the
    // running filter is given up for it (allocated with the first, used rarely).
    std::unique_ptr<EchoFilter> trialFilter_;
    EchoDelayEstimator estimator_;
    // Looks for the echo in what the engaged filter leaves, while it leaves too much: an
    // echo that has moved (a device's latency changed) shows there at its new delay
    // within a second, where the estimate on the microphone needs several to give up
    // the old one. The near end talking over the echo leaves as much, and can make
    // the residual correlate at a wrong delay: a delay found is tried first (tryFilterAt).
    EchoDelayEstimator residualEstimator_;
    MonoSampleFifo microphoneIn_, systemIn_, microphoneOut_, systemOut_;
    // Both signals' recent past, sharing one write index: the aligned reference is
    // read from the system's, and a newly placed filter first learns from both.
    std::vector<float> systemHistory_;
    std::vector<float> microphoneHistory_;
    int64_t historyWriteIndex_ = 0;
    int64_t alignmentShiftFrames_ = 0;  // until a delay is estimated, the filter covers short echoes
    bool aligned_ = false;               // placed by a delay estimate
    bool engaged_ = false;               // the filter's output replaces the microphone
    bool probing_ = false;               // placed, not yet engaged, still trying
    bool lastOutputFiltered_ = false;    // the previous frame's microphone came from the filter
    int64_t probeActiveFrames_ = 0;      // frames with system audio since probing started
    int64_t restingActiveFrames_ = 0;    // frames with system audio since probing gave up
    int64_t restFrames_ = kRetryFrames;  // how long this rest lasts
    int64_t silentReferenceFrames_ = 0;  // how long the aligned reference has been silent
    double recentMicrophoneEnergy_ = 0;  // smoothed over ~0.2 s of frames with system audio
    double recentFilteredEnergy_ = 0;
    int64_t poorRemovalFrames_ = 0;      // engaged, and removing little, for this long
    int64_t searchedFrames_ = -1;        // how long the residual has been searched; -1: not searching
    int64_t searchRestFrames_ = 0;       // frames with system audio before the next search may start
    double dcBlockerInput_ = 0;
    double dcBlockerOutput_ = 0;
    int64_t processedFrames_ = 0;
    int64_t firstEchoFrame_ = -1;  // processedFrames_ when the delay estimate first found an echo
    int64_t drainRemainingFrames_ = -1;  // -1: not draining
    double microphoneEnergy_ = 0;
    double outputEnergy_ = 0;
    std::atomic<int64_t> reportedDelayFrames_{-1};
    std::atomic<double> reportedSuppressionDb_{0};
    std::atomic<int64_t> reportedFilteredFrames_{0};
    std::atomic<int64_t> reportedProcessedFrames_{0};
    std::atomic<int64_t> reportedEchoMoves_{0};
};

}  // namespace velto
