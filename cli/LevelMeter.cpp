#include "LevelMeter.hpp"

#include <cmath>
#include <cstdio>

#include "EventJson.hpp"

namespace velto::cli {

std::string formatElapsed(double elapsedSeconds) {
    if (!std::isfinite(elapsedSeconds) || elapsedSeconds < 0) elapsedSeconds = 0;
    // Tenths as an integer so 59.99 s cannot print as "00:00:60.0".
    auto tenths = static_cast<long long>(std::floor(elapsedSeconds * 10.0 + 1e-9));
    long long hours = tenths / 36000;
    long long minutes = (tenths / 600) % 60;
    long long seconds = (tenths / 10) % 60;
    long long tenth = tenths % 10;
    char text[48];
    std::snprintf(text, sizeof text, "%02lld:%02lld:%02lld.%lld", hours, minutes, seconds, tenth);
    return text;
}

std::size_t barFill(double decibels, std::size_t barWidthCharacters) {
    if (std::isnan(decibels) || decibels <= kMeterFloorDecibels) return 0;
    if (decibels >= 0) return barWidthCharacters;
    double fraction = (decibels - kMeterFloorDecibels) / -kMeterFloorDecibels;
    return static_cast<std::size_t>(std::lround(fraction * static_cast<double>(barWidthCharacters)));
}

namespace {

std::string meterBar(double average, double peak, std::size_t barWidthCharacters) {
    std::string bar(barWidthCharacters, '-');
    std::size_t averageFill = barFill(average, barWidthCharacters);
    for (std::size_t i = 0; i < averageFill; ++i) bar[i] = '#';
    std::size_t peakFill = barFill(peak, barWidthCharacters);
    if (peakFill > 0) bar[peakFill - 1] = '|';
    return bar;
}

std::string sourceMeter(const char* name, AudioLevels levels) {
    constexpr std::size_t kSourceBarWidthCharacters = 14;
    const double average = roundedDecibels(levels.average);
    const double peak = roundedDecibels(levels.peak);
    char levelsText[48];
    std::snprintf(levelsText, sizeof levelsText, " %6.1f/%5.1f dB", average, peak);
    std::string meter = std::string(name) + " [" + meterBar(average, peak, kSourceBarWidthCharacters) + "]" + levelsText;
    if (peak >= kClipDecibels) meter += " CLIP";
    return meter;
}

}  // namespace

std::string renderMeterLine(const RecordingEvent& progress) {
    if (!progress.microphoneLevels || !progress.systemLevels) {
        return renderMeterLine(progress.elapsedSeconds, progress.audioLevels);
    }
    return "REC " + formatElapsed(progress.elapsedSeconds) + " " + sourceMeter("mic", *progress.microphoneLevels) +
           "  " + sourceMeter("sys", *progress.systemLevels);
}

std::string renderMeterLine(double elapsedSeconds, AudioLevels levels, std::size_t barWidthCharacters) {
    double average = roundedDecibels(levels.average);
    double peak = roundedDecibels(levels.peak);
    const std::string bar = meterBar(average, peak, barWidthCharacters);

    char levelsText[64];
    std::snprintf(levelsText, sizeof levelsText, " avg %6.1f dB  peak %6.1f dB", average, peak);
    std::string line = "REC " + formatElapsed(elapsedSeconds) + " [" + bar + "]" + levelsText;
    if (peak >= kClipDecibels) line += "  CLIP";
    return line;
}

std::string renderPausedLine(double elapsedSeconds, bool keysResume) {
    std::string line = "PAUSED " + formatElapsed(elapsedSeconds);
    if (keysResume) line += "  (space or Enter resumes)";
    return line;
}

}  // namespace velto::cli
