#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

// Plain arithmetic over arrays of 32-bit floats, the handful of vector
// routines the mixer needs. Written as simple loops that the compiler
// vectorises; `count` is a number of samples.
namespace velto::vec {

inline void clear(float* values, int64_t count) {
    if (count > 0) std::memset(values, 0, static_cast<size_t>(count) * sizeof(float));
}

inline void copy(const float* source, float* destination, int64_t count) {
    if (count > 0) std::memcpy(destination, source, static_cast<size_t>(count) * sizeof(float));
}

// destination[i] += source[i] × scale
inline void multiplyAdd(const float* source, float scale, float* destination, int64_t count) {
    for (int64_t i = 0; i < count; ++i) destination[i] += source[i] * scale;
}

// destination[i] = (a[i] + b[i]) × 0.5
inline void average(const float* a, const float* b, float* destination, int64_t count) {
    for (int64_t i = 0; i < count; ++i) destination[i] = (a[i] + b[i]) * 0.5f;
}

// destination[i] = a[i] × gainA + b[i] × gainB, in one pass.
inline void weightedSum(const float* a, float gainA, const float* b, float gainB, float* destination, int64_t count) {
    for (int64_t i = 0; i < count; ++i) destination[i] = a[i] * gainA + b[i] * gainB;
}

struct ClipMeasurement {
    float peakBeforeClipping;  // largest |sample| before the limit
    double sumOfSquares;       // of the clipped samples
};

// Limits every sample to ±limit in place and measures the block on the way,
// so that a block is read once for clipping and metering. Eight independent
// accumulators keep the reduction free of a serial dependency chain.
inline ClipMeasurement clipAndMeasure(float* values, float limit, int64_t count) {
    constexpr int kLanes = 8;
    float peaks[kLanes] = {};
    float squares[kLanes] = {};
    int64_t i = 0;
    for (; i + kLanes <= count; i += kLanes) {
        for (int lane = 0; lane < kLanes; ++lane) {
            const float value = values[i + lane];
            const float magnitude = value < 0 ? -value : value;
            peaks[lane] = magnitude > peaks[lane] ? magnitude : peaks[lane];
            const float clipped = value > limit ? limit : (value < -limit ? -limit : value);
            values[i + lane] = clipped;
            squares[lane] += clipped * clipped;
        }
    }
    ClipMeasurement measurement{0.0f, 0.0};
    for (; i < count; ++i) {
        const float value = values[i];
        measurement.peakBeforeClipping = std::max(measurement.peakBeforeClipping, std::abs(value));
        values[i] = std::clamp(value, -limit, limit);
        measurement.sumOfSquares += static_cast<double>(values[i]) * values[i];
    }
    for (int lane = 0; lane < kLanes; ++lane) {
        measurement.peakBeforeClipping = std::max(measurement.peakBeforeClipping, peaks[lane]);
        measurement.sumOfSquares += squares[lane];
    }
    return measurement;
}

struct BlockMeasurement {
    float peak;           // largest |sample|
    double sumOfSquares;
};

// Peak and energy of a block, read-only, with the same independent lanes.
inline BlockMeasurement measure(const float* values, int64_t count) {
    constexpr int kLanes = 8;
    float peaks[kLanes] = {};
    float squares[kLanes] = {};
    int64_t i = 0;
    for (; i + kLanes <= count; i += kLanes) {
        for (int lane = 0; lane < kLanes; ++lane) {
            const float value = values[i + lane];
            const float magnitude = value < 0 ? -value : value;
            peaks[lane] = magnitude > peaks[lane] ? magnitude : peaks[lane];
            squares[lane] += value * value;
        }
    }
    BlockMeasurement measurement{0.0f, 0.0};
    for (; i < count; ++i) {
        measurement.peak = std::max(measurement.peak, std::abs(values[i]));
        measurement.sumOfSquares += static_cast<double>(values[i]) * values[i];
    }
    for (int lane = 0; lane < kLanes; ++lane) {
        measurement.peak = std::max(measurement.peak, peaks[lane]);
        measurement.sumOfSquares += squares[lane];
    }
    return measurement;
}

// destination[i × 2] = first[i], destination[i × 2 + 1] = second[i]
inline void interleavePair(const float* first, const float* second, float* destination, int64_t count) {
    for (int64_t i = 0; i < count; ++i) {
        destination[2 * i] = first[i];
        destination[2 * i + 1] = second[i];
    }
}

}  // namespace velto::vec
