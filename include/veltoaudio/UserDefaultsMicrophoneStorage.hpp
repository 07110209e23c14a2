#pragma once

#include <memory>
#include <optional>
#include <string>

#include "veltoaudio/MicrophonePreferencesStorage.hpp"
#include "veltoaudio/UserDefaults.hpp"

namespace velto {

// Keeps the preferred microphone's device id in a user-defaults store under one key.
//
// Threads: any thread; the store serialises access itself.
class UserDefaultsMicrophoneStorage final : public MicrophonePreferencesStorage {
public:
    UserDefaultsMicrophoneStorage(std::shared_ptr<UserDefaults> userDefaults, std::string storageKey);

    std::optional<std::string> getSelectedMicrophoneId() override;
    void setSelectedMicrophoneId(std::optional<std::string> id) override;

    const std::string& storageKey() const { return storageKey_; }

private:
    std::shared_ptr<UserDefaults> userDefaults_;
    std::string storageKey_;
};

}  // namespace velto
