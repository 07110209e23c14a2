#include "platform/pulse/PulseStreamHandover.hpp"

#include "logging/LoggerCompat.hpp"

#include <algorithm>
#include <cmath>

namespace velto::pulse {
namespace {

LoggerCompat& logger() {
    static LoggerCompat instance{kLogSubsystem, "PulseStreamHandover"};
    return instance;
}

bool recordsTheSame(const PulseCaptureStreamOptions& a, const PulseCaptureStreamOptions& b) {
    return a.sourceName == b.sourceName && a.sampleRateHertz == b.sampleRateHertz && a.channels == b.channels &&
           a.blockFrames == b.blockFrames;
}

}  // namespace

std::shared_ptr<PulseStreamHandover> PulseStreamHandover::create(std::shared_ptr<PulseConnection> connection,
                                                                 double windowSeconds) {
    return std::make_shared<PulseStreamHandover>(std::move(connection), windowSeconds);
}

PulseStreamHandover::PulseStreamHandover(std::shared_ptr<PulseConnection> connection, double windowSeconds)
    : connection_(std::move(connection)),
      windowSeconds_(windowSeconds),
      expiryQueue_(SerialQueue::create(std::string(kIdentifierPrefix) + ".PulseStreamHandover.expiry",
                                       QualityOfService::utility)) {}

PulseStreamHandover::~PulseStreamHandover() {
    std::vector<Parked> parked;
    {
        MutexLock lock(mutex_);
        parked.swap(parked_);
    }
    for (auto& entry : parked) entry.stream->close();
}

void PulseStreamHandover::openWindow() {
    MutexLock lock(mutex_);
    windowEndsSeconds_ = expiryQueue_->clock()->nowSeconds() + windowSeconds_;
}

void PulseStreamHandover::release(std::unique_ptr<PulseCaptureStream> stream) {
    if (!stream) return;
    const double now = expiryQueue_->clock()->nowSeconds();
    {
        MutexLock lock(mutex_);
        if (now < windowEndsSeconds_ && stream->isAlive()) {
            stream->park();
            parked_.push_back({std::move(stream), now});
            std::weak_ptr<PulseStreamHandover> weak = weak_from_this();
            expiryQueue_->asyncAfter(now + kMaxParkedSeconds, [weak] {
                if (auto self = weak.lock()) self->closeExpired();
            });
            return;
        }
    }
    stream->close();
}

std::unique_ptr<PulseCaptureStream> PulseStreamHandover::adopt(const PulseCaptureStreamOptions& options,
                                                               PulseCaptureStream::Delivery delivery) {
    std::unique_ptr<PulseCaptureStream> candidate;
    double parkedSeconds = 0.0;
    {
        MutexLock lock(mutex_);
        const auto found = std::find_if(parked_.begin(), parked_.end(), [&](const Parked& entry) {
            return recordsTheSame(entry.stream->options(), options);
        });
        if (found == parked_.end()) return nullptr;
        candidate = std::move(found->stream);
        parkedSeconds = found->parkedSeconds;
        parked_.erase(found);
    }
    const double waitedSeconds = expiryQueue_->clock()->nowSeconds() - parkedSeconds;
    bool fits = candidate->isAlive() && waitedSeconds < kMaxParkedSeconds;
    if (fits && options.sourceName.empty()) {
        // "The default source" may name another source now: that is often why the owner
        // restarted.
        const auto server = connection_->serverInfo();
        fits = server && !server.value->defaultSourceName.empty() &&
               server.value->defaultSourceName == candidate->deviceName();
    }
    if (!fits) {
        candidate->close();
        return nullptr;
    }
    candidate->resume(std::move(delivery));
    logger().debug("Took over the capture stream of " +
                   (options.sourceName.empty() ? std::string("the default source") : options.sourceName) +
                   " without a gap, " + std::to_string(std::lround(waitedSeconds * 1000.0)) + " ms after its stop");
    return candidate;
}

std::size_t PulseStreamHandover::parkedCount() const {
    MutexLock lock(mutex_);
    return parked_.size();
}

void PulseStreamHandover::closeExpired() {
    std::vector<Parked> expired;
    {
        MutexLock lock(mutex_);
        const double now = expiryQueue_->clock()->nowSeconds();
        for (auto entry = parked_.begin(); entry != parked_.end();) {
            if (entry->parkedSeconds + kMaxParkedSeconds <= now) {
                expired.push_back(std::move(*entry));
                entry = parked_.erase(entry);
            } else {
                ++entry;
            }
        }
    }
    for (auto& entry : expired) {
        logger().debug("Closed a capture stream that no one took over");
        entry.stream->close();
    }
}

void releaseStream(const std::shared_ptr<PulseStreamHandover>& handover, std::unique_ptr<PulseCaptureStream> stream) {
    if (!stream) return;
    if (handover) {
        handover->release(std::move(stream));
    } else {
        stream->close();
    }
}

}  // namespace velto::pulse
