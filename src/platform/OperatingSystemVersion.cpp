#include "platform/OperatingSystemVersion.hpp"

namespace velto {

// Fixed: every Linux host has the system-audio capture the 14.4 level stands for, so the
// service never chooses its microphone-only recorder here (see makeRecorderAndTakeEvents).
OperatingSystemVersion currentOperatingSystemVersion() { return OperatingSystemVersion{14, 4, 0}; }

}  // namespace velto
