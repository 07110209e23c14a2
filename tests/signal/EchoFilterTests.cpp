#include "signal/EchoFilter.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "signal/SignalQuality.hpp"

namespace velto {
namespace {

constexpr int64_t kBlockFrames = 256;
constexpr int64_t kFilterFrames = 1024;
constexpr double kRateHertz = 16000;

// Reflections spread over the filter's whole length: every partition holds part of the echo.
std::vector<float> spreadEcho(const std::vector<float>& far) {
    const int64_t lags[] = {3, 290, 610, 1000};
    const double gains[] = {0.5, -0.3, 0.2, 0.1};
    std::vector<float> echo(far.size(), 0.0f);
    for (size_t n = 0; n < far.size(); ++n)
        for (int r = 0; r < 4; ++r)
            if (static_cast<int64_t>(n) >= lags[r]) echo[n] += static_cast<float>(gains[r] * far[n - static_cast<size_t>(lags[r])]);
    return echo;
}

double energy(const std::vector<float>& s, size_t from, size_t to) {
    double sum = 1e-20;
    for (size_t i = from; i < to; ++i) sum += static_cast<double>(s[i]) * s[i];
    return sum;
}

std::vector<float> run(EchoFilter& filter, const std::vector<float>& far, const std::vector<float>& microphone) {
    std::vector<float> out(far.size());
    for (size_t at = 0; at + kBlockFrames <= far.size(); at += kBlockFrames)
        filter.process(far.data() + at, microphone.data() + at, out.data() + at);
    return out;
}

TEST(EchoFilter, LearnsAResponseSpreadOverItsWholeLength) {
    const auto far = testing::speechLikeNoise(8 * static_cast<int64_t>(kRateHertz), kRateHertz);
    const auto microphone = spreadEcho(far);
    EchoFilter filter(kBlockFrames, kFilterFrames, kRateHertz);
    const auto out = run(filter, far, microphone);
    const size_t lastSeconds = 6 * static_cast<size_t>(kRateHertz);
    EXPECT_GE(10 * std::log10(energy(microphone, lastSeconds, out.size()) / energy(out, lastSeconds, out.size())), 30.0);
}

// A broken device's NaN must not poison the filter for the rest of the recording.
TEST(EchoFilter, ANonFiniteMicrophoneSampleStartsItOverWithoutPoisoningTheOutput) {
    const auto far = testing::speechLikeNoise(10 * static_cast<int64_t>(kRateHertz), kRateHertz);
    auto microphone = spreadEcho(far);
    microphone[2 * static_cast<size_t>(kRateHertz) + 17] = std::nanf("");
    EchoFilter filter(kBlockFrames, kFilterFrames, kRateHertz);
    const auto out = run(filter, far, microphone);
    for (float sample : out) ASSERT_TRUE(std::isfinite(sample));
    const size_t lastSeconds = 8 * static_cast<size_t>(kRateHertz);
    EXPECT_GE(10 * std::log10(energy(microphone, lastSeconds, out.size()) / energy(out, lastSeconds, out.size())), 30.0);
}

}  // namespace
}  // namespace velto
