#include "CommandLineOptions.hpp"

#include <algorithm>
#include <cctype>

namespace velto::cli {

AudioSources toAudioSources(SourceChoice choice) {
    switch (choice) {
        case SourceChoice::microphone: return AudioSources::microphoneOnly();
        case SourceChoice::system: return AudioSources::systemAudioOnly();
        case SourceChoice::both: return AudioSources::both();
    }
    return AudioSources::microphoneOnly();
}

const char* sourceChoiceName(SourceChoice choice) {
    switch (choice) {
        case SourceChoice::microphone: return "microphone";
        case SourceChoice::system: return "system";
        case SourceChoice::both: return "both";
    }
    return "microphone";
}

std::optional<AudioFormat> formatFromExtension(const std::filesystem::path& path) {
    std::string extension = path.extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (extension == ".wav") return AudioFormat::wav;
    if (extension == ".flac") return AudioFormat::flac;
    return std::nullopt;
}

AudioFormat effectiveFormat(const RecordOptions& options) {
    if (options.format) return *options.format;
    if (options.outputPath) {
        if (auto implied = formatFromExtension(*options.outputPath)) return *implied;
    }
    return AudioFormat::flac;
}

}  // namespace velto::cli
