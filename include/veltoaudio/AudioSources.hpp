#pragma once

#include <optional>

#include "veltoaudio/Export.hpp"

namespace velto {

// What system audio to capture: every process's output.
enum class CaptureTarget { systemWide };

// Which sources a recording takes. No equality, like the value it mirrors.
class AudioSources {
public:
    enum class Kind { microphoneOnly, systemAudioOnly, both };

    static AudioSources microphoneOnly() { return AudioSources(Kind::microphoneOnly, std::nullopt); }
    static AudioSources systemAudioOnly(CaptureTarget target = CaptureTarget::systemWide) {
        return AudioSources(Kind::systemAudioOnly, target);
    }
    static AudioSources both(CaptureTarget systemAudioTarget = CaptureTarget::systemWide) {
        return AudioSources(Kind::both, systemAudioTarget);
    }

    Kind kind() const { return kind_; }
    bool includeMicrophone() const { return kind_ != Kind::systemAudioOnly; }
    bool includeSystemAudio() const { return kind_ != Kind::microphoneOnly; }
    std::optional<CaptureTarget> systemAudioTarget() const { return target_; }

private:
    AudioSources(Kind kind, std::optional<CaptureTarget> target) : kind_(kind), target_(target) {}
    Kind kind_;
    std::optional<CaptureTarget> target_;
};

VELTO_EXPORT const char* caseName(AudioSources::Kind kind);

}  // namespace velto
