#pragma once
// The two functions of the privacy-permission library, loaded at run time: the library
// is opened once, and each function looked up once, on first need; a failed load is
// remembered and not retried. The process-wide instance (shared()) keeps them until the
// process ends; tests build their own over a scripted loader.
//
// Threads: every method may be called from any thread; each load runs exactly once even
// under concurrent first use.

#include <memory>
#include <mutex>
#include <string>

#include "platform/DynamicLoader.hpp"

namespace velto::platform {

// The C signatures of the two functions. There are no blocks in C: the completion is a
// function with a context pointer, called exactly once, on any thread.
using TccAccessPreflightFunction = int (*)(const char* service, const void* options);
using TccAccessRequestCompletion = void (*)(void* context, bool granted);
using TccAccessRequestFunction = void (*)(const char* service, const void* options,
                                          TccAccessRequestCompletion completion, void* context);

inline constexpr const char* kTccServiceAudioCapture = "kTCCServiceAudioCapture";

class TccLibrary {
public:
    TccLibrary(std::shared_ptr<DynamicLoader> loader, std::string libraryPath);

    // Over the system loader and this platform's library (see TccLibrary.cpp).
    static std::shared_ptr<TccLibrary> shared();
    // Where this platform keeps the library.
    static std::string platformLibraryPath();

    // Null when the library or the symbol is missing.
    TccAccessPreflightFunction preflightFunction();
    TccAccessRequestFunction requestFunction();

private:
    void* handle();

    const std::shared_ptr<DynamicLoader> loader_;
    const std::string libraryPath_;
    std::once_flag handleOnce_;
    std::once_flag preflightOnce_;
    std::once_flag requestOnce_;
    void* handle_ = nullptr;
    TccAccessPreflightFunction preflight_ = nullptr;
    TccAccessRequestFunction request_ = nullptr;
};

}  // namespace velto::platform
