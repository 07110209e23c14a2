// The platform services on the real sound server: the virtual microphone is listed and
// marked default, access is granted, and loading or unloading a device is announced
// once per burst.

#include "platform/MacOSSessionManager.hpp"
#include "capture_sandbox_signals.hpp"
#include "platform/PlatformServices.hpp"
#include "support/RecorderTestSupport.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

namespace velto {
namespace {

using namespace std::chrono_literals;
using namespace platform;

using testing::eventually;
using testing::run;
using testing::sandbox;

TEST(PlatformSandboxTest, VirtualMicrophoneIsListedAsTheDefaultAndMonitorsAreNot) {
    auto manager = MacOSSessionManager::create(PlatformServices::pulse().captureDeviceDiscovery);
    const auto microphones = manager->availableMicrophones();
    EXPECT_THAT(microphones, ::testing::Contains(MicrophoneDevice{"velto_mic", "Velto-Microphone", true}));
    for (const auto& microphone : microphones) {
        EXPECT_EQ(microphone.id.find(".monitor"), std::string::npos) << microphone.id;
        EXPECT_EQ(microphone.isDefault, microphone.id == "velto_mic") << microphone.id;
    }
    auto discovery = PlatformServices::pulse().captureDeviceDiscovery;
    EXPECT_EQ(discovery->authorizationStatus(), AuthorizationStatus::authorized);
    EXPECT_TRUE(discovery->requestAccess());
}

// Loading or unloading a device (a sink, its monitor and a server change) and moving the
// default input are each announced once; a volume change is no configuration change.
TEST(PlatformSandboxTest, DeviceChangesAreAnnouncedOncePerBurstAndOtherChangesAreNot) {
    auto center = PlatformServices::pulse().configurationChangeCenter;
    std::atomic<int> notifications{0};
    const auto token = center->addObserver([&] { ++notifications; });
    std::this_thread::sleep_for(500ms);  // subscribed and settled
    notifications = 0;
    const auto expectAnnouncements = [&](int count) {
        EXPECT_TRUE(eventually([&] { return notifications.load() >= count; }, 3000ms));
        std::this_thread::sleep_for(600ms);
        EXPECT_EQ(notifications.load(), count);
    };

    const std::string module = run("pactl load-module module-null-sink sink_name=velto_e2e_extra");
    ASSERT_FALSE(module.empty());
    expectAnnouncements(1);
    run("pactl unload-module " + module);
    expectAnnouncements(2);
    run("pactl set-default-source velto_mic_in.monitor");
    expectAnnouncements(3);
    run("pactl set-default-source velto_mic");
    expectAnnouncements(4);
    run("pactl set-sink-volume velto_speakers 50% && pactl set-sink-volume velto_speakers 100%");
    std::this_thread::sleep_for(800ms);
    EXPECT_EQ(notifications.load(), 4);

    center->removeObserver(token);
    const std::string after = run("pactl load-module module-null-sink sink_name=velto_e2e_after");
    run("pactl unload-module " + after);
    std::this_thread::sleep_for(800ms);
    EXPECT_EQ(notifications.load(), 4);
}

TEST(PlatformSandboxTest, ServerThatGoesAwayIsReportedAndFoundAgainWhenItReturns) {
    auto services = PlatformServices::pulse();
    std::atomic<int> notifications{0};
    const auto token = services.configurationChangeCenter->addObserver([&] { ++notifications; });
    std::this_thread::sleep_for(500ms);
    notifications = 0;

    sandbox("stop");
    EXPECT_TRUE(eventually([&] { return notifications.load() >= 1; }, 3000ms)) << "loss of the server not announced";

    const auto before = std::chrono::steady_clock::now();
    std::uint32_t size = 0;
    EXPECT_EQ(services.audioHardware->getPropertyDataSize(
                  kAudioObjectSystemObject, AudioObjectPropertyAddress{kAudioHardwarePropertyDevices}, size),
              kAudioHardwareNotRunningError);
    EXPECT_LT(std::chrono::steady_clock::now() - before, 4s);  // answered within the time-out, not hung
    EXPECT_EQ(services.captureDeviceDiscovery->authorizationStatus(), AuthorizationStatus::notDetermined);
    EXPECT_TRUE(services.captureDeviceDiscovery->devices(std::vector{CaptureDeviceType::microphone}).empty());

    ASSERT_NE(sandbox("start").find("started"), std::string::npos);
    notifications = 0;
    EXPECT_TRUE(eventually([&] { return notifications.load() >= 1; }, 6000ms)) << "return of the server not announced";
    EXPECT_EQ(services.audioHardware->getPropertyDataSize(
                  kAudioObjectSystemObject, AudioObjectPropertyAddress{kAudioHardwarePropertyDevices}, size),
              noErr);
    EXPECT_GT(size, 0u);
    services.configurationChangeCenter->removeObserver(token);
}

}  // namespace
}  // namespace velto
