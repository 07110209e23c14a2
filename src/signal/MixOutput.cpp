#include "signal/MixOutput.hpp"

#include <algorithm>
#include <string>

#include "logging/LoggerCompat.hpp"
#include "logging/NumberFormat.hpp"
#include "signal/AudioMixerError.hpp"

namespace velto {

namespace {

LoggerCompat& logger() {
    static LoggerCompat instance{kLogSubsystem, "AudioMixer"};
    return instance;
}

}  // namespace

void MixOutput::configure(std::shared_ptr<AudioFile> file, const PcmFormat& outputFormat, double mixingSampleRateHertz,
                          uint32_t busChannels, std::optional<int64_t> fileFrameLimit) {
    file_ = std::move(file);
    fileFrameLimit_ = fileFrameLimit;
    limitReached_ = false;
    outputFormat_ = outputFormat;
    busChannels_ = busChannels;
    writeFailureReported_ = false;
    writeFailuresAfterFirst_ = 0;
    converter_.reset();
    busFormat_ = PcmFormat::make(mixingSampleRateHertz, busChannels, true);
    if (!busFormat_) throw AudioMixerError::failedToCreateMixingFormat();
    if (mixingSampleRateHertz != outputFormat.sampleRate) {
        converter_ = AudioConverter::create(*busFormat_, outputFormat);
        logger().info("Created output converter: " + formatDouble(mixingSampleRateHertz) + "Hz -> " +
                      formatDouble(outputFormat.sampleRate) + "Hz");
    } else {
        logger().info("No output conversion needed: " + formatDouble(mixingSampleRateHertz) + "Hz");
    }
}

void MixOutput::release() {
    if (writeFailuresAfterFirst_ > 0) {
        logger().error("Failed to write " + std::to_string(writeFailuresAfterFirst_) +
                       " more mixed blocks to the file after the first failure");
        writeFailuresAfterFirst_ = 0;
    }
    file_.reset();
    outputFormat_.reset();
    converter_.reset();
}

void MixOutput::write(const float* busBlock, int64_t frames) {
    if (frames < 1 || !outputFormat_ || !busFormat_) return;
    const PcmFormat& blockFormat = converter_ ? *busFormat_ : *outputFormat_;
    auto block = PcmBuffer::make(blockFormat, static_cast<uint32_t>(frames));
    if (!block) {
        logger().critical("Failed to create mixed PCM buffer with format: " + blockFormat.description());
        return;
    }
    const auto channelData = block->floatChannelData();
    const uint32_t channels = blockFormat.channelCount;
    // A mono bus feeds every channel of a wider output; otherwise channel for channel.
    for (uint32_t channel = 0; channel < channels; ++channel) {
        const uint32_t busChannel = std::min(channel, busChannels_ - 1);
        for (int64_t i = 0; i < frames; ++i) {
            const float sample = busBlock[static_cast<size_t>(i) * busChannels_ + busChannel];
            if (blockFormat.interleaved) channelData[0][static_cast<size_t>(i) * channels + channel] = sample;
            else channelData[channel][i] = sample;
        }
    }
    block->setFrameLength(static_cast<uint32_t>(frames));

    if (converter_) {
        try {
            block = converter_->convert(*block);
        } catch (...) {
            logger().critical("Output audio conversion failed: " + caseDescriptionOf(std::current_exception()));
            return;
        }
        // The resampler holds back its first milliseconds: nothing to hand on yet.
        if (block->frameLength() == 0) return;
    }
    deliver(std::move(block));
}

void MixOutput::flush() {
    if (!converter_) return;
    std::shared_ptr<PcmBuffer> tail;
    try {
        tail = converter_->flush();
    } catch (...) {
        logger().critical("Output audio conversion failed: " + caseDescriptionOf(std::current_exception()));
        return;
    }
    if (tail->frameLength() > 0) deliver(std::move(tail));
}

void MixOutput::deliver(std::shared_ptr<PcmBuffer> block) {
    if (limitReached_) return;
    bool reachesLimit = false;
    if (file_ && fileFrameLimit_) {
        // The file ends on the very frame asked for: the block that reaches the
        // limit is cut there, for the stream too, so both end alike.
        const int64_t room = *fileFrameLimit_ - file_->framesWritten();
        reachesLimit = room <= static_cast<int64_t>(block->frameLength());
        if (reachesLimit) block->setFrameLength(static_cast<uint32_t>(std::max<int64_t>(0, room)));
    }
    if (block->frameLength() > 0) append(std::move(block));
    if (reachesLimit) reportLimitReached();
}

void MixOutput::append(std::shared_ptr<PcmBuffer> block) {
    if (file_) {
        try {
            file_->write(*block);
            framesWritten_ += block->frameLength();
        } catch (...) {
            // A file that refuses one block mostly refuses every one after it, a hundred
            // a second until the owner ends the run: only the first is logged (and
            // reported), the rest are counted and told at the release.
            if (writeFailureReported_) {
                ++writeFailuresAfterFirst_;
            } else {
                writeFailureReported_ = true;
                const auto error = std::current_exception();
                logger().critical("Failed to write mixed audio to file: " + describeError(error));
                std::function<void(ErrorPtr)> handler;
                {
                    MutexLock guard(streamLock_);
                    handler = writeFailureHandler_;
                }
                if (handler) handler(captureError(error));
            }
        }
    } else {
        framesWritten_ += block->frameLength();
    }
    MutexLock guard(streamLock_);
    if (audioStreamContinuation_) audioStreamContinuation_->yield(block);
}

void MixOutput::reportLimitReached() {
    limitReached_ = true;
    std::function<void()> handler;
    {
        MutexLock guard(streamLock_);
        handler = limitReachedHandler_;
    }
    if (handler) handler();
}

void MixOutput::setLimitReachedHandler(std::function<void()> handler) {
    MutexLock guard(streamLock_);
    limitReachedHandler_ = std::move(handler);
}

AudioBufferStream MixOutput::audioStream() {
    MutexLock guard(streamLock_);
    if (!audioStream_) {
        auto [stream, continuation] = AudioBufferSource::make();
        audioStream_ = std::move(stream);
        audioStreamContinuation_ = std::move(continuation);
    }
    return *audioStream_;
}

void MixOutput::finishStream() {
    MutexLock guard(streamLock_);
    if (audioStreamContinuation_) audioStreamContinuation_->finish();
}

void MixOutput::setWriteFailureHandler(std::function<void(ErrorPtr)> handler) {
    MutexLock guard(streamLock_);
    writeFailureHandler_ = std::move(handler);
}

}  // namespace velto
