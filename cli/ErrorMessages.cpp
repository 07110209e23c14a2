#include "ErrorMessages.hpp"

#include "veltoaudio/RecordingError.hpp"

namespace velto::cli {

namespace {

constexpr const char* kSoundServerAdvice =
    "Check that a sound server (PulseAudio or PipeWire) is running and reachable.";

constexpr const char* kFileAdvice = "Check that the output folder exists, is writable and has free space.";

// Failures of the file writer and the file system, however deeply wrapped: their
// remedy is the user's disk, not the sound server.
bool isFileError(const Error& error) {
    if (auto* platform = dynamic_cast<const PlatformError*>(&error)) {
        const auto& domain = platform->domain();
        return domain == "libsndfile" || domain == "io.veltoaudio.AudioFile" || domain == "errno" ||
               domain == "POSIX" || domain == "std::filesystem";
    }
    if (auto* captured = dynamic_cast<const CapturedError*>(&error)) {
        try {
            std::rethrow_exception(captured->original());
        } catch (const Error& original) {
            return isFileError(original);
        } catch (...) {
            return false;
        }
    }
    if (auto* recording = dynamic_cast<const RecordingError*>(&error)) {
        return recording->code() == RecordingError::Code::fileSystemError ||
               (recording->underlyingError() && isFileError(*recording->underlyingError()));
    }
    return false;
}

std::string adviceForRecordingError(const RecordingError& error) {
    using Code = RecordingError::Code;
    if (isFileError(error)) return kFileAdvice;
    switch (error.code()) {
        case Code::permissionDenied:
        case Code::systemAudioPermissionRequired:
        case Code::systemAudioPermissionDenied:
            return "Run 'velto permissions --sources both' to see what is missing.";
        case Code::deviceNotFound:
        case Code::sessionConfigurationFailed:
            return "Run 'velto devices' to list the microphones.";
        case Code::separateTracksNeedBothSources:
            return "Record both sources (--sources both), or leave out --tracks separate.";
        case Code::invalidState:
            return "Another recording is still running; wait for it to end.";
        case Code::fileSystemError:
            return kFileAdvice;
        case Code::systemAudioTapCreationFailed:
        case Code::systemAudioDeviceCreationFailed:
        case Code::systemAudioDeviceStartFailed:
        case Code::invalidSystemAudioConfiguration:
        case Code::systemAudioFormatNotSupported:
            return "Check that the sound server has a default output device, or record with --sources microphone.";
        case Code::soundServerUnreachable:
            return "";  // the description already says which server and what to do
        case Code::invalidMaximumDuration: return "Give --duration a number of seconds above zero.";
        case Code::recordingFailed:
        case Code::recorderInitializationFailed:
        case Code::notRecording:
        case Code::unknown:
            return kSoundServerAdvice;
    }
    return kSoundServerAdvice;
}

// One line, ending like a sentence: a platform's text may carry newlines of its own.
std::string sentence(std::string text) {
    for (char& c : text) {
        if (c == '\n' || c == '\r') c = ' ';
    }
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
    if (text.empty()) text = "Unknown error";
    if (text.back() != '.' && text.back() != '!' && text.back() != '?') text += '.';
    return text;
}

}  // namespace

std::string adviceFor(const std::exception_ptr& error) {
    if (!error) return {};
    try {
        std::rethrow_exception(error);
    } catch (const RecordingError& recordingError) {
        return adviceForRecordingError(recordingError);
    } catch (const Error& otherError) {
        return isFileError(otherError) ? kFileAdvice : kSoundServerAdvice;
    } catch (const std::bad_alloc&) {
        return {};
    } catch (...) {
        return kSoundServerAdvice;
    }
}

std::string failureLine(const std::exception_ptr& error) {
    std::string line = "velto: " + sentence(describeError(error));
    if (auto advice = adviceFor(error); !advice.empty()) line += " " + advice;
    return line;
}

std::string failureLine(const std::string& problem) { return "velto: " + sentence(problem); }

}  // namespace velto::cli
