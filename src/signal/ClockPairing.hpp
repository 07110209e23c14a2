#pragma once

#include <optional>

#include "signal/DriftController.hpp"

namespace velto {

// While the echo canceller runs, the microphone and the system audio must not move
// against each other: the canceller has learnt where the loudspeakers' echo lies in
// the microphone, and an echo that drifts by 10 ppm keeps only 25-30 dB of the 40 and
// more it removes from a still one (offline, espeak-ng speech, 100 ms path). A laptop's
// microphone and loudspeakers share the card's clock, and so does everything a PipeWire
// graph records; then the microphone is read at the system audio's ratio and the pair
// moves as one. Only when the microphone shows a clock of its own (a USB or Bluetooth
// microphone) is it steered on its own, from where it then is, and the canceller follows
// the one change of ratio.
namespace clock_pairing {

// Two sources start paired unless earlier runs on the same devices found their clocks apart.
bool startsPaired(std::optional<double> systemCarriedSkew, std::optional<double> microphoneCarriedSkew);

// After a tick: whether the microphone, read at the system audio's ratio, has shown
// a clock of its own (its fill has moved off, or its skew plainly differs).
bool microphoneHasItsOwnClock(const DriftController& microphone, const DriftController& system);

}  // namespace clock_pairing
}  // namespace velto
