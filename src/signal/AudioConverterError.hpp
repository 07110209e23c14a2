#pragma once

#include "veltoaudio/Error.hpp"

namespace velto {

// Failures of AudioConverter: creation, output allocation and the conversion itself.
class AudioConverterError final : public Error {
public:
    enum class Code { conversionFailed, failedToCreateConverter, failedToCreateBuffer };

    // "Audio conversion failed: " + the underlying error's description, or
    // "Unknown error" when there is none.
    static AudioConverterError conversionFailed(ErrorPtr underlying = nullptr);
    static AudioConverterError failedToCreateConverter();
    static AudioConverterError failedToCreateBuffer();

    Code code() const noexcept { return code_; }
    const ErrorPtr& underlyingError() const noexcept { return underlying_; }

private:
    AudioConverterError(Code code, std::string description, std::string caseDescription, ErrorPtr underlying);
    Code code_;
    ErrorPtr underlying_;
};

const char* caseName(AudioConverterError::Code code);

}  // namespace velto
