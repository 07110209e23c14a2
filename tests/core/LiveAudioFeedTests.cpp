#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

#include "model/LiveAudioFeed.hpp"
#include "support/CapturedLogs.hpp"

namespace velto {
namespace {

// One-frame blocks numbered by their sample, each watched so that a test can tell how
// many the feed still holds.
struct NumberedBlocks {
    std::shared_ptr<PcmBuffer> make(float number) {
        auto block = PcmBuffer::make(*PcmFormat::make(16000, 1, true), 1);
        block->setFrameLength(1);
        block->floatChannelData()[0][0] = number;
        watched.push_back(block);
        return block;
    }
    std::size_t alive() const {
        std::size_t n = 0;
        for (const auto& w : watched) n += !w.expired();
        return n;
    }
    std::vector<std::weak_ptr<PcmBuffer>> watched;
};

TEST(LiveAudioFeed, HoldsNothingUntilAskedAndAtMostItsCapacityWhenNeverRead) {
    NumberedBlocks blocks;
    LiveAudioFeed feed(8);
    for (int i = 0; i < 100; ++i) feed.deliver(blocks.make(float(i)));
    EXPECT_EQ(blocks.alive(), 0u);

    auto stream = feed.stream();
    for (int i = 100; i < 10000; ++i) {
        feed.deliver(blocks.make(float(i)));
        ASSERT_LE(blocks.alive(), 8u);
    }
    EXPECT_EQ(stream.droppedCount(), 9900u - 8u);
}

TEST(LiveAudioFeed, SlowReaderGetsTheNewestBlocksAndTheOverflowCount) {
    testing::CapturedLogs logs;  // quiet
    NumberedBlocks blocks;
    LiveAudioFeed feed(4);
    auto stream = feed.stream();
    EXPECT_EQ(feed.stream().droppedCount(), 0u);  // every call hands out the same stream

    // The producer runs far ahead of a reader that takes one block now and then.
    std::thread producer([&] {
        for (int i = 0; i < 1000; ++i) feed.deliver(blocks.make(float(i)));
        feed.finish();
    });
    std::vector<float> read;
    for (const auto& block : stream) {
        read.push_back(block->floatChannelData()[0][0]);
        std::this_thread::yield();
    }
    producer.join();

    ASSERT_GE(read.size(), 4u);
    EXPECT_EQ(read.size() + stream.droppedCount(), 1000u);
    // In order, and the last four are the newest blocks.
    for (std::size_t i = 1; i < read.size(); ++i) EXPECT_LT(read[i - 1], read[i]);
    EXPECT_EQ(std::vector<float>(read.end() - 4, read.end()), (std::vector<float>{996, 997, 998, 999}));
    feed.deliver(blocks.make(1000));  // after the end: dropped, not kept
    EXPECT_TRUE(feed.stream().isTerminated());
    EXPECT_EQ(blocks.alive(), 0u);
}

}  // namespace
}  // namespace velto
