#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "capture/RingReadBack.hpp"
#include "signal/FloatRingBuffer.hpp"

namespace velto {
namespace {

std::vector<float> ramp(int64_t count, float start = 1.0f) {
    std::vector<float> values(static_cast<size_t>(count));
    for (int64_t i = 0; i < count; ++i) values[static_cast<size_t>(i)] = start + static_cast<float>(i);
    return values;
}

int64_t writeMono(FloatRingBuffer& ring, const std::vector<float>& samples) {
    const std::array<const float*, 1> sources{samples.data()};
    return ring.write(sources, static_cast<int64_t>(samples.size()));
}

std::vector<float> readMono(FloatRingBuffer& ring, int64_t frames, float poison = -99.0f) {
    std::vector<float> destination(static_cast<size_t>(frames), poison);
    const std::array<float*, 1> destinations{destination.data()};
    ring.read(destinations, frames);
    return destination;
}

TEST(FloatRingBufferTest, ShortWriteKeepsOldestFramesReadsPadWithZerosAndResetEmpties) {
    EXPECT_THROW(FloatRingBuffer::create(0, 16), std::invalid_argument);
    EXPECT_THROW(FloatRingBuffer::create(1, 0), std::invalid_argument);
    auto ring = FloatRingBuffer::create(1, 4);
    EXPECT_EQ(readMono(*ring, 3), (std::vector<float>{0, 0, 0}));  // empty: silence, positions unmoved
    EXPECT_EQ(writeMono(*ring, ramp(6)), 4);
    EXPECT_EQ(writeMono(*ring, ramp(1, 50.0f)), 0);  // full: dropped
    EXPECT_EQ(readMono(*ring, 6), (std::vector<float>{1, 2, 3, 4, 0, 0}));
    EXPECT_EQ(ring->availableFrames(), 0);

    ASSERT_EQ(writeMono(*ring, ramp(3)), 3);
    ring->reset();
    EXPECT_EQ(ring->availableFrames(), 0);
    EXPECT_EQ(readMono(*ring, 4), std::vector<float>(4, 0.0f));
    EXPECT_EQ(writeMono(*ring, ramp(4)), 4);  // the whole capacity again
}

// A producer thread writes a running counter in blocks of random size while
// the consumer reads what there is, up to 100 frames at a time: every value must arrive
// exactly once and in order, on both channels, through hundreds of
// wrap-arounds of the storage. Run under ThreadSanitizer this also checks that
// the unlocked copies are ordered by the position updates.
TEST(FloatRingBufferTest, ConcurrentProducerAndConsumerLoseAndDuplicateNothing) {
    constexpr int64_t kTotalFrames = 400000;
    auto ring = FloatRingBuffer::create(2, 1000);
    std::thread producer([ring] {
        std::mt19937 random(7);
        std::vector<float> left(300), right(300);
        int64_t next = 0;
        while (next < kTotalFrames) {
            const int64_t block = std::min<int64_t>(1 + static_cast<int64_t>(random() % 300), kTotalFrames - next);
            for (int64_t i = 0; i < block; ++i) {
                left[static_cast<size_t>(i)] = static_cast<float>(next + i);
                right[static_cast<size_t>(i)] = -static_cast<float>(next + i);
            }
            const std::array<const float*, 2> sources{left.data(), right.data()};
            int64_t written = 0;
            while (written < block) {
                const std::array<const float*, 2> rest{sources[0] + written, sources[1] + written};
                written += ring->write(rest, block - written);
                if (written < block) std::this_thread::yield();
            }
            next += block;
        }
    });

    testing::expectCountingSignal(*ring, kTotalFrames);
    producer.join();
    EXPECT_EQ(ring->availableFrames(), 0);
}

}  // namespace
}  // namespace velto
