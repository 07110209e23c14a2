#pragma once
// The library's own way to build a service with every collaborator given: the tests'
// scripted recorders and fake platform, or another platform layer.

#include <memory>

#include "service/RecordingServiceDependencies.hpp"
#include "veltoaudio/RecordingService.hpp"

namespace velto {

struct RecordingServiceAssembly {
    static std::unique_ptr<RecordingService> make(RecordingServiceDependencies dependencies);
};

}  // namespace velto
