#pragma once
// The output file's settings, as the recorders hand them to the file writer.

#include <cstdint>
#include <map>
#include <string>
#include <variant>

#include "veltoaudio/AudioFormat.hpp"

namespace velto {

// Values of the output-file settings: the type matters to the file writer
// (an unsigned 32-bit code, a signed integer or a boolean).
using AudioSettingValue = std::variant<uint32_t, int64_t, bool>;
using AudioSettings = std::map<std::string, AudioSettingValue>;

inline constexpr const char* AVFormatIDKey = "AVFormatIDKey";
inline constexpr const char* AVSampleRateKey = "AVSampleRateKey";
inline constexpr const char* AVNumberOfChannelsKey = "AVNumberOfChannelsKey";
inline constexpr const char* AVLinearPCMBitDepthKey = "AVLinearPCMBitDepthKey";
inline constexpr const char* AVLinearPCMIsFloatKey = "AVLinearPCMIsFloatKey";
inline constexpr const char* AVLinearPCMIsBigEndianKey = "AVLinearPCMIsBigEndianKey";
inline constexpr const char* AVLinearPCMIsNonInterleaved = "AVLinearPCMIsNonInterleaved";

inline constexpr uint32_t kAudioFormatLinearPCM = 0x6C70636D;  // 'lpcm'
inline constexpr uint32_t kAudioFormatFLAC = 0x666C6163;       // 'flac'

// The settings handed to the file writer: 7 entries for WAV, 5 for FLAC.
AudioSettings makeAudioSettings(AudioFormat format);

}  // namespace velto
