#pragma once
// An audio-engine input on a PulseAudio source: the default source, or the one chosen
// with setCurrentDevice(). It records 32-bit float in the source's own rate and channel
// count and hands the tap non-interleaved blocks of the requested frame count on the
// PulseAudio main-loop thread. The lookups given an operation's snapshot read it; the
// others ask the server.
//
// Threads: control methods from the owner, one at a time. The tap block runs on the
// main-loop thread; removeTap() and stop() wait for a running block to return, so they
// must not be called from inside the block.

#include "dispatch/ThreadAnnotations.hpp"
#include "platform/AudioInputEngine.hpp"
#include "platform/pulse/PulseCaptureStream.hpp"
#include "platform/pulse/PulseConnection.hpp"
#include "platform/pulse/PulseStreamHandover.hpp"

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace velto::pulse {

class PulseAudioInputEngine final : public platform::AudioInputEngine {
public:
    static constexpr std::uint32_t kDefaultTapFrames = 1024;

    // With a handover, a stream stopped just after a configuration change is kept for the
    // next start on the same source (see PulseStreamHandover).
    static std::shared_ptr<PulseAudioInputEngine> create(std::shared_ptr<PulseConnection> connection,
                                                         std::shared_ptr<PulseStreamHandover> handover = nullptr);
    PulseAudioInputEngine(std::shared_ptr<PulseConnection> connection, std::shared_ptr<PulseStreamHandover> handover);
    ~PulseAudioInputEngine() override;
    PulseAudioInputEngine(const PulseAudioInputEngine&) = delete;
    PulseAudioInputEngine& operator=(const PulseAudioInputEngine&) = delete;

    PcmFormat inputFormat(std::uint32_t bus) override;
    PcmFormat inputFormat(std::uint32_t bus, const platform::AudioSystemSnapshot& system) override;
    PcmFormat outputFormat(std::uint32_t bus) override;
    bool hasAudioUnit() override { return true; }
    platform::OSStatus setCurrentDevice(platform::AudioObjectID deviceID) override;
    platform::OSStatus setCurrentDevice(platform::AudioObjectID deviceID,
                                        const platform::AudioSystemSnapshot& system) override;
    void installTap(std::uint32_t bus, std::uint32_t bufferSizeFrames, const PcmFormat& format,
                    platform::AudioInputTapBlock block) override;
    void removeTap(std::uint32_t bus) override;
    void start() override;
    void stop() override;
    void flushCapturedInput() override;
    void reset() override;
    bool isRunning() override { return running_.load(); }

    // The source recorded from; empty = the server's default.
    std::string currentSourceName() const;
    std::uint64_t droppedFrames() const;

private:
    // The current source's format as `server` tells it; none (0 channels) when it has no such source.
    PcmFormat sourceFormat(const PulseServerSnapshot& server) const;

    std::shared_ptr<PulseConnection> connection_;
    std::shared_ptr<PulseStreamHandover> handover_;  // may be null
    mutable Mutex controlMutex_;
    std::string sourceName_ VELTO_GUARDED_BY(controlMutex_);
    std::unique_ptr<PulseCaptureStream> stream_;
    std::atomic<bool> running_{false};

    std::mutex tapMutex_;  // held while the tap block runs
    std::shared_ptr<platform::AudioInputTapBlock> tap_;
    std::uint32_t tapFrames_ = kDefaultTapFrames;
    std::optional<PcmFormat> tapFormat_;
    std::shared_ptr<PcmBuffer> deliveryBuffer_;  // main-loop thread only while running
};

class PulseAudioEngineFactory final : public platform::AudioEngineFactory {
public:
    explicit PulseAudioEngineFactory(std::shared_ptr<PulseConnection> connection,
                                     std::shared_ptr<PulseStreamHandover> handover = nullptr)
        : connection_(std::move(connection)), handover_(std::move(handover)) {}
    std::shared_ptr<platform::AudioInputEngine> makeEngine() override {
        return PulseAudioInputEngine::create(connection_, handover_);
    }

private:
    // The current source's format as `server` tells it; none (0 channels) when it has no such source.
    PcmFormat sourceFormat(const PulseServerSnapshot& server) const;

    std::shared_ptr<PulseConnection> connection_;
    std::shared_ptr<PulseStreamHandover> handover_;
};

}  // namespace velto::pulse
