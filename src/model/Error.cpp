#include "veltoaudio/Error.hpp"

namespace velto {

PlatformError::PlatformError(std::string domain, int64_t code, std::string description)
    : Error(std::move(description), domain + "(" + std::to_string(code) + ")"), domain_(std::move(domain)), code_(code) {}

std::string describeError(const std::exception_ptr& error) {
    if (!error) return "Unknown error";
    try {
        std::rethrow_exception(error);
    } catch (const Error& e) {
        return e.errorDescription();
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "Unknown error";
    }
}

std::string caseDescriptionOf(const std::exception_ptr& error) {
    if (!error) return "unknown";
    try {
        std::rethrow_exception(error);
    } catch (const Error& e) {
        return e.caseDescription();
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unknown";
    }
}

CapturedError::CapturedError(std::exception_ptr original)
    : Error(describeError(original), caseDescriptionOf(original)), original_(std::move(original)) {}

ErrorPtr captureError(const std::exception_ptr& error) {
    if (!error) return nullptr;
    return std::make_shared<CapturedError>(error);
}

}  // namespace velto
