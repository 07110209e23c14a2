#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <vector>

#include "dispatch/Clock.hpp"
#include "veltoaudio/AudioFormat.hpp"
#include "veltoaudio/Error.hpp"
#include "veltoaudio/PcmBuffer.hpp"

struct sf_private_tag;

namespace velto {

// An audio file open for writing (WAV or FLAC through libsndfile), the
// stand-in for the platform's file writer.
//
// The file stays readable if the process dies mid-recording: a WAV header is
// rewritten after every block, and written audio is pushed to the disk at
// least once a second (never per block: a sync costs milliseconds).
//
// Threads: one writer at a time; every operation takes an internal lock, so
// that a restart can hand the open file from one mixer to the next.
class AudioFile {
public:
    // Opens `path` with the settings of makeAudioSettings(): linear PCM becomes
    // WAV (32-bit float for a float 32-bit setting), FLAC holds 24-bit integer
    // samples (FLAC cannot store floats). Throws PlatformError with libsndfile's
    // own text on failure. `clock` paces the periodic sync to disk.
    static std::shared_ptr<AudioFile> openForWriting(const std::filesystem::path& path, const AudioSettings& settings,
                                                     bool interleaved = true,
                                                     std::shared_ptr<Clock> clock = Clock::system());

    ~AudioFile();
    AudioFile(const AudioFile&) = delete;
    AudioFile& operator=(const AudioFile&) = delete;

    // The on-disk format (rate, channels).
    const PcmFormat& fileFormat() const { return fileFormat_; }
    // What write() accepts: float32 at the file's rate and channel count.
    const PcmFormat& processingFormat() const { return processingFormat_; }

    // Appends the buffer's frames. A buffer with another channel count is
    // brought to the file's (averaged to mono, a mono buffer copied to every
    // channel). Throws PlatformError on any failure (disk full, I/O error, a
    // closed file, a buffer at another sample rate); frames written before the
    // failure stay readable.
    void write(const PcmBuffer& buffer);

    // Finishes the file (final header, FLAC stream info). Idempotent; the
    // destructor closes too. A failure to finish is logged.
    void close();

    const std::filesystem::path& path() const { return path_; }
    int64_t framesWritten() const;

    struct Private;
    AudioFile(const Private&, std::filesystem::path path, sf_private_tag* file, PcmFormat fileFormat,
              PcmFormat processingFormat, std::shared_ptr<Clock> clock);

private:
    void closeLocked();

    const std::filesystem::path path_;
    const PcmFormat fileFormat_;
    const PcmFormat processingFormat_;
    const std::shared_ptr<Clock> clock_;

    mutable std::mutex lock_;
    sf_private_tag* file_;                 // guarded by lock_; null once closed
    int64_t framesWritten_ = 0;            // guarded by lock_
    double lastSyncSeconds_;               // guarded by lock_
    std::vector<float> interleavedFrames_;  // guarded by lock_; grows to the largest block once
};

}  // namespace velto
