// Prints what fetching the configuration asset logs, then the configuration file that came of it.
#include <cstdio>

#include "config/config_file.h"

int main() {
    std::printf("[%s]\n", tarnwick::resolveConfigFile(tarnwick::configurationFile).c_str());
    return 0;
}
