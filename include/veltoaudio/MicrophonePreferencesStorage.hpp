#pragma once

#include <optional>
#include <string>

#include "veltoaudio/Export.hpp"

namespace velto {

// Where the preferred microphone's device id is kept between runs. A host application
// may supply its own; the library's default keeps it in the user's preferences.
//
// Threads: the recording service calls it from its serialised context; an implementation
// shared with other code must be safe for that itself.
class VELTO_EXPORT MicrophonePreferencesStorage {
public:
    virtual ~MicrophonePreferencesStorage() = default;

    // The stored device id; absent when none is stored. Never throws.
    virtual std::optional<std::string> getSelectedMicrophoneId() = 0;
    // Stores `id`, or clears the stored id when it is absent. Never throws.
    virtual void setSelectedMicrophoneId(std::optional<std::string> id) = 0;
};

}  // namespace velto
