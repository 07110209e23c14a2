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
    // Removes the loudspeakers' echo of the system audio from the microphone, so
    // that a call recorded without headphones does not carry every remote word
    // twice. Unset: on when both sources are recorded. It needs both sources and
    // makes the mix run at 16 kHz; with headphones the microphone is left as it is.
    std::optional<bool> echoCancellation;

    bool cancelsEcho() const {
        return sources.includeMicrophone() && sources.includeSystemAudio() && echoCancellation.value_or(true);
    }
};

}  // namespace velto
