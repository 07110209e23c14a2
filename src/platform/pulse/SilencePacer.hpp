#pragma once
// Keeps a capture stream's clock running while its source is idle. A PulseAudio monitor
// of a sink that plays nothing (and a suspended source) delivers no frames at all,
// where a Core Audio device keeps calling with silence; consumers that pace themselves
// on the stream (the mixer's jitter gate waits for every source) would stall. Once no
// real block has arrived for `idleAfterSeconds`, silence blocks are due at the nominal
// rate from the moment the last real block arrived, so the gap is filled without a jump.
// When real blocks return they are passed on as they come: we would rather add a few
// milliseconds of delay once than stop a recording.
//
// Times are seconds on a monotonic clock, passed in by the caller. Not thread-safe: used
// by one delivery thread.

#include <cstdint>

namespace velto::pulse {

class SilencePacer {
public:
    SilencePacer(double sampleRateHertz, std::uint32_t blockFrames, double idleAfterSeconds);

    void start(double nowSeconds);
    void noteRealBlock(double nowSeconds);
    // Silence blocks to deliver now; counts them as delivered.
    std::uint32_t takeSilenceBlocksDue(double nowSeconds);
    bool isIdle() const { return idle_; }

private:
    double sampleRateHertz_;
    std::uint32_t blockFrames_;
    double idleAfterSeconds_;
    double lastRealSeconds_ = 0.0;
    bool idle_ = false;
    std::uint64_t silenceFramesDelivered_ = 0;
};

}  // namespace velto::pulse
