// Fetches the configuration asset, which prints messages, then prints the path of the resulting configuration file.
#include <cstdio>

#include "config/config_file.h"

int main() {
    std::printf("[%s]\n", tarnwick::resolveConfigFile(tarnwick::configurationFile).c_str());
    return 0;
}
