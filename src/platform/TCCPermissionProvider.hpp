#pragma once

#include <memory>

#include "platform/TCCPermissionProviderProtocol.hpp"
#include "platform/TccLibrary.hpp"
#include "veltoaudio/Error.hpp"

namespace velto::platform {

// Asks the privacy-permission service about "kTCCServiceAudioCapture" through the two
// functions of TccLibrary. Holds no state: every status query asks again.
//
// Threads: any thread. requestAudioCapturePermission() blocks its caller until the
// completion runs, on whatever thread the library calls it.
class TCCPermissionProvider final : public TCCPermissionProviderProtocol {
public:
    class Error final : public velto::Error {
    public:
        enum class Code { cannotUseTCC };
        static Error cannotUseTCC();
        Code code() const { return code_; }

    private:
        Error(Code code, std::string description, std::string caseDescription);
        Code code_;
    };

    // Over the process-wide library.
    TCCPermissionProvider();
    explicit TCCPermissionProvider(std::shared_ptr<TccLibrary> library);

    PermissionState checkPermissionStatus() override;
    // Throws Error::cannotUseTCC when the request function is missing.
    bool requestAudioCapturePermission() override;

private:
    std::shared_ptr<TccLibrary> library_;
};

}  // namespace velto::platform
