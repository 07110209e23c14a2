#pragma once
// Helpers shared by the tests: a private temporary directory, deterministic blocks (ramps
// that expose dropped or duplicated frames), waiting for a condition, draining an event
// stream with a bound on waiting, reading a recording back and a file-size limit.

#include <sndfile.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "veltoaudio/EventStream.hpp"
#include "veltoaudio/PcmBuffer.hpp"
#include "veltoaudio/RecordingError.hpp"
#include "veltoaudio/RecordingEvent.hpp"

namespace velto::testing {

class TemporaryDirectory {
public:
    TemporaryDirectory() {
        std::string pattern = (std::filesystem::temp_directory_path() / "velto-recorder-XXXXXX").string();
        path_ = ::mkdtemp(pattern.data());
    }
    ~TemporaryDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

// A ramp exposes dropped or duplicated frames: rampBlock continues it from `nextIndex`.
inline float rampAt(int64_t index) { return static_cast<float>(index % 1000) / 1000.0f; }
inline std::shared_ptr<PcmBuffer> rampBlock(double rateHertz, uint32_t frames, int64_t& nextIndex) {
    auto buffer = PcmBuffer::make(*PcmFormat::make(rateHertz, 1, false), frames);
    buffer->setFrameLength(frames);
    for (uint32_t i = 0; i < frames; ++i, ++nextIndex) buffer->floatChannelData()[0][i] = rampAt(nextIndex);
    return buffer;
}

// Polls `condition` until it holds or `limit` passes (by default a generous limit that only
// keeps a broken test from hanging: no unit test depends on how long anything takes).
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    for (const auto deadline = std::chrono::steady_clock::now() + limit; std::chrono::steady_clock::now() < deadline;) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return condition();
}

// Frames a live audio stream carries until it ends.
inline int64_t framesUntilEnd(AudioBufferStream& stream) {
    int64_t frames = 0;
    while (stream.waitFor(std::chrono::seconds(5))) {
        auto block = stream.next();
        if (!block) break;
        frames += (*block)->frameLength();
    }
    return frames;
}

struct DrainedEvents {
    std::vector<RecordingEvent> events;
    std::exception_ptr error;   // the stream's error, if it ended with one
    bool ended = false;         // false: gave up waiting
    std::vector<RecordingEvent::Kind> kinds() const {
        std::vector<RecordingEvent::Kind> result;
        for (const auto& e : events) result.push_back(e.kind);
        return result;
    }
    // The kinds with consecutive progress events collapsed into one.
    std::vector<RecordingEvent::Kind> shape() const {
        auto result = kinds();
        result.erase(std::unique(result.begin(), result.end(),
                                 [](auto a, auto b) { return a == b && a == RecordingEvent::Kind::progress; }),
                     result.end());
        return result;
    }
    int count(RecordingEvent::Kind kind) const {
        return static_cast<int>(std::count_if(events.begin(), events.end(), [&](const auto& e) { return e.kind == kind; }));
    }
};

// Reads until the stream ends, waiting at most `timeout` for each element.
inline DrainedEvents drainUntilEnd(EventStream<RecordingEvent>& stream,
                                   std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
    DrainedEvents result;
    while (stream.waitFor(timeout)) {
        try {
            auto event = stream.next();
            if (!event) {
                result.ended = true;
                return result;
            }
            result.events.push_back(*event);
        } catch (...) {
            result.error = std::current_exception();
            result.ended = true;
            return result;
        }
    }
    return result;
}

// Takes whatever is already buffered, without waiting for the end.
inline std::vector<RecordingEvent> takeAvailable(EventStream<RecordingEvent>& stream) {
    std::vector<RecordingEvent> result;
    try {
        while (stream.waitFor(std::chrono::milliseconds(0))) {
            auto event = stream.next();
            if (!event) break;
            result.push_back(*event);
        }
    } catch (...) {
    }
    return result;
}

// The code of a RecordingError; nullopt for anything else (a wrapper included).
inline std::optional<RecordingError::Code> recordingErrorCode(const std::exception_ptr& error) {
    try {
        if (error) std::rethrow_exception(error);
    } catch (const RecordingError& e) {
        return e.code();
    } catch (...) {
    }
    return std::nullopt;
}

struct RecordedFile {
    bool opened = false;
    double sampleRate = 0;
    int channels = 0;
    int format = 0;
    int64_t headerFrames = 0;    // the frames the header claims
    std::vector<float> samples;  // interleaved, read to the real end of the data
};

inline RecordedFile readRecording(const std::filesystem::path& path) {
    RecordedFile result;
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    if (!file) return result;
    result.opened = true;
    result.sampleRate = info.samplerate;
    result.channels = info.channels;
    result.format = info.format;
    result.headerFrames = info.frames;
    std::vector<float> chunk(4096 * static_cast<size_t>(info.channels));
    for (sf_count_t got; (got = sf_readf_float(file, chunk.data(), 4096)) > 0;) {
        result.samples.insert(result.samples.end(), chunk.begin(), chunk.begin() + got * info.channels);
    }
    sf_close(file);
    return result;
}

inline unsigned permissionsOf(const std::filesystem::path& path) {
    struct stat status{};
    if (::stat(path.c_str(), &status) != 0) return 0;
    return status.st_mode & 0777;
}

// While it lives, files this process writes cannot grow beyond `bytes`: writes past it
// fail (EFBIG) the way a full disk fails them.
class ScopedFileSizeLimit {
public:
    explicit ScopedFileSizeLimit(rlim_t bytes) {
        ::getrlimit(RLIMIT_FSIZE, &previous_);
        previousHandler_ = std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit = previous_;
        limit.rlim_cur = bytes;
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~ScopedFileSizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &previous_);
        std::signal(SIGXFSZ, previousHandler_);
    }
    ScopedFileSizeLimit(const ScopedFileSizeLimit&) = delete;
    ScopedFileSizeLimit& operator=(const ScopedFileSizeLimit&) = delete;

private:
    rlimit previous_{};
    void (*previousHandler_)(int) = nullptr;
};

}  // namespace velto::testing
