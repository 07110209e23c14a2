#pragma once
// The Core Audio hardware services the capture layer uses: property reads of audio
// objects, process taps, aggregate devices and IO blocks. Every call answers with an
// OSStatus (noErr on success) and never throws.
//
// Threads: every method may be called from any thread. An IO block runs on a thread of
// the implementation's choosing (PulseAudio: its main-loop thread, where the stream
// delivers), one call at a time and in order; after deviceStop() or destroyIOProcID()
// returns, the block is not started again. A block must therefore be quick, must not
// block, and must not call back into this interface.

#include "platform/AudioSystemSnapshot.hpp"
#include "platform/CoreAudioTypes.hpp"
#include "platform/PropertyDictionary.hpp"
#include "platform/TapDescription.hpp"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace velto::platform {

// Called once per IO cycle with the captured input. Must only move samples.
// `lastFrameAgeSeconds`: how long before this call the block's last frame was
// captured, as far as the device tells (its input time stamp; 0 when it says
// nothing). A block cut from audio that arrived with more behind it is that much
// older than the call, which is what keeps a drift estimate off the cutting.
using AudioDeviceIOBlock = std::function<void(const AudioBufferList& inputData, double lastFrameAgeSeconds)>;

class AudioHardware {
public:
    virtual ~AudioHardware() = default;

    // One read of the system's state. The default asks property by property (on Core
    // Audio each read is a call into the process's own HAL client); a layer over a
    // server overrides it to ask once. A failed list or default read answers its status;
    // a device that cannot tell its UID is skipped, for it may be going away.
    virtual OSStatus readSystemSnapshot(AudioSystemSnapshot& outSnapshot);
    // The one read an operation shares among its lookups: readSystemSnapshot()'s answer,
    // or after a failed read an empty snapshot that carries the status.
    AudioSystemSnapshot readSnapshotForOperation();

    // Byte size of a property's value (AudioObjectGetPropertyDataSize).
    virtual OSStatus getPropertyDataSize(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                         std::uint32_t& outDataSizeBytes) = 0;

    // Typed reads of a property's value (AudioObjectGetPropertyData). A list read returns at
    // most dataSizeBytes / 4 identifiers; an absent string is a valid answer (nullopt).
    virtual OSStatus getObjectListProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                           std::uint32_t dataSizeBytes, std::vector<AudioObjectID>& outObjects) = 0;
    virtual OSStatus getObjectProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                       AudioObjectID& outObject) = 0;
    virtual OSStatus getStringProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                       std::optional<std::string>& outText) = 0;
    virtual OSStatus getStreamDescriptionProperty(AudioObjectID object, const AudioObjectPropertyAddress& address,
                                                  AudioStreamBasicDescription& outDescription) = 0;

    virtual OSStatus createProcessTap(const TapDescription& description, AudioObjectID& outTapID) = 0;
    // The same within an operation that has read `system`: a platform that must look up
    // what to tap (PulseAudio: the default output's monitor) reads it there. Core Audio
    // taps the processes themselves and needs nothing of it.
    virtual OSStatus createProcessTap(const TapDescription& description, const AudioSystemSnapshot& /*system*/,
                                      AudioObjectID& outTapID) {
        return createProcessTap(description, outTapID);
    }
    virtual OSStatus destroyProcessTap(AudioObjectID tapID) = 0;

    virtual OSStatus createAggregateDevice(const PropertyDictionary& description, AudioObjectID& outDeviceID) = 0;
    virtual OSStatus destroyAggregateDevice(AudioObjectID deviceID) = 0;

    virtual OSStatus createIOProcIDWithBlock(AudioDeviceIOProcID& outProcID, AudioObjectID deviceID,
                                             AudioDeviceIOBlock block) = 0;
    virtual OSStatus deviceStart(AudioObjectID deviceID, AudioDeviceIOProcID procID) = 0;
    virtual OSStatus deviceStop(AudioObjectID deviceID, AudioDeviceIOProcID procID) = 0;
    // Returns once the IOProc has been handed everything the device had captured when this
    // was called; the device keeps running. Called before a stop, so that the stop loses
    // nothing the device still held. A device that hands on each cycle as it captures (a
    // HAL IOProc) has nothing to do.
    virtual OSStatus deviceFlushCapturedInput(AudioObjectID /*deviceID*/, AudioDeviceIOProcID /*procID*/) {
        return noErr;
    }
    virtual OSStatus destroyIOProcID(AudioObjectID deviceID, AudioDeviceIOProcID procID) = 0;
};

}  // namespace velto::platform
