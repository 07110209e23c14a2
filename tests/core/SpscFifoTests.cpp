#include <gtest/gtest.h>

#include <cstdint>

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

}  // namespace
}  // namespace velto
