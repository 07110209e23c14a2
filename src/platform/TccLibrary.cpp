#include "platform/TccLibrary.hpp"

#include <dlfcn.h>

#include "logging/LoggerCompat.hpp"
#include "platform/pulse/PulseTccSubstitute.hpp"

namespace velto::platform {

namespace {
// The loader logs as part of the provider.
LoggerCompat& logger() {
    static LoggerCompat l{kLogSubsystem, "TCCPermissionProvider"};
    return l;
}
}  // namespace

TccLibrary::TccLibrary(std::shared_ptr<DynamicLoader> loader, std::string libraryPath)
    : loader_(std::move(loader)), libraryPath_(std::move(libraryPath)) {}

std::shared_ptr<TccLibrary> TccLibrary::shared() {
    static const std::shared_ptr<TccLibrary> library =
        std::make_shared<TccLibrary>(DynamicLoader::system(), platformLibraryPath());
    return library;
}

std::string TccLibrary::platformLibraryPath() {
#if defined(__APPLE__)
    return "/System/Library/PrivateFrameworks/TCC.framework/Versions/A/TCC";
#else
    // Linux has no privacy framework. The two functions are supplied by this library
    // itself (PulseTccSubstitute), exported with C linkage, and found through the
    // dynamic loader like the real ones, so the loading logic and its failure paths run
    // unchanged.
    return pulse::tccSubstituteLibraryPath();
#endif
}

void* TccLibrary::handle() {
    std::call_once(handleOnce_, [this] {
        handle_ = loader_->open(libraryPath_, RTLD_NOW);
        if (!handle_) logger().critical("Failed to dlopen the permission library");
    });
    return handle_;
}

TccAccessPreflightFunction TccLibrary::preflightFunction() {
    std::call_once(preflightOnce_, [this] {
        if (void* library = handle())
            preflight_ = reinterpret_cast<TccAccessPreflightFunction>(loader_->lookUp(library, "TCCAccessPreflight"));
    });
    return preflight_;
}

TccAccessRequestFunction TccLibrary::requestFunction() {
    std::call_once(requestOnce_, [this] {
        if (void* library = handle())
            request_ = reinterpret_cast<TccAccessRequestFunction>(loader_->lookUp(library, "TCCAccessRequest"));
    });
    return request_;
}

}  // namespace velto::platform
