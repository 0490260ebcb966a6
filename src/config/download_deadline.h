// How long a download may take. A module of its own because tests link another one, which makes time run faster.
#pragma once

#include <chrono>

namespace tarnwick {

using DownloadClock = std::chrono::steady_clock;  // a clock that is set while we wait must not move the deadline

DownloadClock::time_point downloadDeadline(std::chrono::seconds fromNow);

}  // namespace tarnwick
