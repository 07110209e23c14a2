#include "platform/pulse/PulseCaptureStream.hpp"

#include "logging/LoggerCompat.hpp"
#include "veltoaudio/Error.hpp"

#include <algorithm>
#include <chrono>

namespace velto::pulse {
namespace {

constexpr const char* kErrorDomain = "PulseAudio";
// How long the ring can hold while the consumer is late: generous, so only a stalled
// consumer loses audio.
constexpr double kRingSeconds = 2.0;
// A source that has sent nothing for this long is taken as idle rather than late. Longer
// than any scheduling hiccup of a loaded machine; the mixer only waits that much longer.
constexpr double kIdleAfterSeconds = 0.2;
// Before its first data a source gets no longer than that: the silence it is given then
// costs nothing (a late first delivery is kept whole after it), whereas a longer wait
// leaves the time unfilled when the stream is closed before it ends (a restart right
// after the start), and a recording then comes out short.
constexpr double kFirstAudioGraceSeconds = kIdleAfterSeconds;
// A catch-up waits for the server's timing answer (a round trip) and then for the source
// to post what it holds (up to a fragment); this much on top covers a loaded machine.
constexpr double kCatchUpMarginSeconds = 0.1;

// Lost frames are reported at most this often.
constexpr double kDropReportIntervalSeconds = 1.0;

LoggerCompat& logger() {
    static LoggerCompat instance{kLogSubsystem, "PulseCaptureStream"};
    return instance;
}

double monotonicSeconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::uint32_t ringCapacityFrames(const PulseCaptureStreamOptions& options) {
    const auto seconds = static_cast<std::uint32_t>(options.sampleRateHertz * kRingSeconds);
    return std::max(seconds, options.blockFrames * 4);
}

[[noreturn]] void fail(int error, const std::string& what) {
    throw PlatformError(kErrorDomain, error, what + ": " + pulseErrorText(error));
}

}  // namespace

std::unique_ptr<PulseCaptureStream> PulseCaptureStream::open(std::shared_ptr<PulseConnection> connection,
                                                             const PulseCaptureStreamOptions& options,
                                                             Delivery delivery) {
    auto stream = std::make_unique<PulseCaptureStream>(std::move(connection), options, std::move(delivery));
    stream->connect();
    return stream;
}

PulseCaptureStream::PulseCaptureStream(std::shared_ptr<PulseConnection> connection,
                                       const PulseCaptureStreamOptions& options, Delivery delivery)
    : connection_(std::move(connection)),
      options_(options),
      delivery_(std::move(delivery)),
      ring_(options.channels, ringCapacityFrames(options)),
      block_(static_cast<std::size_t>(options.blockFrames) * options.channels),
      pacer_(options.sampleRateHertz, options.blockFrames, kIdleAfterSeconds, kFirstAudioGraceSeconds) {}

PulseCaptureStream::~PulseCaptureStream() { close(); }

void PulseCaptureStream::connect() {
    if (options_.channels == 0 || options_.channels > PA_CHANNELS_MAX || options_.blockFrames == 0 ||
        !(options_.sampleRateHertz > 0.0) || options_.sampleRateHertz > PA_RATE_MAX) {
        fail(PA_ERR_INVALID, "Invalid capture format");
    }
    if (const int error = connection_->ensureConnected(); error != PA_OK) fail(error, "Cannot reach the sound server");

    pa_sample_spec sampleSpec{};
    sampleSpec.format = PA_SAMPLE_FLOAT32NE;
    sampleSpec.rate = static_cast<std::uint32_t>(options_.sampleRateHertz);
    sampleSpec.channels = static_cast<std::uint8_t>(options_.channels);
    pa_channel_map map{};
    pa_channel_map_init_extend(&map, sampleSpec.channels, PA_CHANNEL_MAP_DEFAULT);

    {
        PulseConnection::MainloopLock lock(*connection_);
        pa_context* context = connection_->context(lock);
        if (context == nullptr) fail(PA_ERR_CONNECTIONTERMINATED, "Cannot reach the sound server");
        stream_ = pa_stream_new(context, options_.streamName.c_str(), &sampleSpec, &map);
        if (stream_ == nullptr) fail(pa_context_errno(context), "Cannot create the record stream");
        // Disabled until the stream is ready (an invalid time keeps it from firing).
        silenceTimer_ = pa_context_rttime_new(context, PA_USEC_INVALID, timerCallback, this);
        // Kept for re-arming the timer: the stream lets go of its context when the server goes away.
        timerContext_ = pa_context_ref(context);
        pa_stream_set_state_callback(stream_, stateCallback, this);
        pa_stream_set_read_callback(stream_, readCallback, this);
        // Fragments of one block. Larger ones would wake this process less often, but the
        // source then runs at that latency too, and the monitor of a sink misses the start
        // of a sound that begins on the idle sink by about that latency (parec shows the
        // same: 21 ms of a tone missing at 21 ms, 170 ms at 170 ms). What a fragment holds
        // back at a stop, deliverCapturedSoFar() fetches.
        pa_buffer_attr attributes{};
        attributes.maxlength = static_cast<std::uint32_t>(-1);
        attributes.fragsize = options_.blockFrames * options_.channels * static_cast<std::uint32_t>(sizeof(float));
        attributes.tlength = attributes.prebuf = attributes.minreq = static_cast<std::uint32_t>(-1);
        const char* source = options_.sourceName.empty() ? nullptr : options_.sourceName.c_str();
        if (pa_stream_connect_record(stream_, source, &attributes, PA_STREAM_ADJUST_LATENCY) < 0) {
            const int error = pa_context_errno(context);
            pa_stream_set_state_callback(stream_, nullptr, nullptr);
            pa_stream_set_read_callback(stream_, nullptr, nullptr);
            pa_stream_unref(stream_);
            stream_ = nullptr;
            fail(error, "Cannot connect the record stream");
        }
    }
    {
        MutexUniqueLock lock(stateMutex_);
        stateChanged_.wait_for(lock, std::chrono::milliseconds(static_cast<int>(connection_->timeoutSeconds() * 1000)), [this] {
            const int state = streamState_.load();
            return state == PA_STREAM_READY || state == PA_STREAM_FAILED || state == PA_STREAM_TERMINATED;
        });
    }
    int error = PA_OK;
    {
        PulseConnection::MainloopLock lock(*connection_);
        const pa_stream_state_t state = pa_stream_get_state(stream_);
        if (state != PA_STREAM_READY) {
            pa_context* context = connection_->context(lock);
            error = state == PA_STREAM_FAILED && context != nullptr ? pa_context_errno(context) : PA_ERR_TIMEOUT;
            if (error == PA_OK) error = PA_ERR_UNKNOWN;
        }
    }
    if (error != PA_OK) {
        close();
        fail(error, "Cannot record from " + (options_.sourceName.empty() ? std::string("the default source")
                                                                        : "source " + options_.sourceName));
    }
    alive_ = true;
}

void PulseCaptureStream::close() {
    PulseConnection::MainloopLock lock(*connection_);
    if (silenceTimer_ != nullptr) {
        pa_mainloop_api* api = pa_threaded_mainloop_get_api(connection_->mainloop());
        api->time_free(silenceTimer_);
        silenceTimer_ = nullptr;
    }
    if (timerContext_ != nullptr) {
        pa_context_unref(timerContext_);
        timerContext_ = nullptr;
    }
    if (stream_ != nullptr) {
        pa_stream_set_read_callback(stream_, nullptr, nullptr);
        pa_stream_set_state_callback(stream_, nullptr, nullptr);
        pa_stream_disconnect(stream_);
        pa_stream_unref(stream_);
        stream_ = nullptr;
    }
    alive_ = false;
}

void PulseCaptureStream::park() {
    PulseConnection::MainloopLock lock(*connection_);
    parked_ = true;
    delivery_ = nullptr;  // what it holds (its owner's objects) may go now
}

void PulseCaptureStream::resume(Delivery delivery) {
    PulseConnection::MainloopLock lock(*connection_);
    delivery_ = std::move(delivery);
    parked_ = false;
    // The timer hands on what waits, from the main loop as always, and gives silence for
    // an idle source's time in between: the stream goes on as if it had never stopped.
    if (silenceTimer_ != nullptr && timerContext_ != nullptr) armTimerAt(monotonicSeconds());
}

std::string PulseCaptureStream::deviceName() const {
    PulseConnection::MainloopLock lock(*connection_);
    const char* name = stream_ != nullptr ? pa_stream_get_device_name(stream_) : nullptr;
    return name != nullptr ? std::string(name) : std::string();
}

bool PulseCaptureStream::deliverCapturedSoFar() {
    const double begunSeconds = monotonicSeconds();
    {
        PulseConnection::MainloopLock lock(*connection_);
        if (stream_ == nullptr || pa_stream_get_state(stream_) != PA_STREAM_READY) return false;
        {
            MutexLock state(stateMutex_);
            caughtUp_ = false;
        }
        catchingUp_ = true;
        catchUpTargetBytes_ = -1;
        catchUpOperation_ = pa_stream_update_timing_info(stream_, timingCallback, this);
        if (catchUpOperation_ == nullptr) {
            catchingUp_ = false;
            return false;
        }
    }
    bool arrived = false;
    {
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::duration<double>(blockSeconds() + kCatchUpMarginSeconds);
        MutexUniqueLock lock(stateMutex_);
        while (!caughtUp_ && alive_) {
            if (stateChanged_.wait_until(lock, deadline) == std::cv_status::timeout) break;
        }
        arrived = caughtUp_;
    }
    PulseConnection::MainloopLock lock(*connection_);
    catchingUp_ = false;
    if (catchUpOperation_ != nullptr) {
        pa_operation_cancel(catchUpOperation_);  // its callback must not outlive this call
        pa_operation_unref(catchUpOperation_);
        catchUpOperation_ = nullptr;
    }
    // With the main-loop lock held no callback runs: the rest of a block goes out too,
    // shorter, since nothing after it may come before the owner stops.
    if (parked_) return arrived;
    if (const std::uint32_t tailFrames = ring_.readAvailable(block_.data(), options_.blockFrames); tailFrames > 0) {
        delivery_(block_.data(), tailFrames, 0.0);
        deliveredBlocks_.fetch_add(1, std::memory_order_relaxed);
    }
    const int waitedMilliseconds = static_cast<int>((monotonicSeconds() - begunSeconds) * 1000.0);
    if (arrived) {
        logger().debug("Caught up with " + sourceLabel() + " in " + std::to_string(waitedMilliseconds) + " ms");
    } else {
        logger().error("Capture from " + sourceLabel() + " did not catch up within " +
                       std::to_string(waitedMilliseconds) + " ms");
    }
    return arrived;
}

void PulseCaptureStream::timingCallback(pa_stream* stream, int success, void* userdata) {
    auto* self = static_cast<PulseCaptureStream*>(userdata);
    if (!self->catchingUp_) return;
    const pa_timing_info* timing = success ? pa_stream_get_timing_info(stream) : nullptr;
    if (timing == nullptr || timing->write_index_corrupt) {
        // Without the server's count there is nothing to wait for beyond what was read.
        self->finishCatchUp();
        return;
    }
    // What the server has taken from the source, plus what the source itself still holds.
    const auto heldBySourceBytes = pa_usec_to_bytes(timing->source_usec, pa_stream_get_sample_spec(stream));
    self->catchUpTargetBytes_ = timing->write_index + static_cast<std::int64_t>(heldBySourceBytes);
    self->checkCatchUp();
}

void PulseCaptureStream::checkCatchUp() {
    if (catchUpTargetBytes_ >= 0 && bytesRead_ >= catchUpTargetBytes_) finishCatchUp();
}

void PulseCaptureStream::finishCatchUp() {
    catchingUp_ = false;
    {
        MutexLock lock(stateMutex_);
        caughtUp_ = true;
    }
    stateChanged_.notify_all();
}

void PulseCaptureStream::stateCallback(pa_stream* stream, void* userdata) {
    auto* self = static_cast<PulseCaptureStream*>(userdata);
    const pa_stream_state_t state = pa_stream_get_state(stream);
    {
        MutexLock lock(self->stateMutex_);
        self->streamState_ = state;
    }
    if (state == PA_STREAM_READY) {
        // The stream's time starts now: silence due before the first audio counts from here.
        const double readySeconds = monotonicSeconds();
        self->pacer_.start(readySeconds);
        self->armTimer(readySeconds);
    }
    if (state == PA_STREAM_FAILED || state == PA_STREAM_TERMINATED) self->alive_ = false;
    self->stateChanged_.notify_all();
}

void PulseCaptureStream::readCallback(pa_stream* stream, std::size_t, void* userdata) {
    auto* self = static_cast<PulseCaptureStream*>(userdata);
    const std::size_t frameBytes = static_cast<std::size_t>(self->options_.channels) * sizeof(float);
    const void* data = nullptr;
    std::size_t bytes = 0;
    while (pa_stream_readable_size(stream) > 0) {
        if (pa_stream_peek(stream, &data, &bytes) < 0) return;
        if (bytes == 0) break;  // nothing buffered after all
        self->bytesRead_ += static_cast<std::int64_t>(bytes);
        // data is null for a hole in the stream: nothing was recorded there.
        if (data != nullptr) {
            const auto frames = static_cast<std::uint32_t>(bytes / frameBytes);
            if (frames > 0) self->lastDataSeconds_ = monotonicSeconds();
            const std::uint32_t stored = self->ring_.write(static_cast<const float*>(data), frames);
            if (stored < frames) self->droppedFrames_.fetch_add(frames - stored, std::memory_order_relaxed);
        }
        pa_stream_drop(stream);
    }
    self->deliverDue(/*fromTimer=*/false);
    if (self->catchingUp_) self->checkCatchUp();
}

void PulseCaptureStream::timerCallback(pa_mainloop_api*, pa_time_event*, const struct timeval*, void* userdata) {
    auto* self = static_cast<PulseCaptureStream*>(userdata);
    if (self->parked_) return;  // resume() arms it again
    const double now = monotonicSeconds();
    // The main loop runs due timers before it reads its sockets. When the loop itself
    // was held up (a starved process), data that arrived meanwhile is still unread, and
    // silence given now would turn it into backlog to drop: look again once it is read.
    if (now - self->timerDueSeconds_ > self->blockSeconds()) {
        self->armTimerAt(now);
        return;
    }
    self->deliverDue(/*fromTimer=*/true);
    self->armTimer(now);
}

std::string PulseCaptureStream::sourceLabel() const {
    return options_.sourceName.empty() ? std::string("the default source") : options_.sourceName;
}

void PulseCaptureStream::armTimer(double nowSeconds) {
    // While the source delivers, nothing can be due before it has been quiet for the
    // idle wait, so the timer fires a few times a second rather than with every block
    // (re-arming it wakes the main loop once more). While the source is idle, or not
    // yet heard, silence is due once per block.
    double waitSeconds = blockSeconds();
    if (pacer_.heardRealAudio() && !pacer_.isIdle()) {
        waitSeconds = std::max(waitSeconds, pacer_.lastRealSeconds() + kIdleAfterSeconds - nowSeconds);
    }
    armTimerAt(nowSeconds + waitSeconds);
}

void PulseCaptureStream::armTimerAt(double dueSeconds) {
    timerDueSeconds_ = dueSeconds;
    const double waitSeconds = std::max(0.0, dueSeconds - monotonicSeconds());
    pa_context_rttime_restart(timerContext_, silenceTimer_, pa_rtclock_now() + static_cast<pa_usec_t>(waitSeconds * 1e6));
}

void PulseCaptureStream::deliverSilence(std::uint32_t blocks) {
    std::fill(block_.begin(), block_.end(), 0.0f);
    for (; blocks > 0; --blocks) {
        delivery_(block_.data(), options_.blockFrames, 0.0);
        silenceBlocks_.fetch_add(1, std::memory_order_relaxed);
    }
}

void PulseCaptureStream::deliverDue(bool fromTimer) {
    if (parked_) return;  // the ring keeps it for the next owner
    const std::uint64_t toleranceFrames = 2ull * options_.blockFrames;
    if (ring_.availableFrames() >= options_.blockFrames) {
        if (!pacer_.heardRealAudio()) {
            // A source that began capturing late: the stream still starts when it was ready.
            deliverSilence(pacer_.takeSilenceBlocksBeforeFirstAudio(monotonicSeconds(), ring_.availableFrames(),
                                                                    toleranceFrames));
        } else if (pacer_.isIdle()) {
            const std::uint64_t drop = pacer_.backlogToDrop(ring_.availableFrames(), toleranceFrames);
            if (drop > 0) droppedFrames_.fetch_add(ring_.discard(static_cast<std::uint32_t>(drop)));
        }
    }
    bool delivered = false;
    while (ring_.read(block_.data(), options_.blockFrames)) {
        // What stays in the ring came in after this block's last frame, no earlier than
        // in real time: the block is at least that old. A block's end falls anywhere in
        // what the server hands on at once, and without this its stamp would wander by
        // up to a block as the two sizes slide past each other.
        const double lastFrameAgeSeconds = static_cast<double>(ring_.availableFrames()) / options_.sampleRateHertz;
        delivery_(block_.data(), options_.blockFrames, lastFrameAgeSeconds);
        deliveredBlocks_.fetch_add(1, std::memory_order_relaxed);
        delivered = true;
    }
    const double now = monotonicSeconds();
    if (const std::uint64_t drops = droppedFrames_.load(std::memory_order_relaxed);
        drops != reportedDrops_ && now - lastDropReportSeconds_ >= kDropReportIntervalSeconds) {
        logger().error("Capture from " + sourceLabel() + " lost " + std::to_string(drops - reportedDrops_) + " frames");
        reportedDrops_ = drops;
        lastDropReportSeconds_ = now;
    }
    if (delivered) {
        if (!pacer_.heardRealAudio()) {
            logger().debug("First audio from " + sourceLabel() + " after " +
                           std::to_string(static_cast<int>((now - pacer_.lastRealSeconds()) * 1000.0)) + " ms, " +
                           std::to_string(silenceBlocks_.load()) + " silence blocks before it");
        }
        pacer_.noteRealBlock(now);
    } else if (std::uint32_t silent = fromTimer ? pacer_.takeSilenceBlocksDue(now) : 0; silent > 0) {
        // The source went quiet with a partial block stored: that tail goes out first,
        // padded with silence, rather than waiting for the source to come back. A partial
        // block that has only just arrived is the start of a sound, not the end of one:
        // it waits for the rest, after the silence that was due before it.
        const bool wentQuiet = now - lastDataSeconds_ >= kIdleAfterSeconds;
        const std::uint32_t tailFrames = wentQuiet ? ring_.readAvailable(block_.data(), options_.blockFrames) : 0;
        if (tailFrames > 0) {
            std::fill(block_.begin() + static_cast<std::ptrdiff_t>(tailFrames) * options_.channels, block_.end(), 0.0f);
            delivery_(block_.data(), options_.blockFrames, 0.0);
            silenceBlocks_.fetch_add(1, std::memory_order_relaxed);
            --silent;
        }
        deliverSilence(silent);
    }
}

}  // namespace velto::pulse
