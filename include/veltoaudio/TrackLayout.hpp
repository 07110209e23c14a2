#pragma once

namespace velto {

// How a recording of both sources lays them out in its file.
enum class TrackLayout {
    mixed,     // one mono track: both sources mixed (the default)
    separate,  // two channels: 1 the microphone, 2 the system audio, each at its own level
};

const char* caseName(TrackLayout layout);

}  // namespace velto
