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
    // Ends the recording by itself once the file holds this many seconds (time spent
    // paused does not count): the file then ends on that very frame, the live stream
    // with it, and the events end with `finished` as after a stop. It must be a
    // finite number above zero, or the start is refused. Unset: until stopped.
    std::optional<double> maximumDurationSeconds;

    bool cancelsEcho() const {
        return sources.includeMicrophone() && sources.includeSystemAudio() && echoCancellation.value_or(true);
    }
};

}  // namespace velto
