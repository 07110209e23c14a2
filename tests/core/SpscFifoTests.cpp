#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

#include "realtime/SpscFifo.hpp"

namespace velto {
namespace {

TEST(SpscFifo, OffersTwoSpansAcrossTheEndAndNeverMoreThanFitsOrIsStored) {
    SpscFifo fifo(8);
    EXPECT_EQ(fifo.prepareToRead(4).totalFrames(), 0);
    fifo.finishedWrite(fifo.prepareToWrite(6).totalFrames());
    fifo.finishedRead(fifo.prepareToRead(5).totalFrames());  // positions now at 6 and 5

    const SpscFifo::Spans free = fifo.prepareToWrite(100);  // 7 free: 2 up to the end, 5 from 0
    EXPECT_EQ(free.firstStart, 6);
    EXPECT_EQ(free.firstFrames, 2);
    EXPECT_EQ(free.secondFrames, 5);
    fifo.finishedWrite(free.totalFrames());
    EXPECT_EQ(fifo.freeFrames(), 0);
    EXPECT_EQ(fifo.prepareToWrite(1).totalFrames(), 0);

    const SpscFifo::Spans stored = fifo.prepareToRead(4);  // from 5: 3 up to the end, 1 from 0
    EXPECT_EQ(stored.firstStart, 5);
    EXPECT_EQ(stored.firstFrames, 3);
    EXPECT_EQ(stored.secondFrames, 1);
    EXPECT_EQ(fifo.readyFrames(), 8);  // nothing given back before finishedRead
    fifo.finishedRead(stored.totalFrames());
    EXPECT_EQ(fifo.readyFrames(), 4);
    EXPECT_EQ(fifo.prepareToRead(-1).totalFrames(), 0);
    fifo.reset();
    EXPECT_EQ(fifo.readyFrames(), 0);
    EXPECT_EQ(SpscFifo(0).prepareToWrite(5).totalFrames(), 0);
}

// The producer writes a running counter in blocks of random size, the consumer reads
// blocks of other random sizes into its own storage: a lost, repeated or torn frame shows
// as a gap in the count. Under ThreadSanitizer this also proves that the unlocked copies
// are ordered by the position updates.
TEST(SpscFifo, RunningCounterCrossesThreadsThroughEveryWrapAround) {
    constexpr std::uint32_t kTotal = 300000;
    constexpr std::int64_t kCapacity = 509;  // prime, so blocks straddle the end at every offset
    SpscFifo fifo(kCapacity);
    std::vector<std::uint32_t> storage(kCapacity);

    std::thread producer([&] {
        std::mt19937 random(3);
        std::uint32_t next = 0;
        while (next < kTotal) {
            const auto wanted = std::min<std::int64_t>(1 + random() % 200, kTotal - next);
            const SpscFifo::Spans free = fifo.prepareToWrite(wanted);
            if (free.totalFrames() == 0) {
                std::this_thread::yield();
                continue;
            }
            for (std::int64_t i = 0; i < free.firstFrames; ++i) storage[free.firstStart + i] = next++;
            for (std::int64_t i = 0; i < free.secondFrames; ++i) storage[i] = next++;
            fifo.finishedWrite(free.totalFrames());
        }
    });

    std::mt19937 random(5);
    std::uint32_t expected = 0;
    std::uint32_t mismatches = 0;
    while (expected < kTotal) {
        const SpscFifo::Spans stored = fifo.prepareToRead(1 + random() % 300);
        if (stored.totalFrames() == 0) {
            std::this_thread::yield();
            continue;
        }
        for (std::int64_t i = 0; i < stored.firstFrames; ++i) mismatches += storage[stored.firstStart + i] != expected++;
        for (std::int64_t i = 0; i < stored.secondFrames; ++i) mismatches += storage[i] != expected++;
        fifo.finishedRead(stored.totalFrames());
    }
    producer.join();
    EXPECT_EQ(mismatches, 0u);
    EXPECT_EQ(fifo.readyFrames(), 0);
}

}  // namespace
}  // namespace velto
