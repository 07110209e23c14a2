#include "model/AudioSettings.hpp"
#include "veltoaudio/AudioFormat.hpp"
#include "veltoaudio/AudioSources.hpp"
#include "veltoaudio/PermissionState.hpp"
#include "veltoaudio/RecordingEvent.hpp"
#include "veltoaudio/TrackLayout.hpp"

namespace velto {

std::string fileExtension(AudioFormat format) { return format == AudioFormat::wav ? "wav" : "flac"; }

std::optional<double> targetSampleRate(AudioFormat) { return 16000.0; }

std::optional<PcmFormat> avAudioFormat(AudioFormat) { return PcmFormat::make(16000.0, 1, true); }

AudioSettings makeAudioSettings(AudioFormat format) {
    AudioSettings settings{
        {AVFormatIDKey, format == AudioFormat::wav ? kAudioFormatLinearPCM : kAudioFormatFLAC},
        {AVSampleRateKey, int64_t{16000}},
        {AVNumberOfChannelsKey, int64_t{1}},
        {AVLinearPCMBitDepthKey, int64_t{32}},
        {AVLinearPCMIsFloatKey, true},
    };
    if (format == AudioFormat::wav) {
        settings.emplace(AVLinearPCMIsBigEndianKey, false);
        settings.emplace(AVLinearPCMIsNonInterleaved, true);
    }
    return settings;
}

const char* caseName(TrackLayout layout) { return layout == TrackLayout::separate ? "separate" : "mixed"; }

const char* caseName(AudioFormat format) { return format == AudioFormat::wav ? "wav" : "flac"; }

const char* caseName(AudioSources::Kind kind) {
    switch (kind) {
        case AudioSources::Kind::microphoneOnly: return "microphoneOnly";
        case AudioSources::Kind::systemAudioOnly: return "systemAudioOnly";
        case AudioSources::Kind::both: return "both";
    }
    return "microphoneOnly";
}

const char* caseName(PermissionState state) {
    switch (state) {
        case PermissionState::notRequired: return "notRequired";
        case PermissionState::granted: return "granted";
        case PermissionState::denied: return "denied";
        case PermissionState::notDetermined: return "notDetermined";
    }
    return "notDetermined";
}

const char* caseName(RecordingEvent::Kind kind) {
    switch (kind) {
        case RecordingEvent::Kind::progress: return "progress";
        case RecordingEvent::Kind::paused: return "paused";
        case RecordingEvent::Kind::resumed: return "resumed";
        case RecordingEvent::Kind::finished: return "finished";
        case RecordingEvent::Kind::cancelled: return "cancelled";
        case RecordingEvent::Kind::starting: return "starting";
        case RecordingEvent::Kind::started: return "started";
        case RecordingEvent::Kind::silence: return "silence";
        case RecordingEvent::Kind::signal: return "signal";
    }
    return "starting";
}

const char* caseName(RecordingEvent::Source source) {
    switch (source) {
        case RecordingEvent::Source::microphone: return "microphone";
        case RecordingEvent::Source::systemAudio: return "systemAudio";
    }
    return "microphone";
}

}  // namespace velto
