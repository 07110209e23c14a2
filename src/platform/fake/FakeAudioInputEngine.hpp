#pragma once
// Scriptable stand-in for an audio-engine input: formats, the audio unit, the device
// status and start failures are set beforehand; calls are recorded in order; tapped
// buffers are delivered from the test with deliver(). Like an audio unit, it answers the
// lookups of an operation from its script, not from the operation's snapshot.
//
// Threads: all methods are thread-safe. deliver() runs the tap block on the calling
// thread (a test plays the engine's delivery thread by calling it from a thread of its own);
// like the real engine, removeTap() waits for a running block to return.

#include "platform/AudioInputEngine.hpp"

#include <mutex>
#include <thread>
#include <optional>
#include <string>
#include <vector>

namespace velto::platform {

struct FakeAudioInputEngineScript {
    PcmFormat inputFormat{48000.0, 1, false};
    std::optional<PcmFormat> outputFormat;  // defaults to the input format
    bool hasAudioUnit = true;
    OSStatus setCurrentDeviceStatus = noErr;
    std::optional<std::string> startFailure;  // the PlatformError text start() throws
};

class FakeAudioInputEngine final : public AudioInputEngine {
public:
    using Script = FakeAudioInputEngineScript;

    static std::shared_ptr<FakeAudioInputEngine> create(Script script = {}) {
        return std::make_shared<FakeAudioInputEngine>(std::move(script));
    }
    explicit FakeAudioInputEngine(Script script) : script_(std::move(script)) {}

    void setScript(Script script);
    std::vector<std::string> calls() const;
    std::optional<AudioObjectID> currentDevice() const;
    bool hasTap() const;
    std::uint32_t tapBufferSizeFrames() const;

    // Runs the tap block with `buffer`; false when no tap is installed.
    bool deliver(const PcmBuffer& buffer);
    // Delivers `buffers` in order on a delivery thread of the engine's own (waiting for a
    // tap when none is installed yet stops the run); joinDelivery() waits for the end.
    void deliverOnDeliveryThread(std::vector<std::shared_ptr<PcmBuffer>> buffers);
    void joinDelivery();
    // A buffer the engine has captured but not yet tapped: the next flushCapturedInput()
    // delivers it.
    void holdBack(std::shared_ptr<PcmBuffer> buffer);
    ~FakeAudioInputEngine() override;
    FakeAudioInputEngine(const FakeAudioInputEngine&) = delete;
    FakeAudioInputEngine& operator=(const FakeAudioInputEngine&) = delete;

    using AudioInputEngine::inputFormat;
    using AudioInputEngine::setCurrentDevice;
    PcmFormat inputFormat(std::uint32_t bus) override;
    PcmFormat outputFormat(std::uint32_t bus) override;
    bool hasAudioUnit() override;
    OSStatus setCurrentDevice(AudioObjectID deviceID) override;
    void installTap(std::uint32_t bus, std::uint32_t bufferSizeFrames, const PcmFormat& format,
                    AudioInputTapBlock block) override;
    void removeTap(std::uint32_t bus) override;
    void start() override;
    void stop() override;
    void flushCapturedInput() override;
    void reset() override;
    bool isRunning() override;

private:
    mutable std::mutex mutex_;
    std::mutex deliveryMutex_;  // held while the tap block runs, so removeTap() can wait for it
    Script script_;
    std::vector<std::string> calls_;
    std::optional<AudioObjectID> currentDevice_;
    std::shared_ptr<AudioInputTapBlock> tap_;
    std::uint32_t tapBufferSizeFrames_ = 0;
    bool running_ = false;
    std::thread deliveryThread_;  // owner thread only
    std::vector<std::shared_ptr<PcmBuffer>> heldBack_;
};

// Hands out FakeAudioInputEngines made from one script and remembers them.
class FakeAudioEngineFactory final : public AudioEngineFactory {
public:
    static std::shared_ptr<FakeAudioEngineFactory> create(FakeAudioInputEngine::Script script = {}) {
        return std::make_shared<FakeAudioEngineFactory>(std::move(script));
    }
    explicit FakeAudioEngineFactory(FakeAudioInputEngine::Script script) : script_(std::move(script)) {}

    std::shared_ptr<AudioInputEngine> makeEngine() override;
    std::vector<std::shared_ptr<FakeAudioInputEngine>> engines() const;
    std::shared_ptr<FakeAudioInputEngine> lastEngine() const;

private:
    mutable std::mutex mutex_;
    FakeAudioInputEngine::Script script_;
    std::vector<std::shared_ptr<FakeAudioInputEngine>> engines_;
};

}  // namespace velto::platform
