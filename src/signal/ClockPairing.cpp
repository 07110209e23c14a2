#include "signal/ClockPairing.hpp"

#include <cmath>

namespace velto::clock_pairing {

namespace {
// Carried estimates have minutes behind them: a difference this large is a second clock.
constexpr double kCarriedSkewsApart = 20e-6;
// Read at the system audio's ratio, a microphone on a clock of its own moves off its
// fill against the system audio's (whatever the shared ratio's own error, which moves
// both alike); this far is beyond what delivery jitter moves a device's line (up to
// 0.2 ms on the sandbox's paced devices) and soon reached by any real difference (1 s
// at 1000 ppm, 5 s at 200, 10 s at 100): the microphone moves no further than this
// against the system audio before it is steered on its own.
constexpr double kFillAwaySeconds = 0.001;
// A young line's skew wanders by up to some tens of ppm; by this age a difference this
// large is no wander.
constexpr double kSkewsJudgedAfterSeconds = 8.0;
constexpr double kSkewsApart = 100e-6;
}  // namespace

bool startsPaired(std::optional<double> systemCarriedSkew, std::optional<double> microphoneCarriedSkew) {
    if (!systemCarriedSkew || !microphoneCarriedSkew) return true;
    return std::abs(*systemCarriedSkew - *microphoneCarriedSkew) <= kCarriedSkewsApart;
}

bool microphoneHasItsOwnClock(const DriftController& microphone, const DriftController& system) {
    if (std::abs(microphone.fillErrorSeconds() - system.fillErrorSeconds()) > kFillAwaySeconds) return true;
    return microphone.lineSpanSeconds() >= kSkewsJudgedAfterSeconds &&
           system.lineSpanSeconds() >= kSkewsJudgedAfterSeconds &&
           std::abs(microphone.estimatedSkew() - system.estimatedSkew()) > kSkewsApart;
}

}  // namespace velto::clock_pairing
