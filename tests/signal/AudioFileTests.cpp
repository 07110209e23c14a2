#include <gtest/gtest.h>
#include <sndfile.h>

#include <cerrno>
#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include "MixerTestRig.hpp"
#include "SignalQuality.hpp"
#include "support/RecorderTestSupport.hpp"
#include "signal/AudioFile.hpp"

namespace velto {
namespace {

namespace fs = std::filesystem;

using testing::readRecording;

float expectedSine(int64_t frame) { return testing::sineSample(1000, 16000, frame); }

std::shared_ptr<PcmBuffer> sineBlock(int64_t firstFrame, uint32_t frames) {
    auto buffer = PcmBuffer::make(*PcmFormat::make(16000, 1, true), frames);
    for (uint32_t i = 0; i < frames; ++i) buffer->floatChannelData()[0][i] = expectedSine(firstFrame + i);
    buffer->setFrameLength(frames);
    return buffer;
}

int64_t writeSine(AudioFile& file, int64_t totalFrames, uint32_t blockFrames = 341) {
    int64_t written = 0;
    while (written < totalFrames) {
        const auto frames = static_cast<uint32_t>(std::min<int64_t>(blockFrames, totalFrames - written));
        file.write(*sineBlock(written, frames));
        written += frames;
    }
    return written;
}

// WAV keeps the float samples exactly; FLAC holds 24-bit integers, so within
// their quantisation step.
TEST(AudioFileTest, RoundTripsKeepLengthAndLevel) {
    testing::TemporaryDirectory directory;
    struct Case { AudioFormat format; int sndfileFormat; float tolerance; };
    for (const auto& c : {Case{AudioFormat::wav, SF_FORMAT_WAV | SF_FORMAT_FLOAT, 0.0f},
                          Case{AudioFormat::flac, SF_FORMAT_FLAC | SF_FORMAT_PCM_24, 2.0f / (1 << 23)}}) {
        SCOPED_TRACE(caseName(c.format));
        const auto path = directory.path() / (std::string("take.") + fileExtension(c.format));
        {
            auto file = AudioFile::openForWriting(path, makeAudioSettings(c.format));
            EXPECT_EQ(file->processingFormat(), *PcmFormat::make(16000, 1, true));
            writeSine(*file, 32000);
            EXPECT_EQ(file->framesWritten(), 32000);
            file->close();
            file->close();  // idempotent; the destructor closes again harmlessly
        }
        const auto decoded = readRecording(path);
        EXPECT_EQ(decoded.format, c.sndfileFormat);
        EXPECT_EQ(decoded.sampleRate, 16000.0);
        ASSERT_EQ(decoded.headerFrames, 32000);
        ASSERT_EQ(decoded.samples.size(), 32000u);
        float worst = 0;
        for (size_t i = 0; i < decoded.samples.size(); ++i) {
            worst = std::max(worst, std::abs(decoded.samples[i] - expectedSine(static_cast<int64_t>(i))));
        }
        EXPECT_LE(worst, c.tolerance);
    }
}

// A file copied while the writer still has it open is what a crash leaves
// behind: it must decode, up to what was written (FLAC may still hold back
// the one block its encoder is filling).
TEST(AudioFileTest, UnfinishedFilesDecode) {
    testing::TemporaryDirectory directory;
    for (const auto format : {AudioFormat::wav, AudioFormat::flac}) {
        SCOPED_TRACE(caseName(format));
        const auto path = directory.path() / (std::string("live.") + fileExtension(format));
        const auto copy = directory.path() / (std::string("crashed.") + fileExtension(format));
        auto file = AudioFile::openForWriting(path, makeAudioSettings(format));
        writeSine(*file, 40000);
        fs::copy_file(path, copy, fs::copy_options::overwrite_existing);

        const auto decoded = readRecording(copy);
        const auto decodedFrames = static_cast<int64_t>(decoded.samples.size());
        if (format == AudioFormat::wav) {
            EXPECT_EQ(decoded.headerFrames, 40000);
            EXPECT_EQ(decodedFrames, 40000);
        } else {
            EXPECT_GE(decodedFrames, 40000 - 4608);
            EXPECT_LE(decodedFrames, 40000);
            for (int64_t i = 0; i < decodedFrames; i += 113) {
                ASSERT_NEAR(decoded.samples[static_cast<size_t>(i)], expectedSine(i), 1e-6) << "frame " << i;
            }
        }
        file->close();
    }
}

// The file system's reservation is stood in for: a real full disk is what the
// disk-full drill fills.
TEST(AudioFileTest, AFullDiskIsReportedOnceWhileTheReserveStillTakesTheEnd) {
    testing::TemporaryDirectory directory;
    for (const auto format : {AudioFormat::wav, AudioFormat::flac}) {
        SCOPED_TRACE(caseName(format));
        const auto path = directory.path() / (std::string("full.") + fileExtension(format));
        bool diskFull = false;
        std::vector<int64_t> reservedFrom;
        auto file = AudioFile::openForWriting(path, makeAudioSettings(format), true, Clock::system(),
                                              [&](int, int64_t offsetBytes, int64_t) {
                                                  reservedFrom.push_back(offsetBytes);
                                                  return diskFull ? ENOSPC : 0;
                                              });
        ASSERT_EQ(reservedFrom.size(), 1u) << "no reserve at the start";
        writeSine(*file, 16000 * 8);
        EXPECT_GE(reservedFrom.size(), 3u) << "the reserve was not renewed";

        diskFull = true;
        std::string failure;
        int64_t written = file->framesWritten();
        for (int block = 0; block < 2000 && failure.empty(); ++block) {
            try {
                file->write(*sineBlock(written, 341));
            } catch (const PlatformError& error) {
                failure = error.errorDescription();
            }
            written += 341;
        }
        EXPECT_EQ(failure, "The disk holding " + path.filename().string() + " is full");
        // The block that met the full disk was written, and so are those of the stop.
        for (int block = 0; block < 20; ++block, written += 341) EXPECT_NO_THROW(file->write(*sineBlock(written, 341)));
        EXPECT_EQ(file->framesWritten(), written);
        file->close();

        const auto decoded = readRecording(path);
        EXPECT_EQ(decoded.headerFrames, written);
        ASSERT_EQ(static_cast<int64_t>(decoded.samples.size()), written);
        EXPECT_NEAR(decoded.samples[static_cast<size_t>(written - 1)], expectedSine(written - 1), 1e-6);
    }
}

TEST(AudioFileTest, NoFileIsLeftWhenTheDiskCannotHoldTheReserve) {
    testing::TemporaryDirectory directory;
    const auto path = directory.path() / "take.flac";
    try {
        AudioFile::openForWriting(path, makeAudioSettings(AudioFormat::flac), true, Clock::system(),
                                  [](int, int64_t, int64_t) { return ENOSPC; });
        FAIL() << "opened on a full disk";
    } catch (const PlatformError& error) {
        EXPECT_EQ(error.errorDescription(), "The disk holding take.flac is full");
    }
    EXPECT_FALSE(fs::exists(path));

    // A file system that cannot reserve records as it would without a reserve.
    int attempts = 0;
    auto file = AudioFile::openForWriting(path, makeAudioSettings(AudioFormat::flac), true, Clock::system(),
                                          [&](int, int64_t, int64_t) { return ++attempts, EOPNOTSUPP; });
    writeSine(*file, 16000 * 4);
    file->close();
    EXPECT_EQ(attempts, 1);
    EXPECT_EQ(readRecording(path).headerFrames, 16000 * 4);
}

}  // namespace
}  // namespace velto
