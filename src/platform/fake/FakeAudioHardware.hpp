#pragma once
// Scriptable stand-in for the audio hardware: every status, list and format can be set
// beforehand, every call is recorded in order (so tests can check teardown order), and
// the installed IO block is driven from the test with deliverInput(). Snapshots are read
// property by property through AudioHardware's own readSystemSnapshot(), as on Core Audio,
// so the statuses scripted for each property also fail the snapshot; like Core Audio, a
// process tap needs nothing of an operation's snapshot.
//
// Threads: all methods are thread-safe. deliverInput() runs the IO block on the calling
// thread, which plays the sound server's delivery thread (as PulseAudio runs it on its
// main-loop thread), one call at a time, and returns after it ran.

#include "platform/AudioHardware.hpp"

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace velto::platform {

class FakeAudioHardware final : public AudioHardware {
public:
    struct Device {
        AudioObjectID id = 0;
        std::optional<std::string> uid;
        OSStatus uidSizeStatus = noErr;
        OSStatus uidDataStatus = noErr;
    };

    static std::shared_ptr<FakeAudioHardware> create() { return std::make_shared<FakeAudioHardware>(); }

    // --- script (set before the code under test runs) ---
    std::vector<AudioObjectID> processes{101, 102};
    std::vector<Device> devices{{40, std::string("BuiltInSpeakerDevice")}, {41, std::string("BuiltInMicrophoneDevice")}};
    AudioObjectID defaultOutputDevice = 40;
    AudioStreamBasicDescription tapFormat = AudioStreamBasicDescription::interleavedFloat32(48000.0, 2);
    std::optional<std::string> tapUID = std::string("TAP-UID-1");
    AudioObjectID nextTapID = 77;
    AudioObjectID nextAggregateID = 88;
    // Statuses by operation name: "size:<selector>", "data:<selector>", "createProcessTap",
    // "createAggregateDevice", "createIOProcIDWithBlock", "deviceStart", ...
    std::map<std::string, OSStatus> statuses;

    void setStatus(const std::string& operation, OSStatus status);
    static std::string sizeKey(AudioObjectPropertySelector selector);
    static std::string dataKey(AudioObjectPropertySelector selector);

    // --- observation ---
    std::vector<std::string> calls() const;
    void clearCalls();
    std::optional<TapDescription> lastTapDescription() const;
    std::optional<PropertyDictionary> lastAggregateDescription() const;
    bool hasIOBlock() const;

    // Runs the installed IO block with `input` on the calling thread, which plays the
    // platform's delivery thread; false when no block is installed.
    bool deliverInput(const AudioBufferList& input);
    // Interleaved frames the device has captured but not yet handed on: the next
    // deviceFlushCapturedInput() delivers them.
    void holdBackInput(std::vector<float> interleaved, std::uint32_t channels);

    // --- AudioHardware ---
    OSStatus getPropertyDataSize(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                 std::uint32_t& outDataSizeBytes) override;
    OSStatus getObjectListProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                   std::uint32_t dataSizeBytes, std::vector<AudioObjectID>& outObjects) override;
    OSStatus getObjectProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                               AudioObjectID& outObject) override;
    OSStatus getStringProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                               std::optional<std::string>& outText) override;
    OSStatus getStreamDescriptionProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                          AudioStreamBasicDescription& outDescription) override;
    using AudioHardware::createProcessTap;
    OSStatus createProcessTap(const TapDescription& description, AudioObjectID& outTapID) override;
    OSStatus destroyProcessTap(AudioObjectID tapID) override;
    OSStatus createAggregateDevice(const PropertyDictionary& description, AudioObjectID& outDeviceID) override;
    OSStatus destroyAggregateDevice(AudioObjectID deviceID) override;
    OSStatus createIOProcIDWithBlock(AudioDeviceIOProcID& outProcID, AudioObjectID deviceID,
                                     AudioDeviceIOBlock block) override;
    OSStatus deviceStart(AudioObjectID deviceID, AudioDeviceIOProcID procID) override;
    OSStatus deviceStop(AudioObjectID deviceID, AudioDeviceIOProcID procID) override;
    OSStatus deviceFlushCapturedInput(AudioObjectID deviceID, AudioDeviceIOProcID procID) override;
    OSStatus destroyIOProcID(AudioObjectID deviceID, AudioDeviceIOProcID procID) override;

private:
    OSStatus statusFor(const std::string& operation) const;  // lock held
    void record(std::string call);                           // lock held
    const Device* findDevice(AudioObjectID id) const;        // lock held

    mutable std::mutex mutex_;
    std::mutex deliveryMutex_;  // held while the IO block runs, so destroyIOProcID() can wait for it
    std::vector<std::string> calls_;
    std::optional<TapDescription> lastTap_;
    std::optional<PropertyDictionary> lastAggregate_;
    AudioDeviceIOProcID nextProcID_ = 0x5000;
    std::shared_ptr<AudioDeviceIOBlock> ioBlock_;
    std::vector<float> heldBackInput_;
    std::uint32_t heldBackChannels_ = 0;
};

}  // namespace velto::platform
