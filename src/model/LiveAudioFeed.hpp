#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "dispatch/ThreadAnnotations.hpp"
#include "model/EventSource.hpp"
#include "veltoaudio/PcmBuffer.hpp"

namespace velto {

// A recording's live copy of its audio, for a host that asks for it.
//
// Opt-in: until stream() is first called, deliver() drops every block, so a host
// that never reads the audio pays nothing for it. Bounded: the stream keeps the
// newest kCapacityBlocks blocks; a reader that falls behind loses the oldest ones,
// which the stream counts (droppedCount()) and the feed logs at the first loss and
// then each time the count doubles.
//
// Threads: deliver() from the one thread that produces blocks; stream() and
// finish() from any thread.
class LiveAudioFeed {
public:
    // About 4 s of a mixed recording's 60 blocks per second (about 1 KiB each); 16 s
    // of a microphone-only recording's 64 ms blocks.
    static constexpr std::size_t kCapacityBlocks = 256;

    explicit LiveAudioFeed(std::size_t capacityBlocks = kCapacityBlocks);
    ~LiveAudioFeed();
    LiveAudioFeed(const LiveAudioFeed&) = delete;
    LiveAudioFeed& operator=(const LiveAudioFeed&) = delete;

    // The host's end: created on the first call, the same stream after. Once the
    // feed is finished, a stream that has already ended.
    AudioBufferStream stream();
    // Hands `block` to the stream when a host asked for it; nothing otherwise.
    void deliver(std::shared_ptr<PcmBuffer> block);
    // Ends the stream (what it holds stays readable); later blocks are dropped.
    void finish() noexcept;

private:
    const std::size_t capacityBlocks_;
    Mutex mutex_;
    std::optional<AudioBufferStream> stream_ VELTO_GUARDED_BY(mutex_);
    std::optional<AudioBufferSource::Continuation> sink_ VELTO_GUARDED_BY(mutex_);
    bool finished_ VELTO_GUARDED_BY(mutex_) = false;
    uint64_t nextReportedDrop_ = 1;  // producer thread only
};

}  // namespace velto
