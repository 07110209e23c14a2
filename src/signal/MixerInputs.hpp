#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "signal/AudioFile.hpp"
#include "signal/FloatRingBuffer.hpp"
#include "veltoaudio/PcmBuffer.hpp"

namespace velto {

// One capture source as the mixer sees it: the ring its producer fills, at the
// source's own rate. The ring's channel count is the one processing uses;
// `channels` is what the source reported, for the log.
struct MixerSourceInput {
    std::shared_ptr<FloatRingBuffer> ring;
    double sampleRateHertz = 48000.0;
    uint32_t channels = 1;
    // With drift correction: an earlier run's skew estimate for the same device
    // (after a restart), so the new run starts where the old one had arrived.
    std::optional<double> carriedSkew;
};

// How the bus lays the sources out in the output.
enum class MixerTrackLayout {
    mixed,     // one mono track: the sources summed with their gains
    separate,  // two channels: microphone, then system audio, each unscaled
};

// Everything one mixing run needs, given to the mixer's single start.
struct MixerInputs {
    std::optional<MixerSourceInput> system;
    std::optional<MixerSourceInput> microphone;
    std::shared_ptr<AudioFile> outputFile;  // null: the blocks only go to the stream
    PcmFormat outputFormat;
    MixerTrackLayout layout = MixerTrackLayout::mixed;
    // Starts with the output paused: a mixer rebuilt during a pause writes nothing of
    // what its sources hold until the resume.
    bool startPaused = false;
    // Unset: the lowest standard rate that carries every source unharmed
    // (16 kHz when the echo is cancelled).
    std::optional<double> mixingSampleRateHertz;
    // Removes the loudspeakers' echo (the system audio) from the microphone
    // before the bus. Takes effect with both sources only, and mixes at 16 kHz.
    bool echoCancellation = false;
    // Steers every source onto the mixer's clock, however far the source's own
    // clock is from it: no ring fills or empties over a long recording, the
    // sources stay in step with each other, and the output is as long as the
    // time it took. Off, each source is read at its nominal rate, exactly.
    bool driftCorrection = false;
    // The most frames the output file may hold, counted over the whole file (what
    // earlier runs wrote included): the block that reaches it is cut to fit, nothing
    // after it is written or streamed, and the limit handler is told once.
    std::optional<int64_t> fileFrameLimit;
};

}  // namespace velto
