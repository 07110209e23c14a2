#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

// Plain arithmetic over arrays of 32-bit floats, the handful of vector
// routines the mixer needs. Written as simple loops that the compiler
// vectorises; `count` is a number of samples.
namespace velto::vec {

inline void clear(float* values, int64_t count) { std::fill_n(values, count, 0.0f); }

inline void copy(const float* source, float* destination, int64_t count) { std::copy_n(source, count, destination); }

// destination[i] += source[i] × scale
inline void multiplyAdd(const float* source, float scale, float* destination, int64_t count) {
    for (int64_t i = 0; i < count; ++i) destination[i] += source[i] * scale;
}

// destination[i] = (a[i] + b[i]) × 0.5
inline void average(const float* a, const float* b, float* destination, int64_t count) {
    for (int64_t i = 0; i < count; ++i) destination[i] = (a[i] + b[i]) * 0.5f;
}

inline float maxMagnitude(const float* values, int64_t count) {
    float peak = 0.0f;
    for (int64_t i = 0; i < count; ++i) peak = std::max(peak, std::abs(values[i]));
    return peak;
}

inline float rootMeanSquare(const float* values, int64_t count) {
    if (count < 1) return 0.0f;
    double sum = 0.0;
    for (int64_t i = 0; i < count; ++i) sum += static_cast<double>(values[i]) * values[i];
    return static_cast<float>(std::sqrt(sum / static_cast<double>(count)));
}

inline void clip(float* values, float low, float high, int64_t count) {
    for (int64_t i = 0; i < count; ++i) values[i] = std::clamp(values[i], low, high);
}

}  // namespace velto::vec
