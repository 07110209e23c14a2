#include "signal/AudioFile.hpp"

#include <fcntl.h>
#include <sndfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <string>
#include <system_error>
#include <variant>

#include "logging/LoggerCompat.hpp"
#include "veltoaudio/Error.hpp"
#include "logging/NumberFormat.hpp"
#include "signal/ChannelMapping.hpp"

namespace velto {

struct AudioFile::Private {};

namespace {

constexpr const char* kSndfileDomain = "libsndfile";
constexpr const char* kAudioFileDomain = "io.veltoaudio.AudioFile";
constexpr const char* kPosixDomain = "POSIX";
// What a full disk still leaves the file: a FLAC encoder's last frame is at most about
// 12 KiB, and a few hundred milliseconds of stopping are at most 64 KiB of float WAV per
// second. Renewed once half of it is written, so at least half is left when the disk says no.
constexpr std::int64_t kReserveBytes = 128 * 1024;
// Unsynced audio is lost when the machine (not just the process) goes down;
// a second of it is the most a crash may cost.
constexpr double kSyncIntervalSeconds = 1.0;

LoggerCompat& logger() {
    static LoggerCompat instance{kLogSubsystem, "AudioFile"};
    return instance;
}

template <class T>
std::optional<T> setting(const AudioSettings& settings, const char* key) {
    const auto found = settings.find(key);
    if (found == settings.end()) return std::nullopt;
    if (const auto* value = std::get_if<T>(&found->second)) return *value;
    return std::nullopt;
}

PlatformError sndfileError(int code, const std::string& text) { return PlatformError(kSndfileDomain, code, text); }

PlatformError diskFullError(const std::filesystem::path& path) {
    return PlatformError(kAudioFileDomain, 3, "The disk holding " + path.filename().string() + " is full");
}

// -1 when the size cannot be read.
std::int64_t fileEndBytes(int fileDescriptor) {
    struct stat status {};
    return ::fstat(fileDescriptor, &status) == 0 ? static_cast<std::int64_t>(status.st_size) : -1;
}

PlatformError unsupportedSettings() {
    return sndfileError(SF_ERR_UNRECOGNISED_FORMAT, sf_error_number(SF_ERR_UNRECOGNISED_FORMAT));
}

int sndfileFormat(const AudioSettings& settings) {
    const auto formatId = setting<uint32_t>(settings, AVFormatIDKey);
    const auto bitDepth = setting<int64_t>(settings, AVLinearPCMBitDepthKey).value_or(16);
    const bool isFloat = setting<bool>(settings, AVLinearPCMIsFloatKey).value_or(false);
    if (formatId == kAudioFormatFLAC) {
        // FLAC stores integers of at most 24 bits: float input keeps the most
        // resolution as 24-bit samples.
        const int subtype = bitDepth == 8 ? SF_FORMAT_PCM_S8 : bitDepth == 16 ? SF_FORMAT_PCM_16 : SF_FORMAT_PCM_24;
        return SF_FORMAT_FLAC | subtype;
    }
    if (formatId == kAudioFormatLinearPCM) {
        if (isFloat) {
            if (bitDepth == 32) return SF_FORMAT_WAV | SF_FORMAT_FLOAT;
            if (bitDepth == 64) return SF_FORMAT_WAV | SF_FORMAT_DOUBLE;
            throw unsupportedSettings();
        }
        switch (bitDepth) {
            case 8: return SF_FORMAT_WAV | SF_FORMAT_PCM_U8;
            case 16: return SF_FORMAT_WAV | SF_FORMAT_PCM_16;
            case 24: return SF_FORMAT_WAV | SF_FORMAT_PCM_24;
            case 32: return SF_FORMAT_WAV | SF_FORMAT_PCM_32;
            default: throw unsupportedSettings();
        }
    }
    throw unsupportedSettings();
}

}  // namespace

std::shared_ptr<AudioFile> AudioFile::openForWriting(const std::filesystem::path& path, const AudioSettings& settings,
                                                     bool interleaved, std::shared_ptr<Clock> clock,
                                                     DiskSpaceReserve::Allocator reserveSpace) {
    const auto sampleRate = setting<int64_t>(settings, AVSampleRateKey);
    const auto channels = setting<int64_t>(settings, AVNumberOfChannelsKey);
    if (!sampleRate || !channels || *sampleRate < 1 || *channels < 1 || *sampleRate > INT32_MAX ||
        *channels > 256) {
        throw unsupportedSettings();
    }
    SF_INFO info{};
    info.samplerate = static_cast<int>(*sampleRate);
    info.channels = static_cast<int>(*channels);
    info.format = sndfileFormat(settings);
    if (!sf_format_check(&info)) throw unsupportedSettings();

    // The descriptor is ours rather than libsndfile's: the disk space reserve needs it,
    // and it outlives libsndfile's close to give that reserve back.
    const int fileDescriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fileDescriptor < 0) {
        const int error = errno;
        throw PlatformError(kPosixDomain, error, std::generic_category().message(error));
    }
    const auto abandon = [&](SNDFILE* opened) {
        if (opened) sf_close(opened);
        ::close(fileDescriptor);
        std::error_code ignored;
        std::filesystem::remove(path, ignored);  // nothing was recorded into it
    };
    SNDFILE* file = sf_open_fd(fileDescriptor, SFM_WRITE, &info, SF_FALSE);
    if (!file) {
        const int code = sf_error(nullptr);
        const std::string text = sf_strerror(nullptr);
        abandon(nullptr);
        throw sndfileError(code, text);
    }
    DiskSpaceReserve reserve(fileDescriptor, kReserveBytes,
                             reserveSpace ? std::move(reserveSpace) : DiskSpaceReserve::keepingFileSize());
    // A disk without room for the reserve could not hold the end of a recording either.
    if (reserve.renew(fileEndBytes(fileDescriptor)) == DiskSpaceReserve::Renewal::diskFull) {
        abandon(file);
        throw diskFullError(path);
    }
    // The header carries the data length: keeping it current after every
    // write is what makes a file of a crashed recording readable.
    sf_command(file, SFC_SET_UPDATE_HEADER_AUTO, nullptr, SF_TRUE);
    // Float samples outside ±1 would wrap around in integer formats.
    sf_command(file, SFC_SET_CLIPPING, nullptr, SF_TRUE);

