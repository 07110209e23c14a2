#pragma once

#include <optional>
#include <string>

#include "veltoaudio/Export.hpp"
#include "veltoaudio/PcmBuffer.hpp"

namespace velto {

// Output file format. Both are written at 16000 Hz, one channel.
enum class AudioFormat { wav, flac };

// "wav" or "flac", without a leading dot.
VELTO_EXPORT std::string fileExtension(AudioFormat format);
// 16000.0 for both formats; callers still treat it as optional.
VELTO_EXPORT std::optional<double> targetSampleRate(AudioFormat format);
// 32-bit float, 16000 Hz, one channel, interleaved, whatever the format.
VELTO_EXPORT std::optional<PcmFormat> avAudioFormat(AudioFormat format);

VELTO_EXPORT const char* caseName(AudioFormat format);

}  // namespace velto
