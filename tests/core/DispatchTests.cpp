#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <iterator>
#include <ranges>
#include <thread>
#include <vector>

#include "dispatch/RepeatingTimer.hpp"
#include "dispatch/SerialQueue.hpp"
#include "model/EventSource.hpp"
#include "support/RecorderTestSupport.hpp"

namespace velto {
namespace {

using namespace std::chrono_literals;

using velto::testing::eventually;  // in real time; the clock under test is manual

TEST(EventStream, DeliversInOrderThenEndsWithTheErrorOnce) {
    auto [stream, continuation] = EventSource<int>::make();
    std::vector<StreamTermination> terminations;
    continuation.setOnTermination([&](StreamTermination t) { terminations.push_back(t); });
    std::thread producer([c = continuation] {
        for (int i = 0; i < 1000; ++i) c.yield(i);
        c.finish(std::make_exception_ptr(std::runtime_error("device lost")));
    });
    std::vector<int> seen;
    try {
        for (int value : stream) seen.push_back(value);
        FAIL() << "the error must end the iteration";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "device lost");
    }
    producer.join();
    ASSERT_EQ(seen.size(), 1000u);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(seen[i], i);
    EXPECT_EQ(stream.next(), std::nullopt);  // the error is delivered once
    EXPECT_EQ(terminations, std::vector<StreamTermination>{StreamTermination::finished});
    EXPECT_FALSE(continuation.yield(5));
}

TEST(EventStream, ConsumerCancellationWakesAWaitingReaderAndTellsTheProducer) {
    auto [stream, continuation] = EventSource<int>::make();
    std::promise<StreamTermination> termination;
    continuation.setOnTermination([&](StreamTermination t) { termination.set_value(t); });
    auto reader = std::async(std::launch::async, [s = stream]() mutable { return s.next(); });
    std::this_thread::sleep_for(10ms);
    stream.cancel();
    EXPECT_EQ(reader.get(), std::nullopt);
    EXPECT_EQ(termination.get_future().get(), StreamTermination::cancelled);
    EXPECT_FALSE(continuation.yield(1));
}

static_assert(std::input_iterator<EventStream<int>::Iterator>);
static_assert(std::ranges::input_range<EventStream<int>>);

TEST(SerialQueue, SyncFromTheQueueRunsInlineAndPropagatesErrors) {
    auto queue = SerialQueue::create("io.veltoaudio.test", QualityOfService::defaultQoS);
    bool inner = false;
    queue->sync([&] {
        EXPECT_TRUE(queue->isCurrent());
        queue->sync([&] { inner = true; });
    });
    EXPECT_TRUE(inner);
    EXPECT_FALSE(queue->isCurrent());
    EXPECT_THROW(queue->sync([] { throw std::runtime_error("boom"); }), std::runtime_error);
}

TEST(SerialQueue, QueueReleasedByItsOwnWorkShutsDownCleanly) {
    auto holder = std::make_shared<std::shared_ptr<SerialQueue>>(
        SerialQueue::create("io.veltoaudio.test", QualityOfService::background));
    std::promise<void> callerLetGo;
    std::promise<void> ran;
    (*holder)->async([holder, letGo = callerLetGo.get_future().share(), &ran] {
        letGo.wait();
        holder->reset();  // the last reference goes away on the queue's own thread
        ran.set_value();
    });
    auto observer = std::weak_ptr<SerialQueue>(*holder);
    holder.reset();
    callerLetGo.set_value();
    ran.get_future().wait();
    EXPECT_TRUE(observer.expired());
}

TEST(RepeatingTimer, FiresOnTheClockAndSkipsMissedDeadlines) {
    auto clock = std::make_shared<ManualClock>(0.0);
    auto queue = SerialQueue::create("io.veltoaudio.timer", QualityOfService::userInteractive, clock);
    auto timer = RepeatingTimer::create(queue);
    std::atomic<int> fires{0};
    timer->schedule(clock->nowSeconds(), 0.1, 0);
    // The second fire moves the clock to the next deadline while it runs: that
    // period was not handled, so it still gets its fire.
    timer->setEventHandler([&] {
        if (++fires == 2) clock->advance(0.1);
    });
    timer->resume();
    ASSERT_TRUE(eventually([&] { return fires == 1; }));  // first deadline is now

    clock->advance(0.1);
    ASSERT_TRUE(eventually([&] { return fires == 3; }));
    clock->advance(1.0);  // ten deadlines missed: one late fire, not ten
    ASSERT_TRUE(eventually([&] { return fires == 4; }));
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(fires.load(), 4);
}

// A cancel waits for a running handler and stops the fires; a handler may cancel its own
// timer; a released timer never fires.
TEST(RepeatingTimer, CancelledOrReleasedTimersStopFiring) {
    auto queue = SerialQueue::create("io.veltoaudio.timer", QualityOfService::userInteractive);
    auto timer = RepeatingTimer::create(queue);
    std::atomic<bool> inHandler{false};
    std::atomic<int> fires{0};
    timer->schedule(queue->clock()->nowSeconds(), 0.001, 0);
    timer->setEventHandler([&, weak = std::weak_ptr<RepeatingTimer>(timer)] {
        inHandler = true;
        std::this_thread::sleep_for(5ms);
        inHandler = false;
        if (++fires == 3)
            if (auto t = weak.lock()) t->cancel();
    });
    timer->resume();
    ASSERT_TRUE(eventually([&] { return timer->isCancelled(); }));
    EXPECT_FALSE(inHandler.load());
    std::this_thread::sleep_for(10ms);
    EXPECT_EQ(fires.load(), 3);

    auto cancelled = RepeatingTimer::create(queue);
    cancelled->schedule(queue->clock()->nowSeconds(), 0.001, 0);
    cancelled->setEventHandler([&] {
        inHandler = true;
        std::this_thread::sleep_for(5ms);
        ++fires;
        inHandler = false;
    });
    cancelled->resume();
    ASSERT_TRUE(eventually([&] { return inHandler.load(); }));
    cancelled->cancel();
    EXPECT_FALSE(inHandler.load());
    const int afterCancel = fires.load();

    std::atomic<int> orphanFires{0};
    {
        auto orphan = RepeatingTimer::create(queue);
        orphan->schedule(queue->clock()->nowSeconds() + 0.05, 0.001, 0);
        orphan->setEventHandler([&] { ++orphanFires; });
        orphan->resume();
    }
    std::this_thread::sleep_for(80ms);
    EXPECT_EQ(fires.load(), afterCancel);
    EXPECT_EQ(orphanFires.load(), 0);
}

}  // namespace
}  // namespace velto
