#pragma once

#include <cstdint>

namespace velto {

// True on average once in `n` calls, drawn uniformly at random: thins out log
// lines that could repeat on every audio callback or mixing tick. Lock-free and
// allocation-free, so it may be called on a real-time thread.
bool oneIn(uint32_t n);

// Forces oneIn() to always (or never) answer true while it lives, so tests can
// assert sampled lines exactly. Not for production code.
class ScopedLogThinning {
public:
    explicit ScopedLogThinning(bool alwaysLog);
    ~ScopedLogThinning();
    ScopedLogThinning(const ScopedLogThinning&) = delete;
    ScopedLogThinning& operator=(const ScopedLogThinning&) = delete;
};

}  // namespace velto
