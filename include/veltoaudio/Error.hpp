#pragma once

#include <cstdint>
#include <exception>
#include <memory>
#include <string>

#include "veltoaudio/Export.hpp"

namespace velto {

// Base of every error this library throws. Each error type is an enumeration of
// cases with a fixed user-facing description; an error that wraps another reads
// "prefix: underlying description".
class VELTO_EXPORT Error : public std::exception {
public:
    // The user-facing, localised description. Never empty.
    const std::string& errorDescription() const noexcept { return description_; }
    // The error's default textual form: its case name with any payload in
    // parentheses, e.g. "systemAudioDeviceStartFailed(-50)".
    const std::string& caseDescription() const noexcept { return caseDescription_; }
    const char* what() const noexcept override { return description_.c_str(); }

protected:
    Error(std::string description, std::string caseDescription)
        : description_(std::move(description)), caseDescription_(std::move(caseDescription)) {}

private:
    std::string description_;
    std::string caseDescription_;
};

using ErrorPtr = std::shared_ptr<const Error>;

// A failure reported by the platform underneath the library (the sound server,
// the file system, libsndfile, libsoxr ...). Its description is the platform's own text.
class VELTO_EXPORT PlatformError final : public Error {
public:
    PlatformError(std::string domain, int64_t code, std::string description);
    const std::string& domain() const noexcept { return domain_; }
    int64_t code() const noexcept { return code_; }

private:
    std::string domain_;
    int64_t code_;
};

// The localised description of anything thrown: errorDescription() for our
// errors, what() for other exceptions, a fixed text for the rest.
VELTO_EXPORT std::string describeError(const std::exception_ptr& error);
// The default textual form of anything thrown (caseDescription() for our errors).
VELTO_EXPORT std::string caseDescriptionOf(const std::exception_ptr& error);
// Any thrown error, kept for wrapping: it reads as the original (same
// description and textual form) and keeps the original for rethrowing.
class VELTO_EXPORT CapturedError final : public Error {
public:
    explicit CapturedError(std::exception_ptr original);
    const std::exception_ptr& original() const noexcept { return original_; }

private:
    std::exception_ptr original_;
};

// Keeps a thrown error as an ErrorPtr (a CapturedError); null stays null.
VELTO_EXPORT ErrorPtr captureError(const std::exception_ptr& error);

}  // namespace velto
