#include "volumes/volume_info.h"

#include "log/command_runner.h"
#include "platform/internal_policies.h"
#include "plist/property_list.h"

namespace tarnwick {

bool queryVolumeInfo(const std::string& identifier, VolumeInfo& info) {
    info = {};
    if (identifier == "/tmp" && internalPoliciesAllowed(subsystemIdentifier)) {
        info.mountPoint = "/tmp";
        return true;
    }
    std::string answer;
    if (runCommand("volctl info -plist \"" + identifier + "\"", answer, false) != 0) return false;
    const auto volume = parsePropertyListText(answer);
    if (!volume) return true;
    info.mountPoint = textFromPlatformString(findValue(*volume, "MountPoint"));
    info.volumeName = textFromPlatformString(findValue(*volume, "VolumeName"));
    info.deviceIdentifier = textFromPlatformString(findValue(*volume, "DeviceIdentifier"));
    info.containerReference = textFromPlatformString(findValue(*volume, "ZKFSContainerReference"));
    return true;
}

}  // namespace tarnwick
