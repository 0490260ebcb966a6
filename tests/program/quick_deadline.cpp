// Replaces the deadlines of downloads: 30 seconds become three.
#include "config/download_deadline.h"

namespace tarnwick {

DownloadClock::time_point downloadDeadline(std::chrono::seconds fromNow) { return DownloadClock::now() + fromNow / 10; }

}  // namespace tarnwick
