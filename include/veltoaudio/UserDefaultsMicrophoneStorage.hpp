#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "veltoaudio/Export.hpp"
#include "veltoaudio/MicrophonePreferencesStorage.hpp"

namespace velto {

class UserDefaults;

// Keeps the preferred microphone's device id under one key of a preferences file: one
// JSON object, replaced atomically on every write and locked against other processes
// writing at once, so a value written by another process is seen at once.
//
// Threads: any thread; the store serialises access itself.
class VELTO_EXPORT UserDefaultsMicrophoneStorage final : public MicrophonePreferencesStorage {
public:
    // In the user's preferences: $XDG_CONFIG_HOME/io.veltoaudio/preferences.json
    // (~/.config when unset).
    explicit UserDefaultsMicrophoneStorage(std::string storageKey);
    // In the preferences file `storeFile` (it and its folder are created on the first write).
    UserDefaultsMicrophoneStorage(const std::filesystem::path& storeFile, std::string storageKey);

    std::optional<std::string> getSelectedMicrophoneId() override;
    void setSelectedMicrophoneId(std::optional<std::string> id) override;

    const std::string& storageKey() const { return storageKey_; }

private:
    VELTO_HIDDEN UserDefaultsMicrophoneStorage(std::shared_ptr<UserDefaults> userDefaults, std::string storageKey);
    std::shared_ptr<UserDefaults> userDefaults_;
    std::string storageKey_;
};

}  // namespace velto
