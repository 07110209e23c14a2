#pragma once
// A configuration-change centre whose notifications the test posts itself.
//
// Threads: all methods are thread-safe; post() runs the observers on the calling thread.

#include "platform/AudioConfigurationChangeCenter.hpp"

#include <map>
#include <memory>
#include <mutex>

namespace velto::platform {

class FakeConfigurationChangeCenter final : public AudioConfigurationChangeCenter {
public:
    static std::shared_ptr<FakeConfigurationChangeCenter> create() {
        return std::make_shared<FakeConfigurationChangeCenter>();
    }

    // Calls every registered observer once.
    void post();
    std::size_t observerCount() const;

    ConfigurationChangeObserverToken addObserver(std::function<void()> block) override;
    void removeObserver(ConfigurationChangeObserverToken token) override;

private:
    mutable std::mutex mutex_;
    ConfigurationChangeObserverToken nextToken_ = 1;
    std::map<ConfigurationChangeObserverToken, std::shared_ptr<std::function<void()>>> observers_;
};

}  // namespace velto::platform
