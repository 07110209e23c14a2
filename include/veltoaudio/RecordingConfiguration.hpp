#pragma once

#include <optional>

#include "veltoaudio/AudioFormat.hpp"
#include "veltoaudio/AudioSources.hpp"
#include "veltoaudio/BufferConfiguration.hpp"
#include "veltoaudio/TrackLayout.hpp"
#include "veltoaudio/MicrophoneDevice.hpp"

namespace velto {

// The description of one recording. The first four fields are required; the
// others have defaults.
struct RecordingConfiguration {
    RecordingConfiguration(AudioFormat audioFormat, AudioSources sources,
                           std::optional<MicrophoneDevice> preferredMicrophone,
                           BufferConfiguration bufferConfiguration)
        : audioFormat(audioFormat),
          sources(sources),
          preferredMicrophone(std::move(preferredMicrophone)),
          bufferConfiguration(bufferConfiguration) {}

    AudioFormat audioFormat;
    AudioSources sources;
    // None: the service resolves the device when the recording starts.
    std::optional<MicrophoneDevice> preferredMicrophone;
    BufferConfiguration bufferConfiguration;
    // `separate` needs both sources; a recording of one source is refused at start.
    TrackLayout trackLayout = TrackLayout::mixed;
};

}  // namespace velto
