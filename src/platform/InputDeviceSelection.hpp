#pragma once
// Pointing an audio engine's input at a chosen microphone: find the capture device of a
// MicrophoneDevice, resolve it to an audio device, and set it as the engine's current
// device. Shared by the microphone recorder and the microphone capture, which log
// through their own loggers and raise their own error when this answers nullopt. Every
// lookup reads the snapshot of the operation the selection is part of.

#include "logging/LoggerCompat.hpp"
#include "platform/AudioInputEngine.hpp"
#include "platform/AudioSystemSnapshot.hpp"
#include "platform/CaptureDeviceDiscovery.hpp"
#include "veltoaudio/MicrophoneDevice.hpp"

#include <optional>
#include <string>
#include <vector>

namespace velto::platform {

// Microphone and external devices from 14.0 on, the built-in microphone before.
std::vector<CaptureDeviceType> audioCaptureDeviceTypes();

// The audio capture devices of those types, in discovery order.
std::vector<CaptureDevice> discoverAudioCaptureDevices(CaptureDeviceDiscovery& discovery);

// Logs every step (info on the way, critical on the failure) and answers the selected
// device, or nullopt when the device cannot be selected.
std::optional<AudioObjectID> configureInputDevice(const MicrophoneDevice& device, const AudioSystemSnapshot& system,
                                                  CaptureDeviceDiscovery& discovery, AudioInputEngine& engine,
                                                  LoggerCompat& logger);

}  // namespace velto::platform
