// How long a download may take. A separate module, because tests link another one in which time runs faster.
#pragma once

#include <chrono>

namespace tarnwick {

using DownloadClock = std::chrono::steady_clock;  // changes of the system clock must not move the deadline

DownloadClock::time_point downloadDeadline(std::chrono::seconds fromNow);

}  // namespace tarnwick
