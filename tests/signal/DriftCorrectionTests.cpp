#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>
#include <vector>

#include "MixerTestRig.hpp"
#include "SignalQuality.hpp"
#include "dispatch/Clock.hpp"
#include "signal/DriftController.hpp"
#include "signal/FloatRingBuffer.hpp"
#include "signal/VariableRatioResampler.hpp"

// Sources whose clocks disagree with the mixer's: the fine resampler that
// corrects them, the controller that sets its ratio, and whole recordings
// through the mixer with skewed sources, driven by a manual clock.
namespace velto {
namespace {

using testing::fitSine;
using testing::MixerRig;
using testing::runSources;
using testing::SimulatedSource;

constexpr double kPi = std::numbers::pi;

// ---- The fine resampler ----

TEST(VariableRatioResamplerTest, AtAStepOfOneItPassesTheInputThroughBitForBit) {
    VariableRatioResampler resampler(1024);
    std::mt19937 random(7);
    std::vector<float> input(20000), output;
    for (size_t i = 0; i < input.size(); ++i) input[i] = static_cast<float>(i % 9973) * 1e-4f - 0.5f;
    size_t pushed = 0;
    std::vector<float> block(1024);
    while (pushed + 2000 < input.size()) {
        const auto frames = static_cast<int64_t>(random() % 1000 + 1);
        const int64_t need = resampler.inputFramesNeeded(frames, 1.0);
        ASSERT_EQ(resampler.push(input.data() + pushed, need), need);
        pushed += static_cast<size_t>(need);
        ASSERT_EQ(resampler.process(block.data(), frames, 1.0), frames);
        output.insert(output.end(), block.begin(), block.begin() + frames);
    }
    for (size_t n = 0; n < output.size(); ++n) {
        ASSERT_EQ(output[n], input[n + VariableRatioResampler::kDelayFrames]) << "at output frame " << n;
    }
}

// Whatever the ratio does from block to block, each output frame is the input
// signal at its own position: a sine comes out as the sine at the positions the
// steps add up to, with no step at a block boundary.
TEST(VariableRatioResamplerTest, FollowsAChangingRatioWithoutASeam) {
    constexpr double rateHertz = 16000, toneHertz = 1000;
    VariableRatioResampler resampler(1024);
    std::mt19937 random(11);
    std::vector<float> block(1024);
    int64_t pushed = 0;
    double position = static_cast<double>(VariableRatioResampler::kDelayFrames);  // of the next output frame
    double worstError = 0;
    std::vector<float> input;
    for (int blockIndex = 0; blockIndex < 400; ++blockIndex) {
        const double step = 1.0 + (static_cast<double>(random() % 6001) - 3000.0) * 1e-6;
        const auto frames = static_cast<int64_t>(random() % 700 + 64);
        const int64_t need = resampler.inputFramesNeeded(frames, step);
        input.resize(static_cast<size_t>(need));
        for (int64_t i = 0; i < need; ++i) {
            input[static_cast<size_t>(i)] = static_cast<float>(0.5 * std::sin(2 * kPi * toneHertz * static_cast<double>(pushed + i) / rateHertz));
        }
        resampler.push(input.data(), need);
        pushed += need;
        resampler.process(block.data(), frames, step);
        for (int64_t n = 0; n < frames; ++n, position += step) {
            const double expected = 0.5 * std::sin(2 * kPi * toneHertz * position / rateHertz);
            worstError = std::max(worstError, std::abs(block[static_cast<size_t>(n)] - expected));
        }
    }
    EXPECT_LT(20 * std::log10(worstError / 0.5), -90.0) << "worst error " << worstError;
}

// ---- The controller, against a simulated source ----

// A source whose clock is `skew` off the mixer's delivers 1024-frame blocks,
// each stamped late by up to a few milliseconds of scheduling jitter; the mixer
// reads 60 times a second at the rate the controller says. Returns how far the
// source's delay moved after the first 10 s, in seconds.
struct ControlledRun {
    double delayMoveAfterSettling = 0;
    double finalSkewEstimate = 0;
    bool outOfRange = false;
};

// `batchLateSeconds`: besides the jitter, a share of the deliveries comes this much
// later, a share that wanders between 20 and 70% over 9 s, as a sound server hands
// on a monitor's audio a block behind for a while, then on time again.
// `lostSeconds`: at half time the device loses that much of its audio at once (an
// underrun): its deliveries fall behind by it and stay there.
ControlledRun runController(double skew, double jitterSeconds, double seconds,
                            std::optional<double> carried = std::nullopt, double batchLateSeconds = 0,
                            double lostSeconds = 0) {
    constexpr double rate = 16000, tick = 1.0 / 60.0;
    constexpr int64_t block = 1024;
    DriftController controller(rate, carried);
    std::mt19937 random(3);
    std::normal_distribution<double> jitter(0.0, jitterSeconds);
    std::uniform_real_distribution<double> chance(0.0, 1.0);
    const double period = static_cast<double>(block) / (rate * (1 + skew));
    double nextDelivery = period, stamp = 0, read = 0, lowest = 1e9, highest = -1e9;
    int64_t produced = 0;
    bool stamped = false;
    bool lost = false;
    for (double now = tick; now < seconds; now += tick) {
        if (!lost && now >= seconds / 2) {
            nextDelivery += lostSeconds;
            lost = true;
        }
        while (nextDelivery <= now) {
            produced += block;
            stamp = nextDelivery + std::abs(jitter(random));
            const double lateShare = 0.45 + 0.25 * std::sin(2 * kPi * nextDelivery / 9.0);
            if (chance(random) < lateShare) stamp += batchLateSeconds;
            stamped = true;
            nextDelivery += period;
        }
        read += rate * tick * (1 + controller.correction());
        if (!stamped) continue;
        controller.update(now, produced, std::min(stamp, now), static_cast<int64_t>(read));
        // The true delay: what the source has made by now, less what was read (what
        // it lost is never read: its later audio keeps its place in the recording).
        const double delaySeconds = (now * rate * (1 + skew) - read) / rate;
        if (now > 10.0) {
            lowest = std::min(lowest, delaySeconds);
            highest = std::max(highest, delaySeconds);
        }
    }
    return {highest - lowest, controller.estimatedSkew(), controller.skewOutOfRange()};
}

// Against scheduling jitter, and against a late share of the deliveries whose
// share wanders (the controller follows the earliest deliveries). A device that loses
// 35 ms at once has not changed its clock: its source takes the step and moves no
// further (a line through the deliveries either side of the step would read some
// -3800 ppm for half a minute).
TEST(DriftControllerTest, HoldsASkewedSourceWithinAMillisecondDespiteJitterLatenessAndLostTime) {
    struct Case {
        double skew, jitter, seconds, batchLate, lost;
    };
    std::vector<Case> cases;
    for (const double skew : {2000e-6, -2000e-6, 1000e-6, -200e-6, 0.0}) {
        for (const double jitter : {0.0005, 0.002}) cases.push_back({skew, jitter, 600, 0, 0});
    }
    for (const double skew : {500e-6, -1000e-6, 0.0}) cases.push_back({skew, 0.0005, 300, 0.020, 0});
    cases.push_back({500e-6, 0.0005, 120, 0, 0.035});
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "skew " << c.skew * 1e6 << " ppm, jitter " << c.jitter << ", late "
                                          << c.batchLate << ", lost " << c.lost);
        const auto run = runController(c.skew, c.jitter, c.seconds, std::nullopt, c.batchLate, c.lost);
        EXPECT_LT(run.delayMoveAfterSettling, 0.001);
        EXPECT_NEAR(run.finalSkewEstimate, c.skew, 20e-6);
        EXPECT_FALSE(run.outOfRange);
    }
}

