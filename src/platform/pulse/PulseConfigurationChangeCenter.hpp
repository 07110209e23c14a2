#pragma once
// Configuration-change notifications from the PulseAudio server: a source or sink added
// or removed, the default source or sink changed, the server lost or found again. Bursts
// (one device load announces several objects) are coalesced into one notification.
//
// While it has observers, a notifier thread of its own watches the bursts, checks
// whether a server change moved a default, and reconnects every few seconds when the
// server has gone away (so its return is noticed too).
//
// Threads: add/remove from any thread. Observers run on the notifier thread; after
// removeObserver() returns, a block is not started again (an observer may remove
// itself from inside its block).

#include "dispatch/ThreadAnnotations.hpp"
#include "platform/AudioConfigurationChangeCenter.hpp"
#include "platform/ChangeCoalescer.hpp"
#include "platform/pulse/PulseConnection.hpp"
#include "platform/pulse/PulseStreamHandover.hpp"

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

namespace velto::pulse {

class PulseConfigurationChangeCenter final : public platform::AudioConfigurationChangeCenter {
public:
    static constexpr double kQuietSeconds = 0.25;
    static constexpr double kMaximumDelaySeconds = 1.0;
    static constexpr double kReconnectIntervalSeconds = 2.0;

    // With a handover, the streams that observers stop in answer to a change are kept for
    // their restart (see PulseStreamHandover).
    explicit PulseConfigurationChangeCenter(std::shared_ptr<PulseConnection> connection,
                                            std::shared_ptr<PulseStreamHandover> handover = nullptr);
    ~PulseConfigurationChangeCenter() override;
    PulseConfigurationChangeCenter(const PulseConfigurationChangeCenter&) = delete;
    PulseConfigurationChangeCenter& operator=(const PulseConfigurationChangeCenter&) = delete;

    platform::ConfigurationChangeObserverToken addObserver(std::function<void()> block) override;
    void removeObserver(platform::ConfigurationChangeObserverToken token) override;

private:
    void startWatching();  // observersMutex_ held
    void stopWatching();
    void notifierLoop();
    void noteEvent(bool definite);
    bool defaultsMoved();
    void notifyObservers();

    std::shared_ptr<PulseConnection> connection_;
    std::shared_ptr<PulseStreamHandover> handover_;  // may be null

    std::recursive_mutex observersMutex_;  // held while observers run
    platform::ConfigurationChangeObserverToken nextToken_ = 1;
    std::map<platform::ConfigurationChangeObserverToken, std::function<void()>> observers_;

    Mutex eventsMutex_;
    std::condition_variable_any eventsChanged_;
    platform::ChangeCoalescer coalescer_ VELTO_GUARDED_BY(eventsMutex_){kQuietSeconds, kMaximumDelaySeconds};
    bool definiteChange_ VELTO_GUARDED_BY(eventsMutex_) = false;
    bool stopping_ VELTO_GUARDED_BY(eventsMutex_) = false;
    bool connectionLost_ VELTO_GUARDED_BY(eventsMutex_) = false;
    std::thread notifier_;
    std::uint64_t eventToken_ = 0;
    std::uint64_t connectionToken_ = 0;
    std::string lastDefaultSink_;    // notifier thread only
    std::string lastDefaultSource_;  // notifier thread only
};

}  // namespace velto::pulse
