#include "platform/pulse/PulseAudioInputEngine.hpp"

#include "platform/pulse/PulseObjectIDs.hpp"
#include "platform/pulse/PulseSnapshotDetail.hpp"
#include "veltoaudio/Error.hpp"

#include <algorithm>

namespace velto::pulse {

using namespace platform;

std::shared_ptr<PulseAudioInputEngine> PulseAudioInputEngine::create(std::shared_ptr<PulseConnection> connection,
                                                                     std::shared_ptr<PulseStreamHandover> handover) {
    return std::make_shared<PulseAudioInputEngine>(std::move(connection), std::move(handover));
}

PulseAudioInputEngine::PulseAudioInputEngine(std::shared_ptr<PulseConnection> connection,
                                             std::shared_ptr<PulseStreamHandover> handover)
    : connection_(std::move(connection)), handover_(std::move(handover)) {}

PulseAudioInputEngine::~PulseAudioInputEngine() { stop(); }

std::string PulseAudioInputEngine::currentSourceName() const {
    MutexLock lock(controlMutex_);
    return sourceName_;
}

std::uint64_t PulseAudioInputEngine::droppedFrames() const {
    MutexLock lock(controlMutex_);
    return stream_ ? stream_->droppedFrames() : 0;
}

PcmFormat PulseAudioInputEngine::sourceFormat(const PulseServerSnapshot& server) const {
    std::string name = currentSourceName();
    if (name.empty()) name = server.server.defaultSourceName;
    const PulseSourceInfo* source = server.source(name);
    return source != nullptr ? PcmFormat{source->sampleRateHertz, source->channels, false} : PcmFormat{};
}

PcmFormat PulseAudioInputEngine::inputFormat(std::uint32_t) {
    auto server = connection_->snapshot();
    return server ? sourceFormat(*server.value) : PcmFormat{};
}

PcmFormat PulseAudioInputEngine::inputFormat(std::uint32_t, const AudioSystemSnapshot& system) {
    const PulseServerSnapshot* server = PulseSnapshotDetail::in(system);
    return server != nullptr ? sourceFormat(*server) : PcmFormat{};
}

PcmFormat PulseAudioInputEngine::outputFormat(std::uint32_t bus) {
    {
        std::lock_guard lock(tapMutex_);
        if (tapFormat_) return *tapFormat_;
    }
    return inputFormat(bus);
}

OSStatus PulseAudioInputEngine::setCurrentDevice(AudioObjectID deviceID) {
    const auto index = objectIndex(deviceID, PulseObjectKind::source);
    if (!index) return kAudioHardwareBadObjectError;
    auto server = connection_->snapshot();
    if (!server) return server.error == PA_ERR_NOENTITY ? kAudioHardwareBadDeviceError : kAudioHardwareNotRunningError;
    for (const auto& source : server.value->sources) {
        if (source.index == *index) {
            MutexLock lock(controlMutex_);
            sourceName_ = source.name;
            return noErr;
        }
    }
    return kAudioHardwareBadObjectError;
}

OSStatus PulseAudioInputEngine::setCurrentDevice(AudioObjectID deviceID, const AudioSystemSnapshot& system) {
    if (!objectIndex(deviceID, PulseObjectKind::source)) return kAudioHardwareBadObjectError;
    if (system.readStatus != noErr) return system.readStatus;
    // A source's UID is its name, which is what a record stream connects to.
    auto name = system.uidOf(deviceID);
    if (!name) return kAudioHardwareBadObjectError;
    MutexLock lock(controlMutex_);
    sourceName_ = std::move(*name);
    return noErr;
}

void PulseAudioInputEngine::installTap(std::uint32_t, std::uint32_t bufferSizeFrames, const PcmFormat& format,
                                       AudioInputTapBlock block) {
    std::lock_guard lock(tapMutex_);
    tap_ = std::make_shared<AudioInputTapBlock>(std::move(block));
    tapFrames_ = bufferSizeFrames > 0 ? bufferSizeFrames : kDefaultTapFrames;
    // The tap always receives the platform's standard layout: one array per channel.
    tapFormat_ = PcmFormat{format.sampleRate, format.channelCount, false};
}

void PulseAudioInputEngine::removeTap(std::uint32_t) {
    std::lock_guard lock(tapMutex_);
    tap_.reset();
    tapFormat_.reset();
}

void PulseAudioInputEngine::start() {
    if (running_) return;
    PcmFormat format;
    std::uint32_t blockFrames = kDefaultTapFrames;
    {
        std::lock_guard lock(tapMutex_);
        if (tapFormat_) format = *tapFormat_;
        blockFrames = tapFrames_;
    }
    if (format.channelCount == 0) {
        // No tap: record in the source's own format, so that start() still reports a missing device.
        format = inputFormat(0);
    }
    if (format.channelCount == 0 || !(format.sampleRate > 0.0)) {
        throw PlatformError("PulseAudio", PA_ERR_NOENTITY, "No input device is available");
    }
    auto buffer = PcmBuffer::make(PcmFormat{format.sampleRate, format.channelCount, false}, blockFrames);
    if (!buffer) throw PlatformError("PulseAudio", PA_ERR_INVALID, "Cannot allocate the input buffer");

    MutexLock control(controlMutex_);
    if (running_) return;
    deliveryBuffer_ = buffer;

    PulseCaptureStreamOptions options;
    options.sourceName = sourceName_;
    options.sampleRateHertz = format.sampleRate;
    options.channels = format.channelCount;
    options.blockFrames = blockFrames;
    options.streamName = "VeltoAudio microphone";
    const PulseCaptureStream::Delivery delivery = [this](const float* interleaved, std::uint32_t frames,
                                                         double lastFrameAgeSeconds) {
        PcmBuffer& block = *deliveryBuffer_;
        const std::uint32_t channels = block.channelCount();
        const auto destinations = block.floatChannelData();
        for (std::uint32_t c = 0; c < channels; ++c) {
            float* destination = destinations[c];
            for (std::uint32_t f = 0; f < frames; ++f) destination[f] = interleaved[f * channels + c];
        }
        block.setFrameLength(frames);
        std::lock_guard lock(tapMutex_);
        if (tap_) (*tap_)(block, lastFrameAgeSeconds);
    };
    if (handover_) stream_ = handover_->adopt(options, delivery);
    if (!stream_) stream_ = PulseCaptureStream::open(connection_, options, delivery);
    running_ = true;
}

void PulseAudioInputEngine::flushCapturedInput() {
    // The control lock keeps the stream from closing meanwhile; the tap blocks that the
    // catch-up runs take only the tap lock.
    MutexLock lock(controlMutex_);
    if (stream_) stream_->deliverCapturedSoFar();
}

void PulseAudioInputEngine::stop() {
    std::unique_ptr<PulseCaptureStream> stream;
    {
        MutexLock lock(controlMutex_);
        stream = std::move(stream_);
        running_ = false;
    }
    // A stream parked in the handover has let go of this engine's delivery.
    releaseStream(handover_, std::move(stream));
}

void PulseAudioInputEngine::reset() {
    // The stream is negotiated anew at every start; the chosen source stays.
    stop();
}

}  // namespace velto::pulse
