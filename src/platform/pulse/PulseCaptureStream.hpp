#pragma once
// One PulseAudio record stream of 32-bit float frames from a source, delivered in blocks
// of a fixed frame count on a delivery thread of its own.
//
// The server is asked for fragments of one block. The read callback runs on the
// main-loop thread: it only copies what arrives into a preallocated lock-free ring and,
// once a whole block is stored, wakes the delivery thread (it never allocates, locks or
// logs). The delivery thread cuts the ring into blocks and hands each to `Delivery`.
// Fragments that do not fit the ring (the consumer stalled for over a second) are
// dropped and counted. While the source delivers nothing (an idle monitor), silence
// blocks keep the stream's pace (see SilencePacer); the first delivery of a source slow
// to start is never cut.
//
// Threads: open() and close()/destruction from one owner thread. After close() returns,
// no read callback runs and `Delivery` is not called again. Delivery must not close
// its own stream.

#include "platform/pulse/InterleavedSampleRing.hpp"
#include "platform/pulse/PulseConnection.hpp"
#include "platform/pulse/SilencePacer.hpp"
#include "platform/pulse/WakeupSignal.hpp"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace velto::pulse {

struct PulseCaptureStreamOptions {
    std::string sourceName;  // empty: the server's default source
    double sampleRateHertz = 48000.0;
    std::uint32_t channels = 2;
    std::uint32_t blockFrames = 512;
    std::string streamName = "VeltoAudio capture";
    std::string threadName = "velto-capture";  // of the delivery thread; at most 15 characters
};

class PulseCaptureStream {
public:
    // Called on the delivery thread with `blockFrames` interleaved frames.
    using Delivery = std::function<void(const float* interleaved, std::uint32_t frames)>;

    // Connects the stream and waits until it records; throws PlatformError (domain
    // "PulseAudio") when the server, the source or the format is refused.
    static std::unique_ptr<PulseCaptureStream> open(std::shared_ptr<PulseConnection> connection,
                                                    const PulseCaptureStreamOptions& options, Delivery delivery);
    ~PulseCaptureStream();
    PulseCaptureStream(const PulseCaptureStream&) = delete;
    PulseCaptureStream& operator=(const PulseCaptureStream&) = delete;

    // Disconnects the stream, then stops and joins the delivery thread. Idempotent.
    void close();

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
    void connect();  // throws
    void deliveryLoop();
    std::string sourceLabel() const;

    std::shared_ptr<PulseConnection> connection_;
    const PulseCaptureStreamOptions options_;
    Delivery delivery_;
    pa_stream* stream_ = nullptr;  // guarded by the main-loop lock

    InterleavedSampleRing ring_;
    std::vector<float> block_;  // delivery thread only

    // Connection state changes, for open() to wait on.
    std::mutex stateMutex_;
    std::condition_variable stateChanged_;
    // Raised by the read callback when a whole block is stored, and by close().
    WakeupSignal dataReady_;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> alive_{false};
    std::atomic<int> streamState_{PA_STREAM_UNCONNECTED};
    std::atomic<std::uint64_t> droppedFrames_{0};
    std::atomic<std::uint64_t> deliveredBlocks_{0};
    std::atomic<std::uint64_t> silenceBlocks_{0};
    std::thread deliveryThread_;
};

}  // namespace velto::pulse
