#pragma once

#include <string>

namespace velto {

// The shortest decimal text that reads back as the same value, always with a
// fractional part: 48000.0, 0.3, 1e-05 stays as is. Used for every
// floating-point value in a log message or description.
std::string formatDouble(double value);
std::string formatFloat(float value);

}  // namespace velto