    const auto fileFormat = *PcmFormat::make(static_cast<double>(*sampleRate), static_cast<uint32_t>(*channels), true);
    const auto processingFormat =
        *PcmFormat::make(static_cast<double>(*sampleRate), static_cast<uint32_t>(*channels), interleaved);
    if (!clock) clock = Clock::system();
    logger().debug("Opened audio file for writing: " + path.string() + ", " + fileFormat.description());
    return std::make_shared<AudioFile>(Private{}, path, file, fileDescriptor, std::move(reserve), fileFormat,
                                       processingFormat, std::move(clock));
}

AudioFile::AudioFile(const Private&, std::filesystem::path path, sf_private_tag* file, int fileDescriptor,
                     DiskSpaceReserve reserve, PcmFormat fileFormat, PcmFormat processingFormat,
                     std::shared_ptr<Clock> clock)
    : path_(std::move(path)),
      fileFormat_(fileFormat),
      processingFormat_(processingFormat),
      clock_(std::move(clock)),
      // Checked often enough that less than an eighth of the reserve is written between
      // two checks, however many channels (at most four bytes a sample on disk).
      reserveCheckFrames_(std::max<int64_t>(1, kReserveBytes / 8 / (4 * static_cast<int64_t>(fileFormat.channelCount)))),
      file_(file),
      fileDescriptor_(fileDescriptor),
      reserve_(std::move(reserve)),
      lastSyncSeconds_(clock_->nowSeconds()) {}

AudioFile::~AudioFile() {
    MutexLock guard(lock_);
    closeLocked();
}

void AudioFile::write(const PcmBuffer& buffer) {
    MutexLock guard(lock_);
    if (!file_) {
        throw PlatformError(kAudioFileDomain, 1, "The audio file " + path_.filename().string() + " is already closed.");
    }
    if (buffer.format().sampleRate != fileFormat_.sampleRate) {
        throw PlatformError(kAudioFileDomain, 2,
                            "A buffer at " + formatDouble(buffer.format().sampleRate) +
                                " Hz cannot be written to a file at " + formatDouble(fileFormat_.sampleRate) + " Hz.");
    }
    const uint32_t frames = buffer.frameLength();
    if (frames == 0 || buffer.channelCount() == 0) return;

    const size_t samples = static_cast<size_t>(frames) * fileFormat_.channelCount;
    if (interleavedFrames_.size() < samples) interleavedFrames_.resize(samples);
    copyAsInterleaved(buffer, frames, fileFormat_.channelCount, interleavedFrames_.data());

    const sf_count_t written = sf_writef_float(file_, interleavedFrames_.data(), frames);
    if (written > 0) framesWritten_ += written;
    if (written != static_cast<sf_count_t>(frames)) {
        int code = sf_error(file_);
        std::string text = sf_strerror(file_);
        if (code == SF_ERR_NO_ERROR) {
            code = SF_ERR_SYSTEM;
            text = "Only " + std::to_string(written) + " of " + std::to_string(frames) + " frames were written.";
        }
        throw sndfileError(code, text);
    }
    renewReserveIfDue();

    const double now = clock_->nowSeconds();
    if (now - lastSyncSeconds_ >= kSyncIntervalSeconds) {
        lastSyncSeconds_ = now;
        sf_write_sync(file_);
    }
}

void AudioFile::renewReserveIfDue() {
    if (framesWritten_ - framesAtLastReserveCheck_ < reserveCheckFrames_) return;
    framesAtLastReserveCheck_ = framesWritten_;
    if (reserve_.renew(fileEndBytes(fileDescriptor_)) != DiskSpaceReserve::Renewal::diskFull || diskFullReported_) {
        return;
    }
    // The block just written is in the file. Saying so once is enough for the owner to
    // stop; the writes it makes while stopping go into what is left of the reserve.
    diskFullReported_ = true;
    throw diskFullError(path_);
}

void AudioFile::close() {
    MutexLock guard(lock_);
    closeLocked();
}

void AudioFile::closeLocked() {
    if (!file_) return;
    SNDFILE* file = file_;
    file_ = nullptr;
    sf_write_sync(file);
    const int result = sf_close(file);
    reserve_.release(fileEndBytes(fileDescriptor_));
    ::close(fileDescriptor_);
    if (result != 0) {
        logger().critical("Failed to close audio file " + path_.string() + ": " + sf_error_number(result));
    } else {
        logger().debug("Closed audio file: " + path_.string() + ", " + std::to_string(framesWritten_) + " frames");
    }
}

int64_t AudioFile::framesWritten() const {
    MutexLock guard(lock_);
    return framesWritten_;
}

}  // namespace velto