// A block whose last frame came in earlier than the write (cut from a larger
// delivery) is stamped when that frame came in, not when it was handed on.
TEST(DriftControllerTest, ARingStampsAWriteWithItsLastFramesAge) {
    auto clock = std::make_shared<ManualClock>(100.0);
    FloatRingBuffer ring(1, 4096);
    const std::vector<float> block(1024, 0.25f);
    const float* channels[] = {block.data()};
    EXPECT_FALSE(ring.lastDelivery());
    ring.stampDeliveriesWith(clock);
    ring.write(channels, 1024, 0.004);
    ASSERT_TRUE(ring.lastDelivery());
    EXPECT_EQ(ring.lastDelivery()->totalWrittenFrames, 1024);
    EXPECT_DOUBLE_EQ(ring.lastDelivery()->atSeconds, 99.996);
}

TEST(DriftControllerTest, ReportsASkewBeyondTheRangeAndStartsFromACarriedEstimate) {
    EXPECT_TRUE(runController(3000e-6, 0.0005, 30).outOfRange);
    // A restart on the same device: the carried estimate holds from the first tick,
    // so the source barely moves even in the first seconds.
    const DriftController carried(16000, 1500e-6);
    EXPECT_DOUBLE_EQ(carried.correction(), 1500e-6);
    EXPECT_LT(runController(1500e-6, 0.0005, 60, 1500e-6).delayMoveAfterSettling, 0.0003);
}

