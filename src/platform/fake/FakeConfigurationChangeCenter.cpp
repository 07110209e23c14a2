#include "platform/fake/FakeConfigurationChangeCenter.hpp"

#include <vector>

namespace velto::platform {

void FakeConfigurationChangeCenter::post() {
    std::vector<std::shared_ptr<std::function<void()>>> observers;
    {
        std::lock_guard lock(mutex_);
        for (const auto& [token, block] : observers_) observers.push_back(block);
    }
    for (const auto& block : observers) (*block)();
}

std::size_t FakeConfigurationChangeCenter::observerCount() const {
    std::lock_guard lock(mutex_);
    return observers_.size();
}

ConfigurationChangeObserverToken FakeConfigurationChangeCenter::addObserver(std::function<void()> block) {
    std::lock_guard lock(mutex_);
    const auto token = nextToken_++;
    observers_.emplace(token, std::make_shared<std::function<void()>>(std::move(block)));
    return token;
}

void FakeConfigurationChangeCenter::removeObserver(ConfigurationChangeObserverToken token) {
    std::lock_guard lock(mutex_);
    observers_.erase(token);
}

}  // namespace velto::platform
