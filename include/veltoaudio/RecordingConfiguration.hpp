#pragma once

#include <optional>

#include "veltoaudio/AudioFormat.hpp"
#include "veltoaudio/AudioSources.hpp"
#include "veltoaudio/BufferConfiguration.hpp"
#include "veltoaudio/MicrophoneDevice.hpp"

namespace velto {

// The description of one recording. All four fields are required.
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
};

}  // namespace velto
