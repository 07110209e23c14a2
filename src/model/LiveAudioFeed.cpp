#include "model/LiveAudioFeed.hpp"

#include <string>

#include "logging/LoggerCompat.hpp"

namespace velto {
namespace {

LoggerCompat& logger() {
    static LoggerCompat l{kLogSubsystem, "LiveAudioFeed"};
    return l;
}

}  // namespace

LiveAudioFeed::LiveAudioFeed(std::size_t capacityBlocks) : capacityBlocks_(capacityBlocks) {}

LiveAudioFeed::~LiveAudioFeed() { finish(); }

AudioBufferStream LiveAudioFeed::stream() {
    MutexLock lock(mutex_);
    if (!stream_) {
        auto [stream, sink] = AudioBufferSource::make(StreamBuffering::newest(capacityBlocks_));
        if (finished_) sink.finish();
        stream_ = std::move(stream);
        if (!finished_) sink_ = std::move(sink);
    }
    return *stream_;
}

void LiveAudioFeed::deliver(std::shared_ptr<PcmBuffer> block) {
    MutexLock lock(mutex_);
    if (!sink_) return;
    sink_->yield(std::move(block));
    // A reader that never catches up loses a block per block: log the first loss, then
    // only as the count doubles, so an hour behind costs a couple of dozen lines.
    const uint64_t dropped = sink_->droppedCount();
    if (dropped >= nextReportedDrop_) {
        logger().error("Live audio stream reader is behind: " + std::to_string(dropped) +
                       " oldest blocks dropped so far (the stream keeps the newest " + std::to_string(capacityBlocks_) +
                       ")");
        while (nextReportedDrop_ <= dropped) nextReportedDrop_ *= 2;
    }
}

void LiveAudioFeed::finish() noexcept {
    MutexLock lock(mutex_);
    finished_ = true;
    if (!sink_) return;
    sink_->finish();
    if (const uint64_t dropped = sink_->droppedCount(); dropped > 0) {
        logger().info("Live audio stream ended; its reader missed " + std::to_string(dropped) + " blocks");
    }
    sink_.reset();
}

}  // namespace velto
