#pragma once
// Carries capture streams across a restart of their owners. When the system's audio
// configuration changes, the recorders stop capturing and start again on whatever is
// now the right device. Closing a stream and opening another loses what the source
// captures in between: the restart's own time, rounded up to the source's posting
// period, and the new stream's wait for its first audio (20 to 80 ms in the sandbox).
//
// So for a short while after a change is announced, a stream its owner stops is parked
// rather than closed: it goes on recording into its ring, and a start on the same source
// in the same format takes it over and goes on from exactly where the last owner
// stopped. A start on another source (the default moved) opens a stream of its own, and
// a parked stream nobody takes over is closed when its time is up.
//
// Only a start that follows the stop closely takes a stream over: a restart starts again
// 1 to 4 ms after it stopped (6 to 17 under ThreadSanitizer). A recording that a user
// stops just after a change, and another started soon after, must not begin with what
// was captured before it started: a stream parked for longer is closed instead, so at
// worst such a recording begins a quarter of a second early.
//
// Threads: any thread but the main loop's.

#include "dispatch/SerialQueue.hpp"
#include "dispatch/ThreadAnnotations.hpp"
#include "platform/pulse/PulseCaptureStream.hpp"

#include <memory>
#include <mutex>
#include <vector>

namespace velto::pulse {

class PulseStreamHandover : public std::enable_shared_from_this<PulseStreamHandover> {
public:
    // How long after a change stops park their streams.
    static constexpr double kDefaultWindowSeconds = 1.0;
    // How long a parked stream waits for its restarted owner.
    static constexpr double kMaxParkedSeconds = 0.25;

    static std::shared_ptr<PulseStreamHandover> create(std::shared_ptr<PulseConnection> connection,
                                                       double windowSeconds = kDefaultWindowSeconds);
    PulseStreamHandover(std::shared_ptr<PulseConnection> connection, double windowSeconds);
    ~PulseStreamHandover();
    PulseStreamHandover(const PulseStreamHandover&) = delete;
    PulseStreamHandover& operator=(const PulseStreamHandover&) = delete;

    // A configuration change is about to be announced: streams stopped from now until the
    // window ends are parked.
    void openWindow();

    // The owner is done with `stream`: parked while a window is open and the stream still
    // records, closed otherwise.
    void release(std::unique_ptr<PulseCaptureStream> stream);

    // A parked stream that records what `options` asks for (the named source, or for no
    // name the source that is the server's default now; the same rate, channels and
    // block), resumed into `delivery`. Null when there is none: open a new one.
    std::unique_ptr<PulseCaptureStream> adopt(const PulseCaptureStreamOptions& options,
                                              PulseCaptureStream::Delivery delivery);

    std::size_t parkedCount() const;

private:
    struct Parked {
        std::unique_ptr<PulseCaptureStream> stream;
        double parkedSeconds = 0.0;
    };
    void closeExpired();

    const std::shared_ptr<PulseConnection> connection_;
    const double windowSeconds_;
    const std::shared_ptr<SerialQueue> expiryQueue_;  // closes the parked streams nobody took

    mutable Mutex mutex_;
    double windowEndsSeconds_ VELTO_GUARDED_BY(mutex_) = 0.0;
    std::vector<Parked> parked_ VELTO_GUARDED_BY(mutex_);
};

// Where a stream goes when its owner stops it: to `handover` when there is one, closed
// otherwise.
void releaseStream(const std::shared_ptr<PulseStreamHandover>& handover, std::unique_ptr<PulseCaptureStream> stream);

}  // namespace velto::pulse
