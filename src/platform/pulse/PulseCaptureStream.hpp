#pragma once
// One PulseAudio record stream of 32-bit float frames from a source, delivered in blocks
// of a fixed frame count on the main-loop thread.
//
// The server is asked for fragments of one block. The read callback stores what
// arrives in a preallocated ring, cuts it into blocks and hands each to `Delivery`
// (it never allocates or locks; it logs only sampled lines). Handing blocks on where
// they arrive costs no wake-up of another thread: on a virtual machine every context
// switch costs more than the copy. While the source delivers nothing (an idle monitor),
// a main-loop timer delivers silence blocks to keep the stream's pace (see
// SilencePacer); the first delivery of a source slow to start is never cut.
//
// Threads: open(), deliverCapturedSoFar(), park(), resume() and close()/destruction from
// one owner thread at a time, never the main-loop thread. After close() returns, no callback runs and `Delivery` is
// not called again.
// Delivery runs with the main-loop lock held: it must be short, and must neither close
// its own stream nor call back into the connection.

#include "dispatch/ThreadAnnotations.hpp"
#include "platform/pulse/InterleavedSampleRing.hpp"
#include "platform/pulse/PulseConnection.hpp"
#include "platform/pulse/SilencePacer.hpp"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace velto::pulse {

struct PulseCaptureStreamOptions {
    std::string sourceName;  // empty: the server's default source
    double sampleRateHertz = 48000.0;
    std::uint32_t channels = 2;
    std::uint32_t blockFrames = 512;
    std::string streamName = "VeltoAudio capture";
};

class PulseCaptureStream {
public:
    // Called on the main-loop thread with `blockFrames` interleaved frames.
    // `lastFrameAgeSeconds`: how long ago the block's last frame arrived (what arrived
    // with it and waits for the next block came after it; 0 for silence given).
    using Delivery = std::function<void(const float* interleaved, std::uint32_t frames, double lastFrameAgeSeconds)>;

    // Connects the stream and waits until it records; throws PlatformError (domain
    // "PulseAudio") when the server, the source or the format is refused.
    static std::unique_ptr<PulseCaptureStream> open(std::shared_ptr<PulseConnection> connection,
                                                    const PulseCaptureStreamOptions& options, Delivery delivery);
    ~PulseCaptureStream();
    PulseCaptureStream(const PulseCaptureStream&) = delete;
    PulseCaptureStream& operator=(const PulseCaptureStream&) = delete;

    // Disconnects the stream and stops its timer. Idempotent.
    void close();

    // Owner thread. Waits until everything the source had captured when this was called
    // has been delivered, the last partial block included (handed on as a shorter block),
    // but no longer than a block and a round trip to the server. Returns whether everything
    // arrived. The stream goes on recording afterwards.
    bool deliverCapturedSoFar();

    // Owner thread. Stops handing blocks on and lets go of `Delivery`, while the stream
    // goes on recording into its ring (two seconds' worth): it waits there to be taken
    // over by the next owner of the same source (PulseStreamHandover). Idempotent.
    void park();
    // Owner thread. Hands on, from the main loop and at once, everything recorded since
    // park() (and silence for any time the source was idle), to `delivery` from now on.
    void resume(Delivery delivery);

    const PulseCaptureStreamOptions& options() const { return options_; }
    // The source the server records from (the default source resolved); empty if unknown.
    std::string deviceName() const;

    std::uint64_t droppedFrames() const { return droppedFrames_.load(); }
    std::uint64_t deliveredBlocks() const { return deliveredBlocks_.load(); }
    std::uint64_t silenceBlocks() const { return silenceBlocks_.load(); }
    // True while the server side of the stream is alive.
    bool isAlive() const { return alive_.load(); }

    PulseCaptureStream(std::shared_ptr<PulseConnection> connection, const PulseCaptureStreamOptions& options,
                       Delivery delivery);

private:
    static void readCallback(pa_stream* stream, std::size_t bytes, void* userdata);
    static void stateCallback(pa_stream* stream, void* userdata);
    static void timerCallback(pa_mainloop_api* api, pa_time_event* event, const struct timeval* when, void* userdata);
    static void timingCallback(pa_stream* stream, int success, void* userdata);
    void connect();  // throws
    // Main-loop thread: delivers the whole blocks stored and reports losses. Silence is
    // given only from the timer, which decides after the sockets have been read: a read
    // callback may run while the rest of a backlog still waits unread.
    void deliverDue(bool fromTimer);
    void deliverSilence(std::uint32_t blocks);
    void armTimer(double nowSeconds);  // for when silence may next be due
    void armTimerAt(double dueSeconds);
    double blockSeconds() const { return options_.blockFrames / options_.sampleRateHertz; }
    std::string sourceLabel() const;
    void checkCatchUp();  // main-loop thread, lock held
    void finishCatchUp();

    std::shared_ptr<PulseConnection> connection_;
    const PulseCaptureStreamOptions options_;
    Delivery delivery_;
    pa_stream* stream_ = nullptr;          // guarded by the main-loop lock
    pa_time_event* silenceTimer_ = nullptr;  // guarded by the main-loop lock
    pa_context* timerContext_ = nullptr;     // guarded by the main-loop lock

    pa_operation* catchUpOperation_ = nullptr;  // guarded by the main-loop lock
    bool parked_ = false;                       // guarded by the main-loop lock

    // Main-loop thread only (or its lock held), from the moment the stream is ready.
    InterleavedSampleRing ring_;
    std::vector<float> block_;
    SilencePacer pacer_;
    double lastDataSeconds_ = 0.0;  // when the server last sent frames, whole blocks or not
    double timerDueSeconds_ = 0.0;
    std::uint64_t reportedDrops_ = 0;
    // Bytes taken from the stream since it connected, holes included: the same count as
    // the server's write index, which a catch-up compares it with.
    std::int64_t bytesRead_ = 0;
    // A catch-up in progress (main-loop lock): its target is unknown (-1) until the
    // server's timing answer comes.
    bool catchingUp_ = false;
    std::int64_t catchUpTargetBytes_ = -1;
    double lastDropReportSeconds_ = 0.0;

    // Connection state changes, for open() to wait on.
    Mutex stateMutex_;
    std::condition_variable_any stateChanged_;
    std::atomic<bool> alive_{false};
    std::atomic<int> streamState_{PA_STREAM_UNCONNECTED};
    bool caughtUp_ VELTO_GUARDED_BY(stateMutex_) = false;
    std::atomic<std::uint64_t> droppedFrames_{0};
    std::atomic<std::uint64_t> deliveredBlocks_{0};
    std::atomic<std::uint64_t> silenceBlocks_{0};
};

}  // namespace velto::pulse
