#pragma once
// The one connection of this process to the PulseAudio server: a threaded main loop and
// a context. It survives the server going away: every request first makes sure the
// context is ready and connects again when it is not. Every wait has a time-out, so a
// silent or vanished server never hangs a caller; failures answer with a PulseAudio
// error code (PA_ERR_*).
//
// Threads: every public method may be called from any thread except the main-loop
// thread itself (callbacks must not call back in). Methods that take a MainloopLock&
// must be called with that lock held.

#include <pulse/pulseaudio.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace velto::pulse {

struct PulseServerInfo {
    std::string defaultSinkName;
    std::string defaultSourceName;
};

struct PulseSourceInfo {
    std::uint32_t index = 0;
    std::string name;
    std::string description;
    double sampleRateHertz = 0.0;
    std::uint32_t channels = 0;
    bool isMonitor = false;
    std::string bus;  // device.bus property ("usb", "bluetooth", ...), empty when unknown
};

struct PulseSinkInfo {
    std::uint32_t index = 0;
    std::string name;
    std::string description;
    double sampleRateHertz = 0.0;
    std::uint32_t channels = 0;
    std::string monitorSourceName;
};

// One look at the server: its defaults, sinks, sources and playing streams, as they were
// at one moment. Lookups that need several of these take them from one snapshot, which
// costs a single round trip (the requests go out together), instead of asking again for
// every device they compare.
struct PulseServerSnapshot {
    PulseServerInfo server;
    std::vector<PulseSinkInfo> sinks;
    std::vector<PulseSourceInfo> sources;
    std::vector<std::uint32_t> sinkInputs;

    const PulseSinkInfo* defaultSink() const;
    const PulseSourceInfo* source(std::string_view name) const;
};

// A request's answer: the value, or the PulseAudio error that prevented it.
template <class T>
struct PulseResult {
    std::optional<T> value;
    int error = PA_OK;
    explicit operator bool() const { return value.has_value(); }
};

class PulseConnection : public std::enable_shared_from_this<PulseConnection> {
public:
    // Holds the main-loop lock: the context and streams may be used while it lives. The
    // lock is libpulse's own, taken by handle and held implicitly by every callback, which
    // the thread-safety analysis could follow only through a stand-in capability: the
    // members it guards say so in a comment ("guarded by the main-loop lock") instead.
    class MainloopLock {
    public:
        explicit MainloopLock(const PulseConnection& connection);
        ~MainloopLock();
        MainloopLock(const MainloopLock&) = delete;
        MainloopLock& operator=(const MainloopLock&) = delete;

    private:
        pa_threaded_mainloop* mainloop_;
    };

    // Called on the main-loop thread, with the lock held: must be short and must not call back in.
    using EventListener = std::function<void(pa_subscription_event_type_t type, std::uint32_t index)>;
    using ConnectionListener = std::function<void(bool connected)>;

    // The process-wide connection: created on first use, shared while anyone holds it.
    static std::shared_ptr<PulseConnection> shared();
    static std::shared_ptr<PulseConnection> create(std::string applicationName, double timeoutSeconds);

    PulseConnection(std::string applicationName, double timeoutSeconds);
    ~PulseConnection();
    PulseConnection(const PulseConnection&) = delete;
    PulseConnection& operator=(const PulseConnection&) = delete;

    // Connects when the context is not ready. PA_OK, or why the server cannot be reached.
    int ensureConnected();
    bool isConnected() const { return connected_.load(); }
    double timeoutSeconds() const { return timeoutSeconds_; }

    PulseResult<PulseServerInfo> serverInfo();
    PulseResult<PulseServerSnapshot> snapshot();
    // Requests answered by the server so far, a batch sent together counting once: what a
    // lookup costs in waiting on the server.
    std::uint64_t roundTrips() const { return roundTrips_.load(); }

    // Server events (sources and sinks added or removed, server changes) and connection
    // losses and recoveries. The subscription is renewed on every reconnection.
    std::uint64_t addEventListener(EventListener listener);
    std::uint64_t addConnectionListener(ConnectionListener listener);
    void removeListener(std::uint64_t token);

    // For streams: valid with the lock held, after ensureConnected() answered PA_OK.
    pa_context* context(const MainloopLock&) const { return context_; }
    pa_threaded_mainloop* mainloop() const { return mainloop_; }

    // Waits (without the lock) for `done`, which a callback sets under `completion`'s mutex;
    // then takes the lock (so the callback has returned), cancels the operation when it timed
    // out and releases it. True when the operation completed in time.
    struct Completion {
        std::mutex mutex;
        std::condition_variable condition;
        bool done = false;
        void signal();
    };
    bool await(pa_operation* operation, Completion& completion);
    // The same for operations sent together; `completion` is signalled when the last one ends.
    bool await(std::span<pa_operation* const> operations, Completion& completion);

private:
    static void contextStateCallback(pa_context* context, void* userdata);
    static void subscribeCallback(pa_context* context, pa_subscription_event_type_t type, std::uint32_t index,
                                  void* userdata);
    void discardContext();  // lock held
    void notifyConnection(bool connected);  // lock held (main-loop thread or caller)

    const std::string applicationName_;
    const double timeoutSeconds_;
    pa_threaded_mainloop* mainloop_ = nullptr;
    pa_context* context_ = nullptr;  // guarded by the main-loop lock

    std::mutex connectMutex_;  // one connection attempt at a time
    std::mutex stateMutex_;
    std::condition_variable stateChanged_;
    std::atomic<int> contextState_{PA_CONTEXT_UNCONNECTED};
    std::atomic<bool> connected_{false};
    std::atomic<std::uint64_t> roundTrips_{0};

    std::mutex listenersMutex_;
    std::uint64_t nextListenerToken_ = 1;
    std::map<std::uint64_t, EventListener> eventListeners_;
    std::map<std::uint64_t, ConnectionListener> connectionListeners_;
};

// The PulseAudio text of an error code.
std::string pulseErrorText(int error);

// Whether an ensureConnected() answer means that no server answered at all (none runs, or
// the socket is not there), as opposed to a server that refuses this client.
bool isServerUnreachable(int error);

// The server address a connection tries, for telling the user: PULSE_SERVER when set,
// else the user's local socket (which is where libpulse looks first).
std::string serverAddressTried();

}  // namespace velto::pulse
