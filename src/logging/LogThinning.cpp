#include "logging/LogThinning.hpp"

#include <atomic>
#include <random>

namespace velto {

namespace {
// 0: random; 1: always; 2: never.
std::atomic<int> gOverride{0};

uint64_t nextRandom() {
    // xorshift64*, seeded once per thread from the system's random source.
    thread_local uint64_t state = [] {
        std::random_device device;
        uint64_t seed = (uint64_t(device()) << 32) ^ device();
        return seed ? seed : 0x9E3779B97F4A7C15ULL;
    }();
    state ^= state >> 12;
    state ^= state << 25;
    state ^= state >> 27;
    return state * 0x2545F4914F6CDD1DULL;
}
}  // namespace

bool oneIn(uint32_t n) {
    switch (gOverride.load(std::memory_order_relaxed)) {
        case 1: return true;
        case 2: return false;
        default: break;
    }
    if (n <= 1) return true;
    return (nextRandom() >> 11) % n == 0;
}

ScopedLogThinning::ScopedLogThinning(bool alwaysLog) { gOverride.store(alwaysLog ? 1 : 2); }
ScopedLogThinning::~ScopedLogThinning() { gOverride.store(0); }

}  // namespace velto