// ---- Whole recordings through the mixer ----

// The drift recordings' tracks: separate, mixed at 16 kHz.
constexpr double kTrackRate = 16000;
constexpr int64_t kTrackFramesPerSecond = 16000;

// The delay of a track's low tone over each whole second, measured as the recording
// runs (unwrapped, in seconds): a phasor turning at the tone against the samples.
class TrackTiming {
public:
    explicit TrackTiming(double toneHertz)
        : toneHertz_(toneHertz), sinStep_(std::sin(2 * kPi * toneHertz / kTrackRate)),
          cosStep_(std::cos(2 * kPi * toneHertz / kTrackRate)) {}
    void add(float sample) {
        sineSum_ += sample * phasorSine_;
        cosineSum_ += sample * phasorCosine_;
        // Advance the phasor by the tone (renormalised once a second).
        const double sine = phasorSine_ * cosStep_ + phasorCosine_ * sinStep_;
        phasorCosine_ = phasorCosine_ * cosStep_ - phasorSine_ * sinStep_;
        phasorSine_ = sine;
        lastSound_ = std::abs(sample) > 1e-3f ? frames_ : lastSound_;
        if (++frames_ % kTrackFramesPerSecond != 0) return;
        const double phase = std::atan2(cosineSum_, sineSum_);
        if (!delays.empty()) turns_ += std::round((previousPhase_ - phase) / (2 * kPi));
        previousPhase_ = phase;
        // A later signal has an earlier phase: delay = −phase ÷ (2π × tone).
        if (frames_ > kTrackFramesPerSecond) delays.push_back(-(phase + 2 * kPi * turns_) / (2 * kPi * toneHertz_));  // the first second settles
        sineSum_ = cosineSum_ = 0;
        const double norm = std::hypot(phasorSine_, phasorCosine_);
        phasorSine_ /= norm;
        phasorCosine_ /= norm;
    }
    int64_t frames() const { return frames_; }
    int64_t lastSoundFrame() const { return lastSound_; }
    std::vector<double> delays;

private:
    double toneHertz_, sinStep_, cosStep_;
    double phasorSine_ = 0, phasorCosine_ = 1, sineSum_ = 0, cosineSum_ = 0, previousPhase_ = 0, turns_ = 0;
    int64_t frames_ = 0, lastSound_ = 0;
};

struct DriftRecording {
    // The two tracks, at the mixing rate: each source its own tone, so that with echo
    // cancellation the microphone's does not pass for the system audio's echo.
    TrackTiming microphone{10.0}, system{13.0};
    int64_t underruns = 0;
    double highestFillSeconds = 0;
    double secondsRecorded = 0;  // of the mixer's clock, from start to stop
};

