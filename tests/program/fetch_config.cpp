// Fetches the configuration asset, which prints messages, then prints the path of the resulting configuration file. Its
// downloads have a tenth of the time: 30 seconds become three.
#include <cstdio>

#include "config/config_file.h"
#include "config/download_deadline.h"

tarnwick::DownloadClock::time_point tarnwick::downloadDeadline(std::chrono::seconds fromNow) {
    return DownloadClock::now() + fromNow / 10;
}

int main() {
    std::printf("[%s]\n", tarnwick::resolveConfigFile(tarnwick::configurationFile).c_str());
    return 0;
}
