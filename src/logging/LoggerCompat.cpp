#include "logging/LoggerCompat.hpp"

#include <atomic>
#include <cstdio>
#include <memory>
#include <mutex>

namespace velto {

namespace {

std::atomic<LogLevel> gMinimumLevel{LogLevel::info};

// The sink is swapped rarely and read on every message: readers take a shared
// copy under a short lock, so a sink being replaced is never called half-gone.
std::mutex gSinkMutex;
std::shared_ptr<const LogSink> gSink;

// Standard error rather than the systemd journal: it works in containers, CI and
// terminals alike, and under a systemd session the journal collects an
// application's standard error anyway. One fprintf per line keeps lines whole.
void writeToStandardError(LogLevel level, std::string_view subsystem, std::string_view category,
                          std::string_view message) {
    std::fprintf(stderr, "[%.*s:%.*s] %s: %.*s\n", int(subsystem.size()), subsystem.data(), int(category.size()),
                 category.data(), caseName(level), int(message.size()), message.data());
}

std::shared_ptr<const LogSink> currentSink() {
    std::lock_guard lock(gSinkMutex);
    return gSink;
}

}  // namespace

const char* caseName(LogLevel level) {
    switch (level) {
        case LogLevel::debug: return "debug";
        case LogLevel::info: return "info";
        case LogLevel::error: return "error";
        case LogLevel::critical: return "critical";
    }
    return "info";
}

void setLogSink(LogSink sink) {
    auto replacement = sink ? std::make_shared<const LogSink>(std::move(sink)) : nullptr;
    std::lock_guard lock(gSinkMutex);
    gSink = std::move(replacement);
}

void setMinimumLogLevel(LogLevel level) { gMinimumLevel.store(level, std::memory_order_relaxed); }

LogLevel minimumLogLevel() { return gMinimumLevel.load(std::memory_order_relaxed); }

LoggerCompat::LoggerCompat(std::string subsystem, std::string category)
    : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

void LoggerCompat::log(LogLevel level, std::string_view message) const {
    if (level < gMinimumLevel.load(std::memory_order_relaxed)) return;
    if (auto sink = currentSink()) {
        (*sink)(level, subsystem_, category_, message);
    } else {
        writeToStandardError(level, subsystem_, category_, message);
    }
}

}  // namespace velto
