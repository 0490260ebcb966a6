// The tick of the clock that the kernel stamps files with.
#pragma once

#include <ctime>

namespace tarnwick::test {

// Waits for the next one: a file that changes in the tick in which writing begins is not stored by reference.
inline void waitForTick() {
    const auto tick = [](struct timespec now = {}) {
        ::clock_gettime(CLOCK_REALTIME_COARSE, &now);
        return now.tv_nsec;
    };
    for (const auto begin = tick(); tick() == begin;) continue;
}

}  // namespace tarnwick::test
