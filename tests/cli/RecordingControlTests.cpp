#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <future>
#include <mutex>
#include <vector>

#include "RecordingControl.hpp"
#include "SignalWatcher.hpp"

namespace velto::cli {
namespace {

using ::testing::ElementsAre;

// Records the actions the control thread carries out, in order.
class ActionLog {
public:
    RecordingControl::Actions actions() {
        return {[this] { add("stop"); }, [this] { add("cancel"); }, [this] { add("abandon"); }};
    }
    void add(const std::string& action) {
        std::lock_guard lock(mutex_);
        actions_.push_back(action);
        changed_.notify_all();
    }
    std::vector<std::string> waitFor(std::size_t count) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, std::chrono::seconds(10), [&] { return actions_.size() >= count; });
        return actions_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> actions_;
};

TEST(RecordingControl, StopWaitsUntilTheServiceWouldAcceptIt) {
    ActionLog log;
    RecordingControl control(log.actions());
    control.interrupt();
    control.markStarted();
    // Started but no progress yet: the service is still "starting" and would refuse a stop.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_TRUE(log.waitFor(0).empty());
    control.markRecording();
    EXPECT_THAT(log.waitFor(1), ElementsAre("stop"));
}

TEST(RecordingControl, DestructionWaitsForAStopUnderWay) {
    std::promise<void> release;
    auto released = release.get_future().share();
    std::atomic<bool> stopReturned{false};
    std::future<void> destroyed;
    {
        auto control = std::make_unique<RecordingControl>(RecordingControl::Actions{
            [&] {
                released.wait();
                stopReturned = true;
            },
            {},
            {}});
        control->markRecording();
        control->requestStop();
        destroyed = std::async(std::launch::async, [&control] { control.reset(); });
        EXPECT_EQ(destroyed.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
        release.set_value();
        destroyed.get();
    }
    EXPECT_TRUE(stopReturned);
}

TEST(SignalWatcher, DeliversSignalsOnItsThreadAndRestoresTheHandlers) {
    struct sigaction before {};
    ::sigaction(SIGUSR2, nullptr, &before);
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<int> received;
    std::thread::id watcherThread;
    {
        SignalWatcher watcher(
            [&](int signalNumber) {
                std::lock_guard lock(mutex);
                received.push_back(signalNumber);
                watcherThread = std::this_thread::get_id();
                arrived.notify_all();
            },
            {SIGUSR2, SIGINT});
        ASSERT_EQ(::raise(SIGUSR2), 0);
        ASSERT_EQ(::raise(SIGINT), 0);
        std::unique_lock lock(mutex);
        arrived.wait_for(lock, std::chrono::seconds(10), [&] { return received.size() >= 2; });
    }
    EXPECT_THAT(received, ElementsAre(SIGUSR2, SIGINT));
    EXPECT_NE(watcherThread, std::this_thread::get_id());
    struct sigaction after {};
    ::sigaction(SIGUSR2, nullptr, &after);
    EXPECT_EQ(after.sa_handler, before.sa_handler);
}

}  // namespace
}  // namespace velto::cli
