#include "machine.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <utility>

namespace tarnwick {

namespace {

constexpr const char* settingsPath = "/etc/tarnwick/volumes.plist";

// An automount point is mounted when the folder is opened. Mounts are listed by paths without links.
void demandPreboot(std::string& folder) {
    const FileDescriptor opened(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::error_code error;
    const auto real = std::filesystem::canonical(folder, error);
    if (opened && !error && folder.starts_with('/')) folder = real;
}

}  // namespace

Machine thisMachine() {
    Machine machine;
    auto reading = loadVolumeSettings(settingsPath);
    machine.settings = std::move(reading.settings);
    machine.settingsProblem = std::move(reading.problem);
    machine.devices = readBlockDevices();
    demandPreboot(machine.settings.prebootDirectory);
    machine.mounts = readVisibleMounts();
    machine.probe = probeDevice;
    machine.isDirectory = [](const std::string& path) {
        struct stat status {};
        return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    };
    machine.nodeNumber = [](const std::string& path) -> dev_t {
        struct stat status {};
        return ::stat(path.c_str(), &status) == 0 && S_ISBLK(status.st_mode) ? status.st_rdev : 0;
    };
    return machine;
}

}  // namespace tarnwick
