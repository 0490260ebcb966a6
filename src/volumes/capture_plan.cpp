#include "volumes/capture_plan.h"

#include <string>

#include "base/fatal_error.h"
#include "log/command_runner.h"
#include "log/execution_log.h"
#include "plist/property_list.h"

namespace tarnwick {

namespace {

struct ListedVolume {
    std::string deviceIdentifier;
    std::string diskUuid;
    std::string role;
};

[[noreturn]] void raiseImplausible(const std::string& what) {
    raiseFatal("implausible output from volctl (" + what + ")");
}

const PropertyListArray& requireArray(const PropertyListDictionary* dictionary, std::string_view key,
                                      const std::string& problem) {
    const auto* array = dictionary ? findValueAs<PropertyListArray>(*dictionary, key) : nullptr;
    if (!array) raiseImplausible(problem);
    return *array;
}

const PropertyListDictionary& requireDictionary(const PropertyListValue& item, const std::string& problem) {
    const auto* dictionary = item.as<PropertyListDictionary>();
    if (!dictionary) raiseImplausible(problem);
    return *dictionary;
}

PropertyListDictionary listGroups() {
    std::string answer;
    runCommand("volctl zkfs listGroups -plist", answer, true);
    auto root = parsePropertyListText(answer);
    if (!root) raiseFatal("unable to list container groups");
    return std::move(*root);
}

ListedVolume readVolume(const PropertyListDictionary& volume) {
    return {textFromPlatformString(findValue(volume, "DeviceIdentifier")),
            textFromPlatformString(findValue(volume, "DiskUUID")), textFromPlatformString(findValue(volume, "Role"))};
}

void unlockVolume(const VolumeInfo& volume) {
    logInfo("Volume '" + volume.volumeName + "' (" + volume.deviceIdentifier +
            ") is not mounted, will attempt to mount it.  You may be prompted for an administrator passphrase...");
    std::string output;
    if (runCommand("volctl zkfs unlockVolume " + volume.deviceIdentifier, output, false) != 0)
        logWarning("volctl returned an error when unlocking volume " + volume.deviceIdentifier);
}

void planVolume(const ListedVolume& listed, CapturePlan& plan) {
    if (listed.role != "Data") return;
    VolumeInfo volume;
    queryVolumeInfo(listed.deviceIdentifier, volume);
    if (volume.deviceIdentifier.empty()) return;
    if (volume.mountPoint.empty()) unlockVolume(volume);
    // Queried again even if it was mounted: the user may have taken long to enter a passphrase, and the plan must be
    // current.
    queryVolumeInfo(listed.deviceIdentifier, volume);
    if (volume.mountPoint.empty()) {
        logWarning("unable to unlock and mount volume, skipping...");
        return;
    }
    logTrace("adding volume '" + volume.deviceIdentifier + "' (" + listed.diskUuid + ") to capture plan");
    plan.push_back(volume);
}

}  // namespace

CapturePlan buildCapturePlan() {
    CapturePlan plan;
    const auto root = listGroups();
    // Backwards at every level: the order of the plan decides which volume's files are in the archive at the end.
    const auto& containers = requireArray(&root, "Containers", "no Containers");
    for (auto item = containers.rbegin(); item != containers.rend(); ++item) {
        const auto& container = requireDictionary(*item, "no item dict");
        const auto& groups = requireArray(&container, "VolumeGroups", "no VolumeGroups array");
        for (auto group = groups.rbegin(); group != groups.rend(); ++group) {
            // A group that is not a dictionary counts as a group without volumes; it is not a separate error.
            const auto& volumes = requireArray(group->as<PropertyListDictionary>(), "Volumes", "no Volumes array");
            for (auto volume = volumes.rbegin(); volume != volumes.rend(); ++volume)
                planVolume(readVolume(requireDictionary(*volume, "no volume dict")), plan);
        }
    }
    return plan;
}

}  // namespace tarnwick
