#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "logging/LoggerCompat.hpp"
#include "support/CapturedLogs.hpp"

namespace velto {
namespace {

// A message is published verbatim (no format expansion); a dropped level never builds its
// line; many threads may log at once.
TEST(LoggerCompat, MinimumLevelDropsLowerMessagesAndManyThreadsMayLog) {
    testing::CapturedLogs logs;
    setMinimumLogLevel(LogLevel::error);
    LoggerCompat logger{kLogSubsystem, "FloatRingBuffer"};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 100; ++i) {
                logger.info("dropped");
                logger.error("kept %s %d");
            }
        });
    for (auto& t : threads) t.join();
    bool built = false;
    logger.debug([&] {
        built = true;
        return std::string("built");
    });
    EXPECT_FALSE(built);
    EXPECT_EQ(logs.count("FloatRingBuffer", "kept %s %d"), 400);
    EXPECT_EQ(logs.count("FloatRingBuffer", "dropped"), 0);
}

}  // namespace
}  // namespace velto
