#include "veltoaudio/UserDefaultsMicrophoneStorage.hpp"

#include "logging/LoggerCompat.hpp"
#include "service/UserDefaults.hpp"

namespace velto {

namespace {
LoggerCompat& logger() {
    static LoggerCompat l{kLogSubsystem, "UserDefaultsMicrophoneStorage"};
    return l;
}
}  // namespace

UserDefaultsMicrophoneStorage::UserDefaultsMicrophoneStorage(std::string storageKey)
    : UserDefaultsMicrophoneStorage(UserDefaults::standard(), std::move(storageKey)) {}

UserDefaultsMicrophoneStorage::UserDefaultsMicrophoneStorage(const std::filesystem::path& storeFile,
                                                             std::string storageKey)
    : UserDefaultsMicrophoneStorage(UserDefaults::create(storeFile), std::move(storageKey)) {}

UserDefaultsMicrophoneStorage::UserDefaultsMicrophoneStorage(std::shared_ptr<UserDefaults> userDefaults,
                                                             std::string storageKey)
    : userDefaults_(std::move(userDefaults)), storageKey_(std::move(storageKey)) {
    logger().debug("Initialized UserDefaultsMicrophoneStorage with key: " + storageKey_);
}

std::optional<std::string> UserDefaultsMicrophoneStorage::getSelectedMicrophoneId() {
    auto id = userDefaults_->stringForKey(storageKey_);
    if (id) {
        logger().debug("Retrieved stored microphone device ID: " + *id);
        return id;
    }
    logger().debug("No stored microphone device ID found");
    return std::nullopt;
}

void UserDefaultsMicrophoneStorage::setSelectedMicrophoneId(std::optional<std::string> id) {
    if (!id) {
        userDefaults_->removeObjectForKey(storageKey_);
        logger().debug("Cleared stored microphone device ID");
        return;
    }
    userDefaults_->setString(storageKey_, *id);
    logger().debug("Stored microphone device ID: " + *id);
}

}  // namespace velto
