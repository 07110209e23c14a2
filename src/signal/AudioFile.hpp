#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <vector>

#include "dispatch/Clock.hpp"
#include "dispatch/ThreadAnnotations.hpp"
#include "signal/DiskSpaceReserve.hpp"
#include "model/AudioSettings.hpp"
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
// It also stays whole when the disk fills up: the file keeps some space
// reserved past its end (DiskSpaceReserve), and a write that cannot renew that
// reserve reports the full disk while the rest of it still takes what is
// written until the owner stops, and the file's last frame and header.
//
// Threads: one writer at a time; every operation takes an internal lock, so
// that a restart can hand the open file from one mixer to the next.
class AudioFile {
public:
    // Opens `path` with the settings of makeAudioSettings(): linear PCM becomes
    // WAV (32-bit float for a float 32-bit setting), FLAC holds 24-bit integer
    // samples (FLAC cannot store floats). Throws PlatformError with libsndfile's
    // own text on failure (the system's for a file that cannot be created, and
    // "The disk holding … is full" when the disk has no room for the reserve;
    // either way no file is left behind). `clock` paces the periodic sync to
    // disk; `reserveSpace` stands in for the file system's reservation in tests.
    static std::shared_ptr<AudioFile> openForWriting(const std::filesystem::path& path, const AudioSettings& settings,
                                                     bool interleaved = true,
                                                     std::shared_ptr<Clock> clock = Clock::system(),
                                                     DiskSpaceReserve::Allocator reserveSpace = {});

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
    // failure stay readable. The first write after which the disk cannot renew
    // the reserve throws "The disk holding … is full" although its frames were
    // written; later writes go on into the rest of the reserve.
    void write(const PcmBuffer& buffer);

    // Finishes the file (final header, FLAC stream info). Idempotent; the
    // destructor closes too. A failure to finish is logged.
    void close();

    const std::filesystem::path& path() const { return path_; }
    int64_t framesWritten() const;

    struct Private;
    AudioFile(const Private&, std::filesystem::path path, sf_private_tag* file, int fileDescriptor,
              DiskSpaceReserve reserve, PcmFormat fileFormat, PcmFormat processingFormat,
              std::shared_ptr<Clock> clock);

private:
    void closeLocked() VELTO_REQUIRES(lock_);
    void renewReserveIfDue() VELTO_REQUIRES(lock_);

    const std::filesystem::path path_;
    const PcmFormat fileFormat_;
    const PcmFormat processingFormat_;
    const std::shared_ptr<Clock> clock_;
    const int64_t reserveCheckFrames_;

    mutable Mutex lock_;
    sf_private_tag* file_ VELTO_GUARDED_BY(lock_);  // null once closed
    const int fileDescriptor_;                      // the file's; closed with it
    DiskSpaceReserve reserve_ VELTO_GUARDED_BY(lock_);
    int64_t framesAtLastReserveCheck_ VELTO_GUARDED_BY(lock_) = 0;
    bool diskFullReported_ VELTO_GUARDED_BY(lock_) = false;
    int64_t framesWritten_ VELTO_GUARDED_BY(lock_) = 0;
    double lastSyncSeconds_ VELTO_GUARDED_BY(lock_);
    std::vector<float> interleavedFrames_ VELTO_GUARDED_BY(lock_);  // grows to the largest block once
};

}  // namespace velto
