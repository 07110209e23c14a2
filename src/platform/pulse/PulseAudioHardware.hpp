#pragma once
// The audio hardware services on PulseAudio.
//
//   devices          every sink and every source; UID = the PulseAudio name
//   processes        the sink inputs (streams that play)
//   default output   the default sink
//   process tap      the monitor of the default sink at creation: a stereo mixdown of
//                    everything played there (a process list cannot narrow a monitor, so
//                    every tap is global); UID = the description's UUID
//   aggregate device a validated description naming a tap; recording from it records
//                    the tap's monitor
//   IO block         a record stream on that monitor; its blocks run one at a time on the
//                    main-loop thread
//
// Failures map onto Core Audio statuses: an unreachable server is
// kAudioHardwareNotRunningError, an unknown object kAudioHardwareBadObjectError, an
// unknown property kAudioHardwareUnknownPropertyError, a malformed description
// kAudio_ParamError, a refused stream kAudioHardwareUnspecifiedError.
//
// Threads: every method may be called from any thread.

#include "dispatch/ThreadAnnotations.hpp"
#include "platform/AudioHardware.hpp"
#include "platform/pulse/PulseCaptureStream.hpp"
#include "platform/pulse/PulseConnection.hpp"
#include "platform/pulse/PulseStreamHandover.hpp"

#include <map>
#include <memory>

namespace velto::pulse {

class PulseAudioHardware final : public platform::AudioHardware {
public:
    // Frames per IO cycle: 10 ms at 48 kHz rounded to a power of two, like a Core Audio device.
    static constexpr std::uint32_t kIOBlockFrames = 1024;

    // With a handover, a stream stopped just after a configuration change is kept for the
    // next start on the same source (see PulseStreamHandover).
    static std::shared_ptr<PulseAudioHardware> create(std::shared_ptr<PulseConnection> connection,
                                                      std::shared_ptr<PulseStreamHandover> handover = nullptr);
    PulseAudioHardware(std::shared_ptr<PulseConnection> connection, std::shared_ptr<PulseStreamHandover> handover);
    ~PulseAudioHardware() override;
    PulseAudioHardware(const PulseAudioHardware&) = delete;
    PulseAudioHardware& operator=(const PulseAudioHardware&) = delete;

    // One snapshot of the server: a single round trip. The server's whole answer rides
    // along (PulseSnapshotDetail) for the other lookups of the same operation.
    platform::OSStatus readSystemSnapshot(platform::AudioSystemSnapshot& outSnapshot) override;
    platform::OSStatus getPropertyDataSize(platform::AudioObjectID object,
                                           const platform::AudioObjectPropertyAddress& address,
                                           std::uint32_t& outDataSizeBytes) override;
    platform::OSStatus getObjectListProperty(platform::AudioObjectID object,
                                             const platform::AudioObjectPropertyAddress& address,
                                             std::uint32_t dataSizeBytes,
                                             std::vector<platform::AudioObjectID>& outObjects) override;
    platform::OSStatus getObjectProperty(platform::AudioObjectID object,
                                         const platform::AudioObjectPropertyAddress& address,
                                         platform::AudioObjectID& outObject) override;
    platform::OSStatus getStringProperty(platform::AudioObjectID object,
                                         const platform::AudioObjectPropertyAddress& address,
                                         std::optional<std::string>& outText) override;
    platform::OSStatus getStreamDescriptionProperty(platform::AudioObjectID object,
                                                    const platform::AudioObjectPropertyAddress& address,
                                                    platform::AudioStreamBasicDescription& outDescription) override;
    platform::OSStatus createProcessTap(const platform::TapDescription& description,
                                        platform::AudioObjectID& outTapID) override;
    platform::OSStatus createProcessTap(const platform::TapDescription& description,
                                        const platform::AudioSystemSnapshot& system,
                                        platform::AudioObjectID& outTapID) override;
    platform::OSStatus destroyProcessTap(platform::AudioObjectID tapID) override;
    platform::OSStatus createAggregateDevice(const platform::PropertyDictionary& description,
                                             platform::AudioObjectID& outDeviceID) override;
    platform::OSStatus destroyAggregateDevice(platform::AudioObjectID deviceID) override;
    platform::OSStatus createIOProcIDWithBlock(platform::AudioDeviceIOProcID& outProcID,
                                               platform::AudioObjectID deviceID,
                                               platform::AudioDeviceIOBlock block) override;
    platform::OSStatus deviceStart(platform::AudioObjectID deviceID, platform::AudioDeviceIOProcID procID) override;
    platform::OSStatus deviceStop(platform::AudioObjectID deviceID, platform::AudioDeviceIOProcID procID) override;
    platform::OSStatus deviceFlushCapturedInput(platform::AudioObjectID deviceID,
                                                platform::AudioDeviceIOProcID procID) override;
    platform::OSStatus destroyIOProcID(platform::AudioObjectID deviceID, platform::AudioDeviceIOProcID procID) override;

private:
    struct Tap {
        std::string uid;
        std::string monitorSourceName;
        double sampleRateHertz = 48000.0;
    };
    struct AggregateDevice {
        platform::PropertyDictionary description;
        platform::AudioObjectID tapID = 0;
    };
    struct IOProc {
        platform::AudioObjectID deviceID = 0;
        std::shared_ptr<platform::AudioDeviceIOBlock> block;
        std::unique_ptr<PulseCaptureStream> stream;  // present while started
    };

    platform::OSStatus statusOf(int pulseError) const;

    std::shared_ptr<PulseConnection> connection_;
    std::shared_ptr<PulseStreamHandover> handover_;  // may be null
    Mutex mutex_;  // never held while waiting on the server
    std::uint32_t nextTapIndex_ VELTO_GUARDED_BY(mutex_) = 1;
    std::uint32_t nextAggregateIndex_ VELTO_GUARDED_BY(mutex_) = 1;
    platform::AudioDeviceIOProcID nextProcID_ VELTO_GUARDED_BY(mutex_) = 1;
    std::map<platform::AudioObjectID, Tap> taps_ VELTO_GUARDED_BY(mutex_);
    std::map<platform::AudioObjectID, AggregateDevice> aggregates_ VELTO_GUARDED_BY(mutex_);
    // An IOProc's stream is set and taken under mutex_ too.
    std::map<platform::AudioDeviceIOProcID, std::shared_ptr<IOProc>> procs_ VELTO_GUARDED_BY(mutex_);
};

}  // namespace velto::pulse