// Records both sources as separate tracks at 16 kHz for `seconds`, with or without
// the echo canceller between the sources and the tracks.
DriftRecording recordSkewed(double microphoneSkew, double systemSkew, double seconds, bool cancelEcho = false) {
    constexpr double microphoneRate = 16000, systemRate = 48000;
    MixerRig rig(1024, 3072);
    SimulatedSource microphone(microphoneRate, microphoneSkew, 1, 1024, 10.0);
    SimulatedSource system(systemRate, systemSkew, 2, static_cast<int64_t>(systemRate / 100), 13.0);
    microphone.ring->stampDeliveriesWith(rig.clock);
    system.ring->stampDeliveriesWith(rig.clock);
    auto inputs = testing::dualInputs(system.ring, systemRate, 2, microphone.ring, microphoneRate, nullptr,
                                      *PcmFormat::make(kTrackRate, 2, true));
    inputs.layout = MixerTrackLayout::separate;
    inputs.mixingSampleRateHertz = kTrackRate;
    inputs.driftCorrection = true;
    inputs.echoCancellation = cancelEcho;
    auto stream = rig.mixer->audioStream();
    const double start = rig.clock->nowSeconds();
    rig.mixer->start(inputs);

    DriftRecording recording;
    const auto collect = [&] {
        testing::forEachFrame(stream, [&](const float* frame) {
            recording.microphone.add(frame[0]);
            recording.system.add(frame[1]);
        });
    };
    runSources(rig, {&microphone, &system}, start, seconds, collect);
    recording.underruns = rig.mixer->underrunCount();
    recording.secondsRecorded = rig.clock->nowSeconds() - start;
    recording.highestFillSeconds = std::max(static_cast<double>(microphone.highestFill) / microphoneRate,
                                            static_cast<double>(system.highestFill) / systemRate);
    EXPECT_EQ(microphone.overrunFrames + system.overrunFrames, 0);
    rig.mixer->stopMixing();
    collect();
    return recording;
}

double movementAfter(const std::vector<double>& values, size_t fromIndex) {
    if (values.size() <= fromIndex) return 1e9;
    const auto [lowest, highest] = std::minmax_element(values.begin() + static_cast<std::ptrdiff_t>(fromIndex), values.end());
    return *highest - *lowest;
}

// The sanitizer builds run the simulations shorter: they are some twenty times slower.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr double kSimulatedTimeScale = 0.2;
#else
constexpr double kSimulatedTimeScale = 1.0;
#endif

// The checks every skewed recording must pass (after 10 s of settling).
void expectInStep(const DriftRecording& recording) {
    const auto& microphone = recording.microphone.delays;
    const auto& system = recording.system.delays;
    ASSERT_GT(microphone.size(), 20u);
    std::vector<double> offset;
    for (size_t i = 0; i < std::min(microphone.size(), system.size()); ++i) offset.push_back(microphone[i] - system[i]);
    EXPECT_LT(movementAfter(offset, 10), 0.001);
    EXPECT_LT(movementAfter(microphone, 10), 0.001);
    EXPECT_LT(movementAfter(system, 10), 0.001);
    EXPECT_EQ(recording.underruns, 0);
    EXPECT_LT(recording.highestFillSeconds, (2 * 3072 + 2048) / kTrackRate);
    // The file holds the time it took, and the reserve written at the stop.
    EXPECT_NEAR(static_cast<double>(recording.microphone.frames()) / kTrackRate, recording.secondsRecorded, 0.25);
    // Both tracks end together: neither is silent over more than the last tick while the other sounds.
    EXPECT_NEAR(static_cast<double>(recording.microphone.lastSoundFrame()),
                static_cast<double>(recording.system.lastSoundFrame()), kTrackRate * (1 / 60.0 + 0.05));
}

struct SkewCase {
    double microphoneSkew, systemSkew, seconds;
    bool cancelEcho = false;
};

class SkewedSourcesThroughMixer : public ::testing::TestWithParam<SkewCase> {};

// Each source is held on the mixer's clock: after 10 s of settling neither moves
// by a millisecond against the clock (so the recording's length is the time it
// took) nor against the other; neither ring grows, neither source runs dry, and
// the stop ends both tracks together.
TEST_P(SkewedSourcesThroughMixer, StayInStepWithTheClockAndEachOther) {
    const auto& c = GetParam();
    expectInStep(recordSkewed(c.microphoneSkew, c.systemSkew, c.seconds * kSimulatedTimeScale, c.cancelEcho));
}

// With echo cancellation the microphone starts out read at the system audio's ratio;
// one on a clock of its own is soon steered on its own.
INSTANTIATE_TEST_SUITE_P(Minutes, SkewedSourcesThroughMixer,
                         ::testing::Values(SkewCase{500e-6, -500e-6, 600}, SkewCase{-2000e-6, 2000e-6, 120},
                                           SkewCase{200e-6, 0.0, 120}, SkewCase{500e-6, -500e-6, 120, true}));

