#pragma once
// Keeps a capture stream's clock running while its source is idle. A PulseAudio monitor
// of a sink that plays nothing (and a suspended source) delivers no frames at all,
// where a Core Audio device keeps calling with silence; consumers that pace themselves
// on the stream (the mixer's jitter gate waits for every source) would stall. Once no
// real block has arrived for `idleAfterSeconds`, silence blocks are due at the nominal
// rate from the moment the last real block arrived, so the gap is filled without a jump.
// A source that was only late (a busy machine starves the main loop, the server sends a
// burst) returns with a backlog that covers time already filled with silence; that part
// of the backlog is dropped on resumption, so the stream keeps its length and timing:
// we would rather lose a moment of late audio than let every later frame drift.
//
// The start is different. A source's first data can take a while (a sound server
// wakes a suspended device, or renders its first period late), and what it then
// delivers is the start of the recording: dropping it would cut real audio off every
// recording. So before the first real block the pacer waits `firstAudioGraceSeconds`
// (at least the idle wait) before it fills, and never drops the backlog that follows:
// a late first delivery comes out whole, after any silence already given.
// When the first data comes without a backlog (the source only began to capture late),
// the part of the wait it does not cover is filled with silence ahead of it, so the
// stream still starts when it was opened.
//
// Times are seconds on a monotonic clock, passed in by the caller. Not thread-safe: used
// by one capture stream's main-loop callbacks.

#include <cstdint>

namespace velto::pulse {

class SilencePacer {
public:
    SilencePacer(double sampleRateHertz, std::uint32_t blockFrames, double idleAfterSeconds,
                 double firstAudioGraceSeconds = 0.0);

    void start(double nowSeconds);
    void noteRealBlock(double nowSeconds);
    // Silence blocks to deliver now; counts them as delivered.
    std::uint32_t takeSilenceBlocksDue(double nowSeconds);
    // When real frames appear after silence was delivered: how many of the `availableFrames`
    // waiting are backlog already covered by silence (beyond what a source that resumes
    // just now would have sent: `toleranceFrames`). Always 0 before the first real block.
    std::uint64_t backlogToDrop(std::uint64_t availableFrames, std::uint64_t toleranceFrames) const;
    // When the first real frames appear: silence blocks to deliver ahead of them, for the
    // time since the start that neither they (`availableFrames`, give or take
    // `toleranceFrames`) nor silence already delivered cover. Counts them as delivered.
    std::uint32_t takeSilenceBlocksBeforeFirstAudio(double nowSeconds, std::uint64_t availableFrames,
                                                    std::uint64_t toleranceFrames);
    bool isIdle() const { return idle_; }
    bool heardRealAudio() const { return heardRealAudio_; }
    // When the last real block came (or start(), before the first one).
    double lastRealSeconds() const { return lastRealSeconds_; }

private:
    double sampleRateHertz_;
    std::uint32_t blockFrames_;
    double idleAfterSeconds_;
    double firstAudioGraceSeconds_;
    bool heardRealAudio_ = false;
    double lastRealSeconds_ = 0.0;
    bool idle_ = false;
    std::uint64_t silenceFramesDelivered_ = 0;
};

}  // namespace velto::pulse
