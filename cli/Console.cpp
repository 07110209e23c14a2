#include "Console.hpp"

namespace velto::cli {

namespace {
// Carriage return, then "erase to end of line": every terminal the meter can appear on
// understands it, and it leaves no trail of a longer previous line.
constexpr std::string_view kEraseLine = "\r\033[K";
}  // namespace

Console::Console(std::ostream& out, std::ostream& err, bool meterEnabled)
    : out_(out), err_(err), meterEnabled_(meterEnabled) {}

void Console::clearMeterLocked() {
    if (!meterShown_) return;
    err_ << kEraseLine << std::flush;
    meterShown_ = false;
}

void Console::printResult(std::string_view line) {
    std::lock_guard lock(mutex_);
    clearMeterLocked();
    out_ << line << '\n' << std::flush;
}

void Console::printMessage(std::string_view line) {
    std::lock_guard lock(mutex_);
    clearMeterLocked();
    err_ << line << '\n' << std::flush;
}

void Console::showMeter(std::string_view line) {
    if (!meterEnabled_) return;
    std::lock_guard lock(mutex_);
    err_ << kEraseLine << line << std::flush;
    meterShown_ = true;
}

void Console::clearMeter() {
    std::lock_guard lock(mutex_);
    clearMeterLocked();
}

}  // namespace velto::cli
