#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <numbers>
#include <random>
#include <vector>

// Measurements on test signals: a sine of known frequency is fitted by least
// squares (amplitude, phase and offset) and everything else counts as noise
// and distortion. A dropped or repeated frame shifts the phase of what
// follows and shows up as a burst in the residual.
namespace velto::testing {

struct SineFit {
    double sinadDecibels = 0;
    double amplitude = 0;
    double phaseRadians = 0;  // of amplitude·sin(ωi + phase)
    double worstResidual = 0;  // largest |sample - fitted sine|
    size_t worstResidualIndex = 0;
};

inline SineFit fitSine(const std::vector<float>& samples, size_t first, size_t count, double frequencyHertz,
                       double sampleRateHertz) {
    // Normal equations for s[i] ≈ a·sin(wi) + b·cos(wi) + c.
    const double w = 2 * std::numbers::pi * frequencyHertz / sampleRateHertz;
    double ss = 0, sc = 0, cc = 0, s1 = 0, c1 = 0, n = 0, ys = 0, yc = 0, y1 = 0;
    for (size_t i = first; i < first + count; ++i) {
        const double s = std::sin(w * static_cast<double>(i)), c = std::cos(w * static_cast<double>(i));
        const double y = samples[i];
        ss += s * s; sc += s * c; cc += c * c; s1 += s; c1 += c; n += 1;
        ys += y * s; yc += y * c; y1 += y;
    }
    // Solve the 3x3 system by Cramer's rule.
    auto det3 = [](double a, double b, double c, double d, double e, double f, double g, double h, double k) {
        return a * (e * k - f * h) - b * (d * k - f * g) + c * (d * h - e * g);
    };
    const double d = det3(ss, sc, s1, sc, cc, c1, s1, c1, n);
    const double a = det3(ys, sc, s1, yc, cc, c1, y1, c1, n) / d;
    const double b = det3(ss, ys, s1, sc, yc, c1, s1, y1, n) / d;
    const double offset = det3(ss, sc, ys, sc, cc, yc, s1, c1, y1) / d;

    SineFit fit;
    double signal = 0, noise = 0;
    for (size_t i = first; i < first + count; ++i) {
        const double model = a * std::sin(w * static_cast<double>(i)) + b * std::cos(w * static_cast<double>(i));
        const double residual = samples[i] - model - offset;
        signal += model * model;
        noise += residual * residual;
        if (std::abs(residual) > fit.worstResidual) {
            fit.worstResidual = std::abs(residual);
            fit.worstResidualIndex = i;
        }
    }
    fit.amplitude = std::hypot(a, b);
    fit.phaseRadians = std::atan2(b, a);
    fit.sinadDecibels = 10 * std::log10(signal / std::max(noise, 1e-300));
    return fit;
}

inline float sineSample(double frequencyHertz, double sampleRateHertz, long long frame, double amplitude = 0.5) {
    return static_cast<float>(amplitude *
                              std::sin(2 * std::numbers::pi * frequencyHertz * static_cast<double>(frame) / sampleRateHertz));
}

// Low-passed noise whose loudness rises and falls like syllables: a far end to echo.
inline std::vector<float> speechLikeNoise(int64_t frames, double rateHertz) {
    std::vector<float> s(static_cast<size_t>(frames));
    std::mt19937 random(3);
    std::normal_distribution<double> noise(0.0, 0.15);
    double low = 0;
    for (int64_t i = 0; i < frames; ++i) {
        low += 0.3 * (noise(random) - low);
        const double syllables = 0.55 + 0.45 * std::sin(2 * std::numbers::pi * 3.1 * static_cast<double>(i) / rateHertz);
        s[static_cast<size_t>(i)] = static_cast<float>(low * syllables);
    }
    return s;
}

}  // namespace velto::testing
