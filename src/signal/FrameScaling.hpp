#pragma once

#include <cmath>
#include <cstdint>
#include <limits>

namespace velto {

// floor(frames × toRateHertz ÷ fromRateHertz) for frames ≥ 0.
//
// Frame bookkeeping across sample rates must be exact: a stream that is cut
// into blocks has to account for the same number of frames as the same stream
// in one piece, or sources drift apart over a long recording. Integral rates
// (every rate a device reports) are therefore scaled with integer arithmetic,
// split so that nothing overflows; other rates fall back to long double.
inline int64_t scaleFramesDown(int64_t frames, double toRateHertz, double fromRateHertz) {
    constexpr double kLargestExactRate = 2147483648.0;  // keeps remainder × rate below 2^62
    const bool integralRates = toRateHertz == std::floor(toRateHertz) && fromRateHertz == std::floor(fromRateHertz) &&
                               toRateHertz > 0 && fromRateHertz > 0 && toRateHertz < kLargestExactRate &&
                               fromRateHertz < kLargestExactRate;
    if (integralRates && frames >= 0) {
        const auto to = static_cast<int64_t>(toRateHertz);
        const auto from = static_cast<int64_t>(fromRateHertz);
        return (frames / from) * to + ((frames % from) * to) / from;
    }
    const long double scaled =
        std::floor(static_cast<long double>(frames) * toRateHertz / static_cast<long double>(fromRateHertz));
    return static_cast<int64_t>(scaled);
}

}  // namespace velto
