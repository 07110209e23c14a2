#include "signal/EchoCanceller.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <random>
#include <vector>

#include "signal/SignalQuality.hpp"

namespace velto {
namespace {

constexpr int64_t kRate = EchoCanceller::kSampleRateHertz;
using Signal = std::vector<float>;

Signal tone(double hertz, double amplitude, int64_t from, int64_t frames) {
    Signal s(static_cast<size_t>(frames), 0.0f);
    for (int64_t i = from; i < frames; ++i)
        s[static_cast<size_t>(i)] = static_cast<float>(amplitude * std::sin(2 * std::numbers::pi * hertz * static_cast<double>(i) / kRate));
    return s;
}

// A delayed, attenuated copy with two reflections.
Signal roomEcho(const Signal& far, int64_t delayFrames, double attenuationDb) {
    const double gain = std::pow(10.0, -attenuationDb / 20.0);
    Signal echo(far.size(), 0.0f);
    for (size_t n = 0; n < far.size(); ++n) {
        auto at = [&](int64_t lag) { return static_cast<int64_t>(n) >= lag ? far[n - static_cast<size_t>(lag)] : 0.0f; };
        echo[n] = static_cast<float>(gain * (at(delayFrames) + 0.4 * at(delayFrames + 1) - 0.3 * at(delayFrames + 57) + 0.15 * at(delayFrames + 230)));
    }
    return echo;
}

Signal sum(const Signal& a, const Signal& b) {
    Signal s(a.size());
    for (size_t i = 0; i < a.size(); ++i) s[i] = a[i] + b[i];
    return s;
}

struct Output {
    Signal microphone;
    Signal system;
    EchoCanceller::Report report;
};

// Runs whole signals through a canceller in blocks of varying size, drains it,
// and drops the leading latency so that output index i matches input index i.
Output cancel(Signal microphone, Signal system, int64_t maximumBlockFrames = 441) {
    auto canceller = EchoCanceller::create(maximumBlockFrames);
    const int64_t latency = canceller->latencyFrames();
    std::mt19937 random(5);
    std::uniform_int_distribution<int64_t> blockFrames(1, maximumBlockFrames);
    Output out;
    const auto total = static_cast<int64_t>(microphone.size());
    for (int64_t done = 0; done < total;) {
        const int64_t n = std::min(blockFrames(random), total - done);
        canceller->process(microphone.data() + done, system.data() + done, n);
        done += n;
    }
    Signal tailMicrophone(static_cast<size_t>(latency)), tailSystem(static_cast<size_t>(latency));
    int64_t drained = 0;
    while (const int64_t n = canceller->drain(tailMicrophone.data() + drained, tailSystem.data() + drained, 7)) drained += n;
    EXPECT_EQ(drained, latency);
    EXPECT_EQ(canceller->drain(tailMicrophone.data(), tailSystem.data(), 7), 0);
    out.microphone.assign(microphone.begin() + latency, microphone.end());
    out.microphone.insert(out.microphone.end(), tailMicrophone.begin(), tailMicrophone.end());
    out.system.assign(system.begin() + latency, system.end());
    out.system.insert(out.system.end(), tailSystem.begin(), tailSystem.end());
    out.report = canceller->report();
    return out;
}

double powerDb(const Signal& s, int64_t from, int64_t to) {
    double p = 0;
    for (int64_t i = from; i < to; ++i) p += static_cast<double>(s[static_cast<size_t>(i)]) * s[static_cast<size_t>(i)];
    return 10 * std::log10(p / static_cast<double>(to - from) + 1e-20);
}

double toneAmplitude(const Signal& s, int64_t from, int64_t to) {
    return testing::fitSine(s, static_cast<size_t>(from), static_cast<size_t>(to - from), 1000, kRate).amplitude;
}

TEST(EchoCanceller, RemovesEchoAtShortAndLongDelaysAndReportsIt) {
    const int64_t frames = 8 * kRate;
    const Signal far = testing::speechLikeNoise(frames, kRate);
    // 3 ms: shorter than the margin the filter keeps before the echo.
    for (const auto& [delayMs, attenuationDb] : {std::pair{3, 0.0}, std::pair{20, 0.0}, std::pair{120, 6.0}, std::pair{300, 20.0}}) {
        SCOPED_TRACE(delayMs);
        const Signal microphone = roomEcho(far, delayMs * kRate / 1000, attenuationDb);
        const Output out = cancel(microphone, far);
        const double reductionDb = powerDb(microphone, 3 * kRate, frames) - powerDb(out.microphone, 3 * kRate, frames);
        EXPECT_GE(reductionDb, 25.0);
        EXPECT_NEAR(static_cast<double>(out.report.echoDelayMs), delayMs, 2.0);
        EXPECT_GE(out.report.suppressionDb, 25.0);
        EXPECT_EQ(out.report.echoMoves, 0);
    }
}

TEST(EchoCanceller, FollowsAnEchoPathThatChangesMidway) {
    // A device's latency moves after an underrun: the echo jumps, out of the filter's
    // span or within it. Without a search of the residual the filter removed nothing
    // for about 3 s after each jump.
    const int64_t frames = 10 * kRate;
    const int64_t jumpAt = 5 * kRate;
    const Signal far = testing::speechLikeNoise(frames, kRate);
    for (const auto& [fromMs, toMs] : {std::pair{188, 168}, std::pair{168, 208}, std::pair{168, 173}}) {
        SCOPED_TRACE(::testing::Message() << fromMs << " -> " << toMs << " ms");
        const Signal before = roomEcho(far, fromMs * kRate / 1000, 6);
        Signal microphone = roomEcho(far, toMs * kRate / 1000, 6);
        std::copy(before.begin(), before.begin() + jumpAt, microphone.begin());
        const Output out = cancel(microphone, far);
        const int64_t from = jumpAt + 2 * kRate;
        EXPECT_GE(powerDb(microphone, from, frames) - powerDb(out.microphone, from, frames), 25.0);
        EXPECT_NEAR(static_cast<double>(out.report.echoDelayMs), toMs, 8.0);
        // A step within the filter's span is the filter's own to follow.
        EXPECT_EQ(out.report.echoMoves, std::abs(toMs - fromMs) > 10 ? 1 : 0);
    }
}

TEST(EchoCanceller, KeepsTheNearEndWhenTheFarEndIsSilentAndInDoubleTalk) {
    const int64_t frames = 8 * kRate;
    const int64_t nearFrom = 4 * kRate;
    const Signal far = testing::speechLikeNoise(frames, kRate);
    Signal farThenSilent = far;
    std::fill(farThenSilent.begin() + nearFrom, farThenSilent.end(), 0.0f);
    const Signal nearTone = tone(1000, 0.07, nearFrom, frames);
    const int64_t delay = 150 * kRate / 1000;
    const double expected = 0.07;

    const Output alone = cancel(sum(roomEcho(farThenSilent, delay, 6), nearTone), farThenSilent);
    EXPECT_LT(std::fabs(20 * std::log10(toneAmplitude(alone.microphone, nearFrom + kRate / 2, frames) / expected)), 1.0);

    const Output doubleTalk = cancel(sum(roomEcho(far, delay, 6), nearTone), far);
    EXPECT_LT(std::fabs(20 * std::log10(toneAmplitude(doubleTalk.microphone, nearFrom + kRate / 2, frames) / expected)), 3.0);
}

TEST(EchoCanceller, ALoudNearEndIsNotTakenForAMovedEcho) {
    // The near end talks 6 dB over the echo from 4 s on: the filter removes little
    // then, and its residual can correlate with the far end at a wrong delay (these
    // signals' envelopes are periodic). Placed there, it removed nothing at all.
    const int64_t frames = 12 * kRate;
    const Signal far = testing::speechLikeNoise(frames, kRate);
    Signal near(static_cast<size_t>(frames), 0.0f);
    std::mt19937 random(11);
    std::normal_distribution<double> noise(0.0, 0.15);
    double low = 0;
    for (int64_t i = 4 * kRate; i < frames; ++i) {
        low += 0.3 * (noise(random) - low);
        near[static_cast<size_t>(i)] = static_cast<float>(low * (0.55 + 0.45 * std::sin(2 * std::numbers::pi * 2.3 * static_cast<double>(i) / kRate)));
    }
    const Signal echo = roomEcho(far, 170 * kRate / 1000, 6);
    const Output out = cancel(sum(echo, near), far);
    Signal residualEcho(static_cast<size_t>(frames));
    for (size_t i = 0; i < residualEcho.size(); ++i) residualEcho[i] = out.microphone[i] - near[i];
    EXPECT_EQ(out.report.echoMoves, 0);
    EXPECT_GE(powerDb(echo, 5 * kRate, frames) - powerDb(residualEcho, 5 * kRate, frames), 3.0);
}

TEST(EchoCanceller, TheFilterRunsOnlyWhileThereIsAnEchoToRemove) {
    // The far end falls silent halfway: the filter stops once its span is silent. It
    // starts where the delay estimate finds the echo, having learnt what came before.
    const int64_t frames = 8 * kRate;
    Signal far = testing::speechLikeNoise(frames, kRate);
    std::fill(far.begin() + frames / 2, far.end(), 0.0f);
    const Output halfSilent = cancel(roomEcho(far, 150 * kRate / 1000, 6), far);
    EXPECT_GT(halfSilent.report.filteredSeconds, 3.0);
    EXPECT_LT(halfSilent.report.filteredSeconds, 3.9);
    EXPECT_DOUBLE_EQ(halfSilent.report.processedSeconds, 8.0);

    // Steady tones correlate at some lag without being an echo: the filter tries for
    // its probing time (8 s), gives up, and leaves the microphone as it was. It tries
    // again after 30 s and then after 60: 24 s of two minutes.
    const int64_t longFrames = 120 * kRate;
    const Signal microphone = tone(660, 0.3, 0, longFrames);
    const Output tones = cancel(microphone, tone(440, 0.3, 0, longFrames));
    EXPECT_EQ(tones.microphone, microphone);
    EXPECT_EQ(tones.report.echoDelayMs, -1);
    EXPECT_NEAR(tones.report.filteredSeconds, 24.0, 0.1);
}

TEST(EchoCanceller, WithoutAnEchoPathTheMicrophonePassesUntouched) {
    const int64_t frames = 6 * kRate;
    const Signal far = testing::speechLikeNoise(frames, kRate);
    const Signal microphone = sum(tone(1000, 0.07, 0, frames), tone(310, 0.02, 0, frames));
    const Output out = cancel(microphone, far);
    EXPECT_EQ(out.microphone, microphone);
    EXPECT_EQ(out.report.echoDelayMs, -1);
}

TEST(EchoCanceller, BothOutputsCarryTheSameDelayWhateverTheBlockSizes) {
    // A counter on both sides shows any dropped, repeated or shifted frame exactly.
    const int64_t frames = 20000;
    Signal counter(static_cast<size_t>(frames));
    for (int64_t i = 0; i < frames; ++i) counter[static_cast<size_t>(i)] = static_cast<float>(i % 30000) / 32768.0f;
    for (int64_t maximumBlockFrames : {1, 160, 441, 4096}) {
        SCOPED_TRACE(maximumBlockFrames);
        const Output out = cancel(counter, counter, maximumBlockFrames);
        EXPECT_EQ(out.system, counter);
    }
    // The leading latency is silence on both sides.
    auto canceller = EchoCanceller::create(64);
    Signal microphone(64, 0.5f), system(64, 0.25f);
    canceller->process(microphone.data(), system.data(), 64);
    EXPECT_EQ(microphone, Signal(64, 0.0f));
    EXPECT_EQ(system, Signal(64, 0.0f));
}

}  // namespace
}  // namespace velto
