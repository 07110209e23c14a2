#include "signal/AudioConverterError.hpp"

namespace velto {

AudioConverterError::AudioConverterError(Code code, std::string description, std::string caseDescription,
                                         ErrorPtr underlying)
    : Error(std::move(description), std::move(caseDescription)), code_(code), underlying_(std::move(underlying)) {}

AudioConverterError AudioConverterError::conversionFailed(ErrorPtr underlying) {
    std::string description = "Audio conversion failed: ";
    std::string caseDescription = "conversionFailed(";
    if (underlying) {
        description += underlying->errorDescription();
        caseDescription += underlying->caseDescription();
    } else {
        description += "Unknown error";
        caseDescription += "nil";
    }
    caseDescription += ")";
    return AudioConverterError(Code::conversionFailed, std::move(description), std::move(caseDescription),
                               std::move(underlying));
}

AudioConverterError AudioConverterError::failedToCreateConverter() {
    return AudioConverterError(Code::failedToCreateConverter, "Failed to create audio converter",
                               "failedToCreateConverter", nullptr);
}

AudioConverterError AudioConverterError::failedToCreateBuffer() {
    return AudioConverterError(Code::failedToCreateBuffer, "Failed to create audio buffer for conversion",
                               "failedToCreateBuffer", nullptr);
}

const char* caseName(AudioConverterError::Code code) {
    switch (code) {
        case AudioConverterError::Code::conversionFailed: return "conversionFailed";
        case AudioConverterError::Code::failedToCreateConverter: return "failedToCreateConverter";
        case AudioConverterError::Code::failedToCreateBuffer: return "failedToCreateBuffer";
    }
    return "unknown";
}

}  // namespace velto
