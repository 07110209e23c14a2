#pragma once

#include <ctime>

// CPU time of the calling thread, in seconds: benchmark figures taken with it
// stay meaningful on a machine shared with other work.
inline double threadCpuSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}
