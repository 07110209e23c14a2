#include "platform/pulse/PulseConfigurationChangeCenter.hpp"

#include "logging/LoggerCompat.hpp"

#include <chrono>
#include <vector>

namespace velto::pulse {
namespace {

LoggerCompat& logger() {
    static LoggerCompat instance{kLogSubsystem, "PulseConfigurationChangeCenter"};
    return instance;
}

double monotonicSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

}  // namespace

PulseConfigurationChangeCenter::PulseConfigurationChangeCenter(std::shared_ptr<PulseConnection> connection,
                                                               std::shared_ptr<PulseStreamHandover> handover)
    : connection_(std::move(connection)), handover_(std::move(handover)) {}

PulseConfigurationChangeCenter::~PulseConfigurationChangeCenter() { stopWatching(); }

platform::ConfigurationChangeObserverToken PulseConfigurationChangeCenter::addObserver(std::function<void()> block) {
    std::lock_guard lock(observersMutex_);
    const auto token = nextToken_++;
    observers_.emplace(token, std::move(block));
    if (!notifier_.joinable()) startWatching();
    return token;
}

void PulseConfigurationChangeCenter::removeObserver(platform::ConfigurationChangeObserverToken token) {
    std::lock_guard lock(observersMutex_);
    observers_.erase(token);
    // The notifier keeps running without observers: stopping it here could mean joining
    // it from inside an observer. It ends with the centre.
}

void PulseConfigurationChangeCenter::startWatching() {
    eventToken_ = connection_->addEventListener([this](pa_subscription_event_type_t type, std::uint32_t) {
        const auto facility = type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
        const auto kind = type & PA_SUBSCRIPTION_EVENT_TYPE_MASK;
        if (facility == PA_SUBSCRIPTION_EVENT_SERVER) {
            noteEvent(false);  // maybe a default moved; the notifier checks
        } else if ((facility == PA_SUBSCRIPTION_EVENT_SOURCE || facility == PA_SUBSCRIPTION_EVENT_SINK) &&
                   kind != PA_SUBSCRIPTION_EVENT_CHANGE) {
            noteEvent(true);  // a device came or went; volume and state changes are not configuration
        }
    });
    // Losing the server, and finding it again after a loss, change what can be recorded.
    // The first connection does not: it is whoever records first opening the connection,
    // and announcing it would restart that recording moments after it started.
    connectionToken_ = connection_->addConnectionListener([this](bool connected) {
        {
            MutexLock lock(eventsMutex_);
            const bool foundAgain = connected && connectionLost_;
            connectionLost_ = connectionLost_ || !connected;
            if (connected && !foundAgain) return;
        }
        noteEvent(true);
    });
    {
        MutexLock lock(eventsMutex_);
        stopping_ = false;
    }
    notifier_ = std::thread([this] { notifierLoop(); });
}

void PulseConfigurationChangeCenter::stopWatching() {
    {
        MutexLock lock(eventsMutex_);
        stopping_ = true;
    }
    eventsChanged_.notify_all();
    if (notifier_.joinable()) notifier_.join();
    if (eventToken_ != 0) connection_->removeListener(eventToken_);
    if (connectionToken_ != 0) connection_->removeListener(connectionToken_);
}

void PulseConfigurationChangeCenter::noteEvent(bool definite) {
    {
        MutexLock lock(eventsMutex_);
        coalescer_.noteChange(monotonicSeconds());
        definiteChange_ = definiteChange_ || definite;
    }
    eventsChanged_.notify_all();
}

bool PulseConfigurationChangeCenter::defaultsMoved() {
    auto server = connection_->serverInfo();
    if (!server) return false;
    const bool moved = server.value->defaultSinkName != lastDefaultSink_ ||
                       server.value->defaultSourceName != lastDefaultSource_;
    lastDefaultSink_ = server.value->defaultSinkName;
    lastDefaultSource_ = server.value->defaultSourceName;
    return moved;
}

void PulseConfigurationChangeCenter::notifyObservers() {
    std::lock_guard lock(observersMutex_);
    // Copy, so that an observer that removes itself does not invalidate the walk.
    std::vector<std::pair<platform::ConfigurationChangeObserverToken, std::function<void()>>> observers(
        observers_.begin(), observers_.end());
    for (const auto& [token, block] : observers) {
        if (observers_.contains(token)) block();
    }
}

void PulseConfigurationChangeCenter::notifierLoop() {
    // Connect (which subscribes) and learn the defaults that later server events are compared with.
    if (connection_->ensureConnected() != PA_OK) logger().error("Sound server not reachable; waiting for it");
    defaultsMoved();
    double lastReconnectSeconds = monotonicSeconds();
    MutexUniqueLock lock(eventsMutex_);
    while (!stopping_) {
        // Look often only while a burst is settling or the server is away; otherwise an
        // event's notify wakes this thread.
        const bool busy = coalescer_.hasPending() || !connection_->isConnected();
        eventsChanged_.wait_for(lock, busy ? std::chrono::milliseconds(50) : std::chrono::milliseconds(1000));
        if (stopping_) break;
        const double now = monotonicSeconds();
        if (!coalescer_.takeSettled(now)) {
            if (!connection_->isConnected() && now - lastReconnectSeconds >= kReconnectIntervalSeconds) {
                lastReconnectSeconds = now;
                lock.unlock();
                connection_->ensureConnected();  // a success is reported through the connection listener
                lock.lock();
            }
            continue;
        }
        const bool definite = definiteChange_;
        definiteChange_ = false;
        lock.unlock();
        const bool moved = defaultsMoved();
        if (definite || moved) {
            logger().debug("Audio configuration changed");
            if (handover_) handover_->openWindow();
            notifyObservers();
        }
        lock.lock();
    }
}

}  // namespace velto::pulse
