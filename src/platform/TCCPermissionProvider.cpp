#include "platform/TCCPermissionProvider.hpp"

#include <condition_variable>
#include <mutex>

#include "logging/LoggerCompat.hpp"

namespace velto::platform {

namespace {

LoggerCompat& logger() {
    static LoggerCompat l{kLogSubsystem, "TCCPermissionProvider"};
    return l;
}

// The answer of one request, shared by the waiting caller and the completion, which may
// run on another thread and outlive neither.
struct PendingRequest {
    std::mutex mutex;
    std::condition_variable answered;
    bool done = false;
    bool granted = false;
};

// `context` is a heap-allocated shared_ptr<PendingRequest> that the completion owns.
void completeRequest(void* context, bool granted) {
    auto* owned = static_cast<std::shared_ptr<PendingRequest>*>(context);
    std::shared_ptr<PendingRequest> pending = std::move(*owned);
    delete owned;
    logger().info(std::string("System audio permission request completed with result: ") + (granted ? "true" : "false"));
    {
        std::lock_guard lock(pending->mutex);
        if (pending->done) return;  // resumes the caller once, whatever the library does
        pending->done = true;
        pending->granted = granted;
    }
    pending->answered.notify_all();
}

}  // namespace

TCCPermissionProvider::Error::Error(Code code, std::string description, std::string caseDescription)
    : velto::Error(std::move(description), std::move(caseDescription)), code_(code) {}

TCCPermissionProvider::Error TCCPermissionProvider::Error::cannotUseTCC() {
    // The case has no text of its own; this is the generic description such an error gets.
    return Error(Code::cannotUseTCC, "The operation couldn’t be completed. (TCCPermissionProvider.Error error 0.)",
                 "cannotUseTCC");
}

TCCPermissionProvider::TCCPermissionProvider() : TCCPermissionProvider(TccLibrary::shared()) {}

TCCPermissionProvider::TCCPermissionProvider(std::shared_ptr<TccLibrary> library) : library_(std::move(library)) {}

PermissionState TCCPermissionProvider::checkPermissionStatus() {
    auto preflight = library_->preflightFunction();
    if (!preflight) {
        logger().error("Permission preflight not available - returning notDetermined");
        return PermissionState::notDetermined;
    }
    int result = preflight(kTccServiceAudioCapture, nullptr);
    switch (result) {
        case 0:
            logger().debug("System audio permission granted");
            return PermissionState::granted;
        case 1:
            logger().debug("System audio permission denied");
            return PermissionState::denied;
        default:
            logger().debug("System audio permission undetermined (result: " + std::to_string(result) + ")");
            return PermissionState::notDetermined;
    }
}

bool TCCPermissionProvider::requestAudioCapturePermission() {
    auto request = library_->requestFunction();
    if (!request) {
        logger().error("Permission request not available");
        throw Error::cannotUseTCC();
    }
    auto pending = std::make_shared<PendingRequest>();
    request(kTccServiceAudioCapture, nullptr, completeRequest, new std::shared_ptr<PendingRequest>(pending));
    std::unique_lock lock(pending->mutex);
    pending->answered.wait(lock, [&] { return pending->done; });
    return pending->granted;
}

}  // namespace velto::platform
