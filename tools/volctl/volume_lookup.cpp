#include "volume_lookup.h"

#include <algorithm>

#include "base/visible_text.h"
#include "file_systems.h"

namespace tarnwick {

namespace {

Result<Volume> unlessExcluded(const Volume& volume) {
    if (volume.exclusionReason.empty()) return volume;
    return Error{"left out: " + volume.exclusionReason, 0, volume.deviceIdentifier};
}

bool allowsColons(const std::string& type) { return fileSystem(type).allowsColons; }

// What is mounted at mount->target: a volume of the list, or else one that has only what the mount reports.
Volume volumeOf(const Mount& mount, const std::vector<Volume>& volumes) {
    const auto known = std::find_if(volumes.rbegin(), volumes.rend(),
                                    [&](const Volume& each) { return isMountedAt(each, mount.target); });
    if (known != volumes.rend()) return *known;
    Volume volume;
    volume.fileSystem = mount.type;
    volume.deviceIdentifier = isPlainName(mount.source) ? mount.source : std::string();
    return volume;
}

Result<Volume> prebootFromDirectory(const Machine& machine, const std::vector<Volume>& volumes) {
    const auto folder = withoutTrailingSlashes(machine.settings.prebootDirectory);
    if (!folder.starts_with('/') || !isPlainName(folder))
        return Error{"the PrebootDirectory must be an absolute path without special characters", 0, folder};
    if (!machine.isDirectory(folder))
        return Error{"not a directory, and no volume has the role Preboot; see Roles in volctl(8)", 0, folder};
    const auto* mount = mountContaining(machine.mounts, folder);
    if (!mount) return Error{"cannot find the mount that contains it", 0, folder};
    auto volume = volumeOf(*mount, volumes);
    if (!volume.exclusionReason.empty()) return unlessExcluded(volume);
    // The content of the device says what format a user-space driver mounted.
    const auto& type = fileSystem(mount->type).isAnyFormat ? volume.fileSystem : mount->type;
    if (!allowsColons(type) || !allowsColons(volume.fileSystem))
        return Error{"on a " + type + " file system, where file names cannot contain a colon", 0, folder};
    volume.role = "Preboot";
    volume.mountPoint = folder;
    return volume;
}

// The first Preboot volume that is mounted, else the first one.
Result<Volume> lookUpPreboot(const Machine& machine, const std::vector<Volume>& volumes) {
    const Volume* best = nullptr;
    for (const auto& volume : volumes) {
        const bool usable =
            volume.role == "Preboot" && volume.exclusionReason.empty() && allowsColons(volume.fileSystem);
        if (usable && (!best || (best->mountPoint.empty() && !volume.mountPoint.empty()))) best = &volume;
    }
    return best ? Result<Volume>(*best) : prebootFromDirectory(machine, volumes);
}

const Volume* findByDevice(const Machine& machine, const std::vector<Volume>& volumes, const std::string& identifier) {
    const bool isPath = identifier.starts_with("/dev/");
    const auto name = isPath ? identifier.substr(5) : identifier;
    const auto number = isPath ? machine.nodeNumber(identifier) : 0;
    const auto hasName = [&](const std::string& device) { return device == name; };
    const auto hasNumber = [&](const std::string& device) {
        const auto* known = findDevice(machine.devices, device);
        return number != 0 && known && known->number == number;
    };
    const auto find = [&](const auto& condition) -> const Volume* {
        for (const auto& volume : volumes)
            if (std::any_of(volume.deviceNames.begin(), volume.deviceNames.end(), condition)) return &volume;
        return nullptr;
    };
    const auto* named = find(hasName);
    return named ? named : find(hasNumber);
}

const Volume* findByMountPoint(const std::vector<Volume>& volumes, const std::string& path) {
    const auto found =
        std::find_if(volumes.begin(), volumes.end(), [&](const Volume& each) { return isMountedAt(each, path); });
    return found == volumes.end() ? nullptr : &*found;
}

// A name belongs to the volume that is not left out, so that a USB stick cannot make it ambiguous.
Result<Volume> lookUpName(const std::vector<Volume>& volumes, const std::string& name) {
    const Volume* best = nullptr;
    for (const auto& volume : volumes) {
        if (name.empty() || (volume.name != name && visibleText(volume.name) != name)) continue;
        if (best && !volume.exclusionReason.empty()) continue;
        if (best && best->exclusionReason.empty())
            return Error{"more than one volume has this name; use the name of a device", 0, name};
        best = &volume;
    }
    return best ? unlessExcluded(*best) : Error{"no such volume; `volctl list` shows all volumes", 0, name};
}

}  // namespace

Result<Volume> lookUpVolume(const Machine& machine, const std::vector<Volume>& volumes, const std::string& identifier) {
    if (!machine.settingsStatus) return machine.settingsStatus.error();
    if (identifier == "Preboot") return lookUpPreboot(machine, volumes);
    if (const auto* volume = findByDevice(machine, volumes, identifier)) return unlessExcluded(*volume);
    if (const auto* volume = findByMountPoint(volumes, withoutTrailingSlashes(identifier)))
        return unlessExcluded(*volume);
    return lookUpName(volumes, identifier);
}

}  // namespace tarnwick
