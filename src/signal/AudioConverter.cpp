#include "signal/AudioConverter.hpp"

#include <soxr.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "logging/LoggerCompat.hpp"
#include "logging/NumberFormat.hpp"
#include "signal/ChannelMapping.hpp"
#include "signal/FrameScaling.hpp"

namespace velto {

struct AudioConverter::Private {};

namespace {

constexpr const char* kSoxrDomain = "libsoxr";
constexpr const char* kConverterDomain = "io.veltoaudio.AudioConverter";

LoggerCompat& logger() {
    static LoggerCompat instance{kLogSubsystem, "AudioConverter"};
    return instance;
}

soxr_t createResampler(double inputRate, double outputRate, uint32_t channels) {
    soxr_error_t error = nullptr;
    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
    const soxr_quality_spec_t quality = soxr_quality_spec(SOXR_VHQ, 0);
    // One thread: the converter runs on its caller's queue and must not
    // compete with the capture threads for the machine's cores.
    const soxr_runtime_spec_t runtime = soxr_runtime_spec(1);
    soxr_t resampler = soxr_create(inputRate, outputRate, channels, &error, &io, &quality, &runtime);
    if (error) {
        soxr_delete(resampler);
        return nullptr;
    }
    return resampler;
}

[[noreturn]] void failConversion(ErrorPtr underlying) {
    logger().critical("Audio conversion failed: " + underlying->errorDescription());
    throw AudioConverterError::conversionFailed(std::move(underlying));
}

}  // namespace

std::shared_ptr<AudioConverter> AudioConverter::create(const PcmFormat& input, const PcmFormat& output) {
    const bool validFormats = PcmFormat::make(input.sampleRate, input.channelCount, input.interleaved) &&
                              PcmFormat::make(output.sampleRate, output.channelCount, output.interleaved);
    const bool mappableChannels =
        input.channelCount == output.channelCount || input.channelCount == 1 || output.channelCount == 1;
    if (!validFormats || !mappableChannels) throw AudioConverterError::failedToCreateConverter();

    const uint32_t workChannels = std::min(input.channelCount, output.channelCount);
    soxr_t resampler = nullptr;
    if (input.sampleRate != output.sampleRate) {
        resampler = createResampler(input.sampleRate, output.sampleRate, workChannels);
        if (!resampler) throw AudioConverterError::failedToCreateConverter();
    }
    auto converter = std::make_shared<AudioConverter>(Private{}, input, output, workChannels, resampler);
    logger().info("Created high-quality audio converter: " + formatDouble(input.sampleRate) + " Hz -> " +
                  formatDouble(output.sampleRate) + " Hz");
    return converter;
}

AudioConverter::AudioConverter(const Private&, const PcmFormat& input, const PcmFormat& output,
                               uint32_t workChannels, soxr* resampler)
    : inputFormat_(input), outputFormat_(output), workChannels_(workChannels), resampler_(resampler) {
    if (resampler_) reservePending(8192);
}

AudioConverter::~AudioConverter() {
    if (resampler_) soxr_delete(resampler_);
}

std::shared_ptr<PcmBuffer> AudioConverter::convert(const PcmBuffer& input) {
    const uint32_t frames = input.frameLength();
    const double inputRate = input.format().sampleRate;
    const double outputRate = outputFormat_.sampleRate;
    if (!(inputRate > 0) || !std::isfinite(inputRate)) throw AudioConverterError::failedToCreateBuffer();
    if (inputRate != inputFormat_.sampleRate) {
        // The resampler's ratio is fixed at creation; converting at another
        // rate would silently play the audio at the wrong speed.
        failConversion(std::make_shared<PlatformError>(
            kConverterDomain, 1,
            "The input is at " + formatDouble(inputRate) + " Hz but the converter was made for " +
                formatDouble(inputFormat_.sampleRate) + " Hz."));
    }

    if (flushed_) {
        failConversion(std::make_shared<PlatformError>(kConverterDomain, 2,
                                                       "The converter was flushed and takes no more input."));
    }

    // Capacity: what the stream is due in total minus what it already got.
    // For a first call this is floor(n × r_out ÷ r_in); carrying the total
    // keeps the fractions of every call instead of losing them.
    int64_t capacity = frames;
    if (resampler_) {
        capacity = scaleFramesDown(inputFramesTotal_ + frames, outputRate, inputRate) - outputFramesDelivered_;
    }
    if (capacity < 0 || capacity > std::numeric_limits<uint32_t>::max()) {
        throw AudioConverterError::failedToCreateBuffer();
    }
    auto output = PcmBuffer::make(outputFormat_, static_cast<uint32_t>(capacity));
    if (!output) throw AudioConverterError::failedToCreateBuffer();

    mapIntoWork(input, frames);
    if (!resampler_) {
        deliver(work_.data(), frames, *output);
        inputFramesTotal_ += frames;
        outputFramesDelivered_ += frames;
        return output;
    }

    resampleWork(frames);
    inputFramesTotal_ += frames;
    const auto deliverable = static_cast<uint32_t>(std::min<int64_t>(static_cast<int64_t>(pendingFrames_), capacity));
    deliver(pending_.data(), deliverable, *output);
    const size_t remaining = pendingFrames_ - deliverable;
    std::memmove(pending_.data(), pending_.data() + static_cast<size_t>(deliverable) * workChannels_,
                 remaining * workChannels_ * sizeof(float));
    pendingFrames_ = remaining;
    outputFramesDelivered_ += deliverable;
    return output;
}

std::shared_ptr<PcmBuffer> AudioConverter::flush() {
    const int64_t due = resampler_ ? scaleFramesDown(inputFramesTotal_, outputFormat_.sampleRate,
                                                     inputFormat_.sampleRate) - outputFramesDelivered_
                                   : 0;
    if (resampler_ && !flushed_) {
        // Null input tells libsoxr the input has ended: it then runs its filter
        // over the last input and hands everything out.
        for (;;) {
            reservePending(4096);
            const size_t room = pending_.size() / workChannels_ - pendingFrames_;
            size_t outputDone = 0;
            const soxr_error_t error = soxr_process(resampler_, nullptr, 0, nullptr,
                                                    pending_.data() + pendingFrames_ * workChannels_, room, &outputDone);
            if (error) failConversion(std::make_shared<PlatformError>(kSoxrDomain, 1, error));
            pendingFrames_ += outputDone;
            // It hands the tail out a processing block at a time: done when a call gives nothing.
            if (outputDone == 0) break;
        }
    }
    flushed_ = true;
    const int64_t frames = std::clamp<int64_t>(std::min<int64_t>(static_cast<int64_t>(pendingFrames_), due), 0,
                                               std::numeric_limits<uint32_t>::max());
    auto output = PcmBuffer::make(outputFormat_, static_cast<uint32_t>(std::max<int64_t>(frames, 1)));
    if (!output) throw AudioConverterError::failedToCreateBuffer();
    deliver(pending_.data(), static_cast<uint32_t>(frames), *output);
    // Anything beyond what is due is the filter's ringing past the end of the input.
    pendingFrames_ = 0;
    outputFramesDelivered_ += frames;
    return output;
}

void AudioConverter::mapIntoWork(const PcmBuffer& input, uint32_t frames) {
    const size_t samples = static_cast<size_t>(frames) * workChannels_;
    if (work_.size() < samples) work_.resize(samples);
    copyAsInterleaved(input, frames, workChannels_, work_.data());
}

void AudioConverter::reservePending(size_t freeFrames) {
    const size_t needed = (pendingFrames_ + freeFrames) * workChannels_;
    if (pending_.size() < needed) pending_.resize(std::max(needed, pending_.size() * 2));
}

void AudioConverter::resampleWork(uint32_t frames) {
    const double ratio = outputFormat_.sampleRate / inputFormat_.sampleRate;
    size_t consumed = 0;
    bool outputWasFull = false;
    // Take every input frame, and keep going while the resampler fills the
    // room it is given: what it produces beyond this call's capacity waits in
    // pending_ for the next call.
    while (consumed < frames || outputWasFull) {
        const size_t remaining = frames - consumed;
        reservePending(std::max<size_t>(4096, static_cast<size_t>(std::ceil(static_cast<double>(remaining) * ratio)) + 1024));
        const size_t room = pending_.size() / workChannels_ - pendingFrames_;
        size_t inputDone = 0;
        size_t outputDone = 0;
        const soxr_error_t error =
            soxr_process(resampler_, work_.data() + consumed * workChannels_, remaining, &inputDone,
                         pending_.data() + pendingFrames_ * workChannels_, room, &outputDone);
        if (error) failConversion(std::make_shared<PlatformError>(kSoxrDomain, 1, error));
        consumed += inputDone;
        pendingFrames_ += outputDone;
        outputWasFull = outputDone == room;
        if (inputDone == 0 && outputDone == 0) break;
    }
}

void AudioConverter::deliver(const float* work, uint32_t frames, PcmBuffer& output) const {
    const uint32_t outputChannels = output.channelCount();
    const auto channelData = output.floatChannelData();
    output.setFrameLength(frames);
    if (outputChannels == workChannels_ && (outputFormat_.interleaved || outputChannels == 1)) {
        std::memcpy(channelData[0], work, static_cast<size_t>(frames) * outputChannels * sizeof(float));
        return;
    }
    for (uint32_t frame = 0; frame < frames; ++frame) {
        const float* in = work + static_cast<size_t>(frame) * workChannels_;
        for (uint32_t channel = 0; channel < outputChannels; ++channel) {
            const float value = in[workChannels_ == 1 ? 0 : channel % workChannels_];
            if (outputFormat_.interleaved) {
                channelData[0][static_cast<size_t>(frame) * outputChannels + channel] = value;
            } else {
                channelData[channel][frame] = value;
            }
        }
    }
}

int64_t AudioConverter::maximumHeldBackFrames() const {
    if (maximumHeldBackFrames_) return *maximumHeldBackFrames_;
    if (!resampler_) {
        maximumHeldBackFrames_ = 0;
        return 0;
    }
    // The hold-back depends only on frame counts, never on the samples, so a
    // private resampler fed silence in 1 ms steps for two seconds (many of
    // its processing blocks, start-up included) finds it; one step of output
    // is added for what happens between the steps.
    const double ratio = outputFormat_.sampleRate / inputFormat_.sampleRate;
    soxr_t probe = createResampler(inputFormat_.sampleRate, outputFormat_.sampleRate, workChannels_);
    const auto stepFrames = static_cast<size_t>(std::max(1.0, std::round(inputFormat_.sampleRate / 1000.0)));
    const auto totalSteps = static_cast<size_t>(2 * 1000);
    std::vector<float> silence(stepFrames * workChannels_, 0.0f);
    std::vector<float> sink(static_cast<size_t>(std::ceil(static_cast<double>(stepFrames) * ratio) + 65536) *
                            workChannels_);
    int64_t inputTotal = 0;
    int64_t outputTotal = 0;
    int64_t worstBehind = 0;
    for (size_t step = 0; probe && step < totalSteps; ++step) {
        size_t inputDone = 0;
        size_t outputDone = 0;
        size_t offered = stepFrames;
        while (offered > 0) {
            if (soxr_process(probe, silence.data(), offered, &inputDone, sink.data(), sink.size() / workChannels_,
                             &outputDone)) {
                offered = 0;
                break;
            }
            offered -= inputDone;
            inputTotal += static_cast<int64_t>(inputDone);
            outputTotal += static_cast<int64_t>(outputDone);
            if (inputDone == 0 && outputDone == 0) break;
        }
        const int64_t due = scaleFramesDown(inputTotal, outputFormat_.sampleRate, inputFormat_.sampleRate);
        worstBehind = std::max(worstBehind, due - outputTotal);
    }
    if (probe) soxr_delete(probe);
    maximumHeldBackFrames_ = worstBehind + static_cast<int64_t>(std::ceil(static_cast<double>(stepFrames) * ratio)) + 1;
    return *maximumHeldBackFrames_;
}

}  // namespace velto
