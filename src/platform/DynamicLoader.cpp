#include "platform/DynamicLoader.hpp"

#include <dlfcn.h>

namespace velto::platform {

namespace {

class SystemDynamicLoader final : public DynamicLoader {
public:
    void* open(const std::string& path, int mode) override {
        return dlopen(path.empty() ? nullptr : path.c_str(), mode);
    }
    void* lookUp(void* handle, const char* symbol) override { return handle ? dlsym(handle, symbol) : nullptr; }
};

}  // namespace

std::shared_ptr<DynamicLoader> DynamicLoader::system() {
    static const std::shared_ptr<DynamicLoader> loader = std::make_shared<SystemDynamicLoader>();
    return loader;
}

}  // namespace velto::platform
