#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "logging/LogThinning.hpp"
#include "logging/LoggerCompat.hpp"
#include "support/CapturedLogs.hpp"

namespace velto {
namespace {

TEST(LoggerCompat, PublishesTheMessageVerbatimWithSubsystemCategoryAndLevel) {
    testing::CapturedLogs logs;
    LoggerCompat logger{kLogSubsystem, "AudioMixer"};
    logger.critical("100% of 50%s %d");
    logger.debug("detail");
    auto records = logs.records();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].level, LogLevel::critical);
    EXPECT_EQ(records[0].subsystem, "io.veltoaudio.Ondrel");
    EXPECT_EQ(records[0].category, "AudioMixer");
    EXPECT_EQ(records[0].message, "100% of 50%s %d");
    EXPECT_EQ(records[1].level, LogLevel::debug);
}

TEST(LoggerCompat, MinimumLevelDropsLowerMessagesAndManyThreadsMayLog) {
    testing::CapturedLogs logs;
    setMinimumLogLevel(LogLevel::error);
    LoggerCompat logger{kLogSubsystem, "FloatRingBuffer"};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 100; ++i) {
                logger.info("dropped");
                logger.error("kept");
            }
        });
    for (auto& t : threads) t.join();
    bool built = false;  // a dropped level never builds its line
    logger.debug([&] {
        built = true;
        return std::string("built");
    });
    logger.error([] { return std::string("kept"); });
    EXPECT_FALSE(built);
    EXPECT_EQ(logs.count("FloatRingBuffer", "kept"), 401);
    EXPECT_EQ(logs.count("FloatRingBuffer", "dropped"), 0);
}

TEST(LogThinning, SamplesAtRoughlyTheRequestedRateAndCanBeForced) {
    int hits = 0;
    for (int i = 0; i < 200000; ++i) hits += oneIn(100);
    EXPECT_GT(hits, 1600);
    EXPECT_LT(hits, 2400);
    {
        ScopedLogThinning always(true);
        EXPECT_TRUE(oneIn(1000000));
    }
    {
        ScopedLogThinning never(false);
        EXPECT_FALSE(oneIn(1));
    }
}

}  // namespace
}  // namespace velto
