#include "logging/NumberFormat.hpp"

#include <charconv>
#include <cmath>

namespace velto {

namespace {
template <class T>
std::string shortest(T value) {
    if (std::isnan(value)) return "nan";
    if (std::isinf(value)) return value > 0 ? "inf" : "-inf";
    char text[64];
    auto [end, ec] = std::to_chars(text, text + sizeof text, value);
    std::string result(text, ec == std::errc() ? end : text);
    // An integral value gets its fractional part; exponent forms are complete already.
    if (result.find_first_of(".e") == std::string::npos) result += ".0";
    return result;
}
}  // namespace

std::string formatDouble(double value) { return shortest(value); }
std::string formatFloat(float value) { return shortest(value); }

}  // namespace velto
