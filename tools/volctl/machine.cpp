#include "machine.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <utility>

namespace tarnwick {

namespace {

constexpr const char* settingsPath = "/etc/tarnwick/volumes.plist";

// The folder without links, as mounts are listed; mounted, if it is an automount point, since it is opened. Unchanged
// if that fails.
std::string resolveMounted(const std::string& folder) {
    const FileDescriptor opened(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    std::error_code error;
    const auto resolved = std::filesystem::canonical(folder, error);
    return opened && !error && folder.starts_with('/') ? resolved.native() : folder;
}

}  // namespace

Result<Machine> thisMachine() {
    Machine machine;
    auto reading = loadVolumeSettings(settingsPath);
    machine.settings = std::move(reading.settings);
    machine.settingsStatus = std::move(reading.status);
    machine.devices = readBlockDevices();
    machine.settings.prebootDirectory = resolveMounted(machine.settings.prebootDirectory);
    auto mounts = readVisibleMounts();
    if (!mounts) return mounts.error();
    machine.mounts = std::move(*mounts);
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
