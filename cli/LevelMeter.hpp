#pragma once

#include <cstddef>
#include <string>

#include "veltoaudio/AudioLevels.hpp"
#include "veltoaudio/RecordingEvent.hpp"

namespace velto::cli {

// The live line shown on a terminal while recording, e.g.
//   "REC 00:01:05.3 [#########---------|--] avg -23.1 dB  peak -6.0 dB"
// The bar spans kMeterFloorDecibels..0 dB: '#' up to the average, '|' at the peak.
// "CLIP" follows when the peak reaches full scale.
inline constexpr double kMeterFloorDecibels = -60.0;
inline constexpr double kClipDecibels = -0.1;

std::string renderMeterLine(double elapsedSeconds, AudioLevels levels, std::size_t barWidthCharacters = 30);
// A progress event's line: with both sources' own levels, one meter each, e.g.
//   "REC 00:01:05.3 mic [#####----|--] -23.1/-6.0 dB  sys [###------|--] -30.2/-12.0 dB";
// otherwise the recording's single meter.
std::string renderMeterLine(const RecordingEvent& progress);
// The line while paused, e.g. "PAUSED 00:01:05.3  (space or Enter resumes)": the time
// recorded so far, which does not move until the resume.
std::string renderPausedLine(double elapsedSeconds, bool keysResume);
// "HH:MM:SS.t", tenths truncated so the display never runs ahead of the recording.
std::string formatElapsed(double elapsedSeconds);
// How many of `barWidthCharacters` a level fills (0 at or below the floor).
std::size_t barFill(double decibels, std::size_t barWidthCharacters);

}  // namespace velto::cli
