// The PulseAudio hardware layer without a server: an unreachable server answers promptly
// with "not running", and nothing can be started on it.

#include "platform/pulse/PulseAudioHardware.hpp"
#include "platform/pulse/PulseAudioInputEngine.hpp"
#include "platform/pulse/PulseObjectIDs.hpp"
#include "veltoaudio/Error.hpp"

#include <gtest/gtest.h>

#include <cstdlib>

namespace velto {
namespace {

using namespace platform;
using namespace pulse;

class PulseAudioHardwareOfflineTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { setenv("PULSE_SERVER", "unix:/nonexistent/velto-offline-test/native", 1); }

    std::shared_ptr<PulseConnection> connection = PulseConnection::create("VeltoAudio offline test", 1.0);
    std::shared_ptr<PulseAudioHardware> hardware = PulseAudioHardware::create(connection);
};

TEST_F(PulseAudioHardwareOfflineTest, UnreachableServerAnswersNotRunning) {
    std::uint32_t size = 0;
    EXPECT_EQ(hardware->getPropertyDataSize(kAudioObjectSystemObject,
                                            AudioObjectPropertyAddress{kAudioHardwarePropertyProcessObjectList}, size),
              kAudioHardwareNotRunningError);
    AudioObjectID tap = 0;
    EXPECT_EQ(hardware->createProcessTap(TapDescription::stereoMixdownOfProcesses({}), tap),
              kAudioHardwareNotRunningError);
    EXPECT_EQ(tap, 0u);
    EXPECT_FALSE(connection->isConnected());
}

TEST_F(PulseAudioHardwareOfflineTest, InputEngineWithoutServerHasNoFormatAndCannotStart) {
    auto engine = PulseAudioInputEngine::create(connection);
    EXPECT_EQ(engine->inputFormat(0).channelCount, 0u);
    EXPECT_EQ(engine->setCurrentDevice(makeObjectID(PulseObjectKind::sink, 0)), kAudioHardwareBadObjectError);
    EXPECT_EQ(engine->setCurrentDevice(makeObjectID(PulseObjectKind::source, 0)), kAudioHardwareNotRunningError);
    EXPECT_THROW(engine->start(), PlatformError);
    EXPECT_FALSE(engine->isRunning());
}

}  // namespace
}  // namespace velto
