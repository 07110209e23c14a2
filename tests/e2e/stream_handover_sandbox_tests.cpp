// Capture streams carried across a restart on the real sound server: only a stream stopped
// just after a configuration change is kept for the next start, and only for a short while.
// (That a restart takes it over without a gap is measured on whole recordings.)

#include "platform/pulse/PulseStreamHandover.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace velto::pulse {
namespace {

using namespace std::chrono_literals;

PulseCaptureStreamOptions speakersMonitor() {
    PulseCaptureStreamOptions options;
    options.sourceName = "velto_speakers.monitor";
    options.sampleRateHertz = 48000.0;
    options.channels = 2;
    options.blockFrames = 1024;
    options.streamName = "VeltoAudio handover test";
    return options;
}

void discard(const float*, std::uint32_t, double) {}

// A stream is kept for the next start only after a change; another source never takes it;
// a start this long after the stop is another recording, which must not begin with what
// was captured before it.
TEST(PulseStreamHandoverSandboxTest, OnlyARestartOnTheSameSourceTakesOverAStoppedStream) {
    auto connection = PulseConnection::shared();
    auto handover = PulseStreamHandover::create(connection, 0.3);
    handover->release(PulseCaptureStream::open(connection, speakersMonitor(), discard));
    EXPECT_EQ(handover->parkedCount(), 0u) << "parked with no change announced";
    EXPECT_EQ(handover->adopt(speakersMonitor(), discard), nullptr);

    handover->openWindow();
    handover->release(PulseCaptureStream::open(connection, speakersMonitor(), discard));
    EXPECT_EQ(handover->parkedCount(), 1u);
    auto otherSource = speakersMonitor();
    otherSource.sourceName = "velto_mic_in.monitor";
    EXPECT_EQ(handover->adopt(otherSource, discard), nullptr) << "another source took it";
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(handover->adopt(speakersMonitor(), discard), nullptr);
    EXPECT_EQ(handover->parkedCount(), 0u) << "a stream no one took over was kept";
}

}  // namespace
}  // namespace velto::pulse