// With echo cancellation, two sources on one clock (a laptop's microphone and its
// loudspeakers) are read at one ratio: they do not move against each other at all,
// so the echo stays where the canceller found it, while the pair is kept on time.
TEST(SkewedSourcesThroughMixer, OnOneClockWithEchoCancellationTheyMoveAsOne) {
    const DriftRecording recording = recordSkewed(300e-6, 300e-6, 120 * kSimulatedTimeScale, true);
    std::vector<double> offset;
    for (size_t i = 0; i < std::min(recording.microphone.delays.size(), recording.system.delays.size()); ++i) {
        offset.push_back(recording.microphone.delays[i] - recording.system.delays[i]);
    }
    EXPECT_LT(movementAfter(offset, 2), 0.00002);
    expectInStep(recording);
}

// Eight hours at ±500 ppm (about 20 s; the sanitizer builds, twenty times slower, skip it).
TEST(SkewedSourcesThroughMixerLong, EightHoursAtFiveHundredPpm) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "hours of audio under a sanitizer take too long";
#endif
    expectInStep(recordSkewed(500e-6, -500e-6, 8 * 3600));
}

// The best fit of a sine within ±0.1 Hz of `hertz` (golden-section search on SINAD).
testing::SineFit fitSineNear(const std::vector<float>& samples, size_t first, size_t count, double hertz,
                             double rateHertz) {
    const double ratio = (std::sqrt(5.0) - 1) / 2;
    double low = hertz - 0.1, high = hertz + 0.1;
    for (int i = 0; i < 60; ++i) {
        const double a = high - ratio * (high - low), b = low + ratio * (high - low);
        if (fitSine(samples, first, count, a, rateHertz).sinadDecibels > fitSine(samples, first, count, b, rateHertz).sinadDecibels) {
            high = b;
        } else {
            low = a;
        }
    }
    return fitSine(samples, first, count, (low + high) / 2, rateHertz);
}

// A 1 kHz tone from a skewed source, at each pair of source and mixing rates:
// the adaptive path is as clean as the fixed one (SINAD ≥ 90 dB once settled).
TEST(SkewedSourceFidelity, AToneThroughTheAdaptivePathIsCleanAtEveryRatePair) {
    for (const double sourceRate : {16000.0, 44100.0, 48000.0}) {
        for (const double mixingRate : {16000.0, 44100.0, 48000.0}) {
            // The sanitizer builds take one mixing rate per source rate.
            if (kSimulatedTimeScale < 1 && sourceRate == mixingRate) continue;
            MixerRig rig(1024, 3072);
            SimulatedSource source(sourceRate, 1000e-6, 1, 1024, 1000.0);
            source.ring->stampDeliveriesWith(rig.clock);
            auto inputs = testing::singleInputs(nullptr, source.ring, sourceRate, 1, nullptr,
                                                *PcmFormat::make(mixingRate, 1, true));
            inputs.mixingSampleRateHertz = mixingRate;
            inputs.driftCorrection = true;
            rig.mixer->setMicrophoneGain(1.0f);
            auto stream = rig.mixer->audioStream();
            const double start = rig.clock->nowSeconds();
            rig.mixer->start(inputs);
            std::vector<float> output;
            runSources(rig, {&source}, start, 62, [&] {
                const auto delivered = testing::drainStream(stream);
                output.insert(output.end(), delivered.begin(), delivered.end());
            });
            rig.mixer->stopMixing();
            // A quarter second, a minute in. The controller leaves the tone a few ppm
            // from 1 kHz of the mixer's time, which is no distortion: the fit finds its frequency.
            const auto window = static_cast<size_t>(mixingRate / 4);
            ASSERT_GT(output.size(), static_cast<size_t>(60 * mixingRate) + window);
            const auto fit = fitSineNear(output, static_cast<size_t>(60 * mixingRate), window, 1000.0, mixingRate);
            EXPECT_GE(fit.sinadDecibels, 90.0) << sourceRate << " Hz source, " << mixingRate << " Hz mix";
        }
    }
}

}  // namespace
}  // namespace velto
