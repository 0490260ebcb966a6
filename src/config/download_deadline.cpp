#include "config/download_deadline.h"

namespace tarnwick {

DownloadClock::time_point downloadDeadline(std::chrono::seconds fromNow) { return DownloadClock::now() + fromNow; }

}  // namespace tarnwick
