#include "platform/fake/FakeAudioInputEngine.hpp"

#include "veltoaudio/Error.hpp"

namespace velto::platform {

void FakeAudioInputEngine::setScript(Script script) {
    std::lock_guard lock(mutex_);
    script_ = std::move(script);
}

std::vector<std::string> FakeAudioInputEngine::calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
}

std::optional<AudioObjectID> FakeAudioInputEngine::currentDevice() const {
    std::lock_guard lock(mutex_);
    return currentDevice_;
}

bool FakeAudioInputEngine::hasTap() const {
    std::lock_guard lock(mutex_);
    return tap_ != nullptr;
}

std::uint32_t FakeAudioInputEngine::tapBufferSizeFrames() const {
    std::lock_guard lock(mutex_);
    return tapBufferSizeFrames_;
}

bool FakeAudioInputEngine::deliver(const PcmBuffer& buffer) {
    std::lock_guard delivering(deliveryMutex_);
    std::shared_ptr<AudioInputTapBlock> tap;
    {
        std::lock_guard lock(mutex_);
        tap = tap_;
    }
    if (!tap) return false;
    (*tap)(buffer, 0.0);
    return true;
}

void FakeAudioInputEngine::holdBack(std::shared_ptr<PcmBuffer> buffer) {
    std::lock_guard lock(mutex_);
    heldBack_.push_back(std::move(buffer));
}

void FakeAudioInputEngine::flushCapturedInput() {
    std::vector<std::shared_ptr<PcmBuffer>> held;
    {
        std::lock_guard lock(mutex_);
        calls_.push_back("flushCapturedInput");
        held.swap(heldBack_);
    }
    for (const auto& buffer : held) deliver(*buffer);
}

void FakeAudioInputEngine::deliverOnDeliveryThread(std::vector<std::shared_ptr<PcmBuffer>> buffers) {
    joinDelivery();
    deliveryThread_ = std::thread([this, buffers = std::move(buffers)] {
        for (const auto& buffer : buffers) {
            if (!deliver(*buffer)) return;
        }
    });
}

void FakeAudioInputEngine::joinDelivery() {
    if (deliveryThread_.joinable()) deliveryThread_.join();
}

FakeAudioInputEngine::~FakeAudioInputEngine() { joinDelivery(); }

PcmFormat FakeAudioInputEngine::inputFormat(std::uint32_t) {
    std::lock_guard lock(mutex_);
    return script_.inputFormat;
}

PcmFormat FakeAudioInputEngine::outputFormat(std::uint32_t) {
    std::lock_guard lock(mutex_);
    return script_.outputFormat.value_or(script_.inputFormat);
}

bool FakeAudioInputEngine::hasAudioUnit() {
    std::lock_guard lock(mutex_);
    return script_.hasAudioUnit;
}

OSStatus FakeAudioInputEngine::setCurrentDevice(AudioObjectID deviceID) {
    std::lock_guard lock(mutex_);
    calls_.push_back("setCurrentDevice(" + std::to_string(deviceID) + ")");
    if (script_.setCurrentDeviceStatus == noErr) currentDevice_ = deviceID;
    return script_.setCurrentDeviceStatus;
}

void FakeAudioInputEngine::installTap(std::uint32_t bus, std::uint32_t bufferSizeFrames, const PcmFormat&,
                                      AudioInputTapBlock block) {
    std::lock_guard lock(mutex_);
    calls_.push_back("installTap(" + std::to_string(bus) + "," + std::to_string(bufferSizeFrames) + ")");
    tap_ = std::make_shared<AudioInputTapBlock>(std::move(block));
    tapBufferSizeFrames_ = bufferSizeFrames;
}

void FakeAudioInputEngine::removeTap(std::uint32_t bus) {
    std::lock_guard delivering(deliveryMutex_);
    std::lock_guard lock(mutex_);
    calls_.push_back("removeTap(" + std::to_string(bus) + ")");
    tap_.reset();
}

void FakeAudioInputEngine::start() {
    std::lock_guard lock(mutex_);
    calls_.push_back("start");
    if (script_.startFailure) throw PlatformError("FakeAudioInputEngine", -1, *script_.startFailure);
    running_ = true;
}

void FakeAudioInputEngine::stop() {
    std::lock_guard lock(mutex_);
    calls_.push_back("stop");
    running_ = false;
}

void FakeAudioInputEngine::reset() {
    std::lock_guard lock(mutex_);
    calls_.push_back("reset");
}

bool FakeAudioInputEngine::isRunning() {
    std::lock_guard lock(mutex_);
    return running_;
}

std::shared_ptr<AudioInputEngine> FakeAudioEngineFactory::makeEngine() {
    std::lock_guard lock(mutex_);
    auto engine = FakeAudioInputEngine::create(script_);
    engines_.push_back(engine);
    return engine;
}

std::vector<std::shared_ptr<FakeAudioInputEngine>> FakeAudioEngineFactory::engines() const {
    std::lock_guard lock(mutex_);
    return engines_;
}

std::shared_ptr<FakeAudioInputEngine> FakeAudioEngineFactory::lastEngine() const {
    std::lock_guard lock(mutex_);
    return engines_.empty() ? nullptr : engines_.back();
}

}  // namespace velto::platform
