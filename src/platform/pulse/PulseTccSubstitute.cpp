#include "platform/pulse/PulseTccSubstitute.hpp"

#include <dlfcn.h>

#include <cstring>
#include <filesystem>
#include <system_error>

#include "platform/pulse/PulseCaptureStream.hpp"
#include "platform/pulse/PulseConnection.hpp"
#include "veltoaudio/Error.hpp"

namespace {

constexpr int kGranted = 0;
constexpr int kDenied = 1;
constexpr int kUndetermined = 2;

bool isRefusal(int paError) { return paError == PA_ERR_ACCESS || paError == PA_ERR_AUTHKEY; }

int systemAudioAccess() {
    using namespace velto::pulse;
    auto connection = PulseConnection::shared();
    const int error = connection->ensureConnected();
    if (isRefusal(error)) return kDenied;
    if (error != PA_OK) return kUndetermined;

    auto server = connection->snapshot();
    if (!server) return isRefusal(server.error) ? kDenied : kUndetermined;
    const PulseSinkInfo* output = server.value->defaultSink();
    if (output == nullptr && !server.value->sinks.empty()) output = &server.value->sinks.front();
    if (output == nullptr || output->monitorSourceName.empty()) return kUndetermined;

    // Opening the monitor is the honest test: it is what a system-audio recording does.
    PulseCaptureStreamOptions options;
    options.sourceName = output->monitorSourceName;
    options.sampleRateHertz = output->sampleRateHertz > 0 ? output->sampleRateHertz : 48000.0;
    options.channels = output->channels > 0 ? output->channels : 2;
    options.blockFrames = 256;
    options.streamName = "VeltoAudio system audio access check";
    try {
        auto stream = PulseCaptureStream::open(connection, options, [](const float*, std::uint32_t, double) {});
        stream->close();
        return kGranted;
    } catch (const velto::PlatformError& failure) {
        return isRefusal(static_cast<int>(failure.code())) ? kDenied : kUndetermined;
    } catch (...) {
        return kUndetermined;
    }
}

bool asksForAudioCapture(const char* service) {
    return service != nullptr && std::strcmp(service, "kTCCServiceAudioCapture") == 0;
}

}  // namespace

extern "C" int TCCAccessPreflight(const char* service, const void* /*options*/) {
    if (!asksForAudioCapture(service)) return kUndetermined;
    return systemAudioAccess();
}

extern "C" void TCCAccessRequest(const char* service, const void* /*options*/,
                                 void (*completion)(void* context, bool granted), void* context) {
    const bool granted = asksForAudioCapture(service) && systemAudioAccess() == kGranted;
    if (completion) completion(context, granted);
}

namespace velto::pulse {

std::string tccSubstituteLibraryPath() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&TCCAccessPreflight), &info) == 0 || info.dli_fname == nullptr) return {};
    // A position-independent program cannot be opened by its path; it is the main program.
    std::error_code ignored;
    auto object = std::filesystem::weakly_canonical(info.dli_fname, ignored);
    auto program = std::filesystem::weakly_canonical("/proc/self/exe", ignored);
    if (object.empty() || object == program) return {};
    return object.string();
}

}  // namespace velto::pulse
