#include "platform/OperatingSystemVersion.hpp"

namespace velto {

OperatingSystemVersion currentOperatingSystemVersion() { return OperatingSystemVersion{14, 4, 0}; }

}  // namespace velto
