#pragma once
// The dynamic loader (dlopen/dlsym) behind an interface, so that tests can script a
// missing library, a missing symbol or the functions a library answers with.
//
// Threads: every method may be called from any thread.

#include <memory>
#include <string>

namespace velto::platform {

class DynamicLoader {
public:
    virtual ~DynamicLoader() = default;
    // A handle for the library at `path` (empty: the main program), or null.
    virtual void* open(const std::string& path, int mode) = 0;
    // The address of `symbol` in the library, or null.
    virtual void* lookUp(void* handle, const char* symbol) = 0;

    // dlopen/dlsym of this process.
    static std::shared_ptr<DynamicLoader> system();
};

}  // namespace velto::platform
