#pragma once
// The Core Audio vocabulary the capture layer is written against. The values are
// the ones Core Audio uses, so a macOS port can forward them unchanged; on Linux
// the PulseAudio layer maps its own failures onto these statuses.

#include <cstdint>
#include <string>

namespace velto::platform {

using OSStatus = std::int32_t;
using AudioObjectID = std::uint32_t;
using AudioObjectPropertySelector = std::uint32_t;
using AudioObjectPropertyScope = std::uint32_t;
using AudioObjectPropertyElement = std::uint32_t;

// Identifies one installed IO block; 0 is never handed out.
using AudioDeviceIOProcID = std::uint64_t;

constexpr std::uint32_t fourCharCode(const char (&code)[5]) {
    return (static_cast<std::uint32_t>(static_cast<unsigned char>(code[0])) << 24) |
           (static_cast<std::uint32_t>(static_cast<unsigned char>(code[1])) << 16) |
           (static_cast<std::uint32_t>(static_cast<unsigned char>(code[2])) << 8) |
           static_cast<std::uint32_t>(static_cast<unsigned char>(code[3]));
}

inline constexpr OSStatus noErr = 0;
inline constexpr OSStatus kAudio_ParamError = -50;
inline constexpr OSStatus kAudioHardwareNotRunningError = static_cast<OSStatus>(fourCharCode("stop"));
inline constexpr OSStatus kAudioHardwareUnspecifiedError = static_cast<OSStatus>(fourCharCode("what"));
inline constexpr OSStatus kAudioHardwareUnknownPropertyError = static_cast<OSStatus>(fourCharCode("who?"));
inline constexpr OSStatus kAudioHardwareBadObjectError = static_cast<OSStatus>(fourCharCode("!obj"));
inline constexpr OSStatus kAudioHardwareBadDeviceError = static_cast<OSStatus>(fourCharCode("!dev"));
inline constexpr OSStatus kAudioHardwareIllegalOperationError = static_cast<OSStatus>(fourCharCode("nope"));

inline constexpr AudioObjectID kAudioObjectUnknown = 0;
inline constexpr AudioObjectID kAudioObjectSystemObject = 1;

inline constexpr AudioObjectPropertyScope kAudioObjectPropertyScopeGlobal = fourCharCode("glob");
inline constexpr AudioObjectPropertyElement kAudioObjectPropertyElementMain = 0;

inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyProcessObjectList = fourCharCode("prs#");
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyDevices = fourCharCode("dev#");
inline constexpr AudioObjectPropertySelector kAudioHardwarePropertyDefaultSystemOutputDevice = fourCharCode("sOut");
inline constexpr AudioObjectPropertySelector kAudioDevicePropertyDeviceUID = fourCharCode("uid ");
inline constexpr AudioObjectPropertySelector kAudioTapPropertyFormat = fourCharCode("tfmt");
inline constexpr AudioObjectPropertySelector kAudioTapPropertyUID = fourCharCode("tuid");

inline constexpr std::uint32_t kAudioFormatLinearPCM = fourCharCode("lpcm");
inline constexpr std::uint32_t kAudioFormatFlagIsFloat = 1u << 0;
inline constexpr std::uint32_t kAudioFormatFlagIsPacked = 1u << 3;
inline constexpr std::uint32_t kAudioFormatFlagIsNonInterleaved = 1u << 5;

// kAudioOutputUnitProperty_CurrentDevice: the property that points an input unit at a device.
inline constexpr std::uint32_t kAudioOutputUnitProperty_CurrentDevice = 2000;

struct AudioObjectPropertyAddress {
    AudioObjectPropertySelector mSelector = 0;
    AudioObjectPropertyScope mScope = kAudioObjectPropertyScopeGlobal;
    AudioObjectPropertyElement mElement = kAudioObjectPropertyElementMain;
};

struct AudioStreamBasicDescription {
    double mSampleRate = 0.0;
    std::uint32_t mFormatID = 0;
    std::uint32_t mFormatFlags = 0;
    std::uint32_t mBytesPerPacket = 0;
    std::uint32_t mFramesPerPacket = 0;
    std::uint32_t mBytesPerFrame = 0;
    std::uint32_t mChannelsPerFrame = 0;
    std::uint32_t mBitsPerChannel = 0;
    std::uint32_t mReserved = 0;

    // Packed 32-bit float, interleaved: what the Linux tap delivers.
    static AudioStreamBasicDescription interleavedFloat32(double sampleRateHertz, std::uint32_t channels) {
        AudioStreamBasicDescription d;
        d.mSampleRate = sampleRateHertz;
        d.mFormatID = kAudioFormatLinearPCM;
        d.mFormatFlags = kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked;
        d.mBytesPerPacket = 4 * channels;
        d.mFramesPerPacket = 1;
        d.mBytesPerFrame = 4 * channels;
        d.mChannelsPerFrame = channels;
        d.mBitsPerChannel = 32;
        return d;
    }
};

// One buffer of an IO cycle: interleaved samples of mNumberChannels channels, or one channel.
struct AudioBuffer {
    std::uint32_t mNumberChannels = 0;
    std::uint32_t mDataByteSize = 0;
    void* mData = nullptr;
};

// A view of the buffers of one IO cycle; the storage belongs to whoever calls the IO block
// and is valid only during the call.
struct AudioBufferList {
    std::uint32_t mNumberBuffers = 0;
    const AudioBuffer* mBuffers = nullptr;
};

}  // namespace velto::platform
