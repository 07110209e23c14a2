// A long capture of both sources for scripts/measure-capture-cpu.sh: disabled in normal
// runs, it records the microphone and the system audio for VELTO_CAPTURE_SECONDS
// (default 60), drains both rings at the mixer's pace and reports the process's CPU
// seconds per captured second, the frames that arrived and the overruns.

#include "capture/MicrophoneCapture.hpp"
#include "capture/SystemAudioTap.hpp"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace velto {
namespace {

double processCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

TEST(CaptureCpuSoak, DISABLED_CapturesBothSourcesForTheRequestedDuration) {
    const char* requested = std::getenv("VELTO_CAPTURE_SECONDS");
    const double seconds = requested != nullptr ? std::atof(requested) : 60.0;
    ASSERT_GT(seconds, 0.0);

    auto microphone = MicrophoneCapture::create(1, 96000, platform::PlatformServices::pulse());
    auto system = SystemAudioTap::create(2, 96000, platform::PlatformServices::pulse());
    microphone->start(1024);
    system->start();

    const double cpuAtStart = processCpuSeconds();
    const auto wallAtStart = std::chrono::steady_clock::now();
    std::int64_t microphoneFrames = 0;
    std::int64_t systemFrames = 0;
    std::vector<float> left(8192), right(8192), mono(8192);
    float* systemDestinations[] = {left.data(), right.data()};
    float* microphoneDestinations[] = {mono.data()};
    const auto tick = std::chrono::microseconds(16667);  // the mixer's 60 Hz
    auto next = wallAtStart;
    while (std::chrono::steady_clock::now() - wallAtStart < std::chrono::duration<double>(seconds)) {
        next += tick;
        std::this_thread::sleep_until(next);
        const auto systemAvailable = std::min<std::int64_t>(system->ringBuffer()->availableFrames(), 8192);
        system->ringBuffer()->read(systemDestinations, systemAvailable);
        systemFrames += systemAvailable;
        const auto microphoneAvailable = std::min<std::int64_t>(microphone->ringBuffer()->availableFrames(), 8192);
        microphone->ringBuffer()->read(microphoneDestinations, microphoneAvailable);
        microphoneFrames += microphoneAvailable;
    }
    const double wallSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - wallAtStart).count();
    const double cpuSeconds = processCpuSeconds() - cpuAtStart;
    microphone->stop();
    system->stop();

    std::printf("captured seconds: %.1f\n", wallSeconds);
    std::printf("process CPU seconds: %.3f\n", cpuSeconds);
    std::printf("CPU seconds per captured second: %.5f\n", cpuSeconds / wallSeconds);
    std::printf("microphone frames: %lld (%.1f%% of %.0f Hz)\n", static_cast<long long>(microphoneFrames),
                100.0 * static_cast<double>(microphoneFrames) / (wallSeconds * microphone->inputFormat()->sampleRate),
                microphone->inputFormat()->sampleRate);
    std::printf("system audio frames: %lld (%.1f%% of %.0f Hz)\n", static_cast<long long>(systemFrames),
                100.0 * static_cast<double>(systemFrames) / (wallSeconds * system->asbd().mSampleRate),
                system->asbd().mSampleRate);
    EXPECT_GT(microphoneFrames, 0);
    EXPECT_GT(systemFrames, 0);
}

}  // namespace
}  // namespace velto
