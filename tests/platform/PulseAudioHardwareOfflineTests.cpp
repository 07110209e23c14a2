// The PulseAudio hardware layer without a server: descriptions are validated before the
// server is asked, and an unreachable server answers promptly with "not running".

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

TEST_F(PulseAudioHardwareOfflineTest, UnknownObjectsAndPropertiesAreRefused) {
    std::uint32_t size = 0;
    EXPECT_EQ(hardware->getPropertyDataSize(kAudioObjectSystemObject, AudioObjectPropertyAddress{fourCharCode("xxxx")},
                                            size),
              kAudioHardwareUnknownPropertyError);
    std::optional<std::string> uid;
    EXPECT_EQ(hardware->getStringProperty(makeObjectID(PulseObjectKind::tap, 9),
                                          AudioObjectPropertyAddress{kAudioTapPropertyUID}, uid),
              kAudioHardwareBadObjectError);
    AudioStreamBasicDescription format;
    EXPECT_EQ(hardware->getStreamDescriptionProperty(12345, AudioObjectPropertyAddress{kAudioTapPropertyFormat}, format),
              kAudioHardwareBadObjectError);
}

TEST_F(PulseAudioHardwareOfflineTest, AggregateDescriptionMustNameAKnownTap) {
    AudioObjectID device = 0;
    EXPECT_EQ(hardware->createAggregateDevice(PropertyDictionary{{"name", "x"}}, device), kAudio_ParamError);
    EXPECT_EQ(hardware->createAggregateDevice(PropertyDictionary{{"uid", "io.veltoaudio.X"}, {"taps", PropertyValue::List{}}},
                                              device),
              kAudio_ParamError);
    const PropertyDictionary unknownTap{
        {"uid", "io.veltoaudio.X"}, {"taps", PropertyValue::List{PropertyDictionary{{"drift", true}, {"uid", "NOPE"}}}}};
    EXPECT_EQ(hardware->createAggregateDevice(unknownTap, device), kAudioHardwareBadObjectError);
    EXPECT_EQ(device, 0u);
}

TEST_F(PulseAudioHardwareOfflineTest, IOBlockNeedsAnAggregateDeviceAndABlock) {
    AudioDeviceIOProcID procID = 0;
    EXPECT_EQ(hardware->createIOProcIDWithBlock(procID, makeObjectID(PulseObjectKind::aggregateDevice, 1),
                                                [](const AudioBufferList&) {}),
              kAudioHardwareBadObjectError);
    EXPECT_EQ(hardware->createIOProcIDWithBlock(procID, makeObjectID(PulseObjectKind::aggregateDevice, 1), nullptr),
              kAudio_ParamError);
    EXPECT_EQ(hardware->deviceStart(makeObjectID(PulseObjectKind::aggregateDevice, 1), 1), kAudioHardwareBadObjectError);
    EXPECT_EQ(hardware->destroyIOProcID(makeObjectID(PulseObjectKind::aggregateDevice, 1), 1),
              kAudioHardwareBadObjectError);
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
