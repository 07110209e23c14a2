#pragma once

namespace velto {

// A level meter reading, in decibels relative to full scale.
struct AudioLevels {
    float average = -160.0f;
    float peak = -160.0f;

    static constexpr AudioLevels silence() { return AudioLevels{-160.0f, -160.0f}; }
    // Floating-point comparison: a NaN field makes a value unequal to itself.
    friend bool operator==(const AudioLevels&, const AudioLevels&) = default;
};

}  // namespace velto
