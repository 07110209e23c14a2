#pragma once

#include <string>

namespace velto::platform {

// A new random (version 4) UUID in upper-case hyphenated form, e.g. "1B4E28BA-2FA1-41D2-883F-0016D3CCA427".
std::string makeRandomUUIDString();

}  // namespace velto::platform
