#include "volumes.h"

#include <sys/sysmacros.h>

#include <algorithm>
#include <map>
#include <tuple>
#include <utility>

#include "base/visible_text.h"
#include "encrypted_device.h"
#include "file_systems.h"
#include "roles.h"

namespace tarnwick {

namespace {

constexpr std::string_view logicalVolumePrefix = "LVM-";
constexpr std::size_t logicalVolumeUuidSize = 4 + 32 + 32;  // prefix, volume group, volume; hidden layers add a suffix

bool isLogicalVolume(const BlockDevice& device) { return device.mapUuid.starts_with(logicalVolumePrefix); }

bool isHiddenLayer(const BlockDevice& device) {
    return isLogicalVolume(device) && device.mapUuid.size() > logicalVolumeUuidSize;
}

// The lower device, if this device is a view of exactly that one: an open encrypted device or a loop device. Else null.
const BlockDevice* soleLowerDevice(const BlockDevices& devices, const BlockDevice& device) {
    const bool shows = device.mapUuid.starts_with("CRYPT-") || !device.viewOf.empty();
    return shows && device.lower.size() == 1 ? findDevice(devices, device.lower.front()) : nullptr;
}

// `top`, the device that it is a view of, and so on, down to a partition, logical volume or disk.
std::vector<const BlockDevice*> deviceChain(const BlockDevices& devices, const BlockDevice& top) {
    std::vector<const BlockDevice*> chain{&top};
    while (const auto* below = soleLowerDevice(devices, *chain.back())) {
        if (std::find(chain.begin(), chain.end(), below) != chain.end()) break;
        chain.push_back(below);
    }
    return chain;
}

// The device-mapper name of a logical volume is GROUP-VOLUME, with each dash of either name doubled.
std::string volumeGroupName(const std::string& mapName) {
    std::string name;
    for (std::size_t i = 0; i < mapName.size(); ++i) {
        if (mapName[i] == '-' && mapName.substr(i + 1, 1) != "-") break;
        if (mapName[i] == '-') ++i;
        name += mapName[i];
    }
    return name;
}

std::string containerName(const BlockDevice& group) {
    if (isLogicalVolume(group)) return volumeGroupName(group.mapName);
    if (!group.wholeDisk.empty()) return group.wholeDisk;
    const bool mappedPartition = group.mapUuid.starts_with("part");  // of a multipath disk
    return mappedPartition && group.lower.size() == 1 ? group.lower.front() : group.name;
}

// A volume with the names of the devices in the chain and the size of the first.
Volume volumeOn(const std::vector<const BlockDevice*>& chain) {
    Volume volume;
    volume.deviceIdentifier = chain.front()->name;
    volume.group = chain.back()->name;
    volume.container = containerName(*chain.back());
    volume.size = chain.front()->size;
    for (const auto* device : chain) {
        volume.deviceNames.push_back(device->name);
        if (!device->mapName.empty()) volume.deviceNames.push_back("mapper/" + device->mapName);
    }
    return volume;
}

// Mounts of a file system that spans devices have a device number of their own; their source names the device.
bool isMountOf(const Machine& machine, const Mount& mount, const BlockDevice& device) {
    if (mount.device == device.number) return true;
    if (!fileSystem(mount.type).spansDevices || !mount.source.starts_with("/dev/")) return false;
    const auto name = mount.source.substr(5);
    return name == device.name || (!device.mapName.empty() && name == "mapper/" + device.mapName) ||
           machine.nodeNumber(mount.source) == device.number;
}

// Whether the device, or one below it, is a loop device over a file. One over another device does not count.
bool isOnImage(const BlockDevices& devices, const BlockDevice& top) {
    const auto stack = deviceStack(devices, top);
    return std::any_of(stack.begin(), stack.end(),
                       [](const auto* each) { return each->name.starts_with("loop") && each->viewOf.empty(); });
}

bool isRoot(const Volume& volume) { return isMountedAt(volume, "/"); }

// Whether both are devices of one file system.
bool areOneFileSystem(const Volume& left, const Volume& right) {
    return fileSystem(left.fileSystem).spansDevices && left.fileSystem == right.fileSystem && !left.uuid.empty() &&
           left.uuid == right.uuid;
}

// The sort key of a mount. The mount with the smallest key gives the mount point of its volume.
std::tuple<int, std::size_t, std::string> preference(const Mount& mount) {
    const int kind = mount.target == "/" ? 0 : isBelowDataFolder(mount.target) ? 1 : mount.root == "/" ? 2 : 3;
    return {kind, mount.target.size(), mount.target};
}

class VolumeFinder {
public:
    explicit VolumeFinder(const Machine& machine)
        : machine_(machine), prebootDirectory_(withoutTrailingSlashes(machine.settings.prebootDirectory)) {
        for (const auto& [name, device] : machine_.devices)
            for (const auto* mount : mountsOf(device))
                if (mount->target == "/") rootDevices_ = deviceStack(machine_.devices, device);
    }

    std::vector<Volume> find() {
        for (const auto& [name, device] : machine_.devices)
            if (isCandidate(device)) addDevice(device);
        joinSpanning();
        for (auto& volume : volumes_) addMounts(volume);
        addUnknownRoot();
        assignRoles();
        for (auto& volume : volumes_) excludeSpecialNames(volume);
        sort();
        return std::move(volumes_);
    }

private:
    // The topmost device of every stack, and every device that is mounted although others are built on it.
    [[nodiscard]] bool isCandidate(const BlockDevice& device) const {
        if (isHiddenLayer(device) || isViewOfDevice(device)) return false;
        return (device.upper.empty() && !device.partitioned) || !mountsOf(device).empty();
    }

    // A loop device over another device is ignored here: the volume has the name of that other device.
    [[nodiscard]] bool isViewOfDevice(const BlockDevice& device) const { return !device.viewOf.empty(); }

    [[nodiscard]] std::vector<const Mount*> mountsOf(const BlockDevice& device) const {
        std::vector<const Mount*> found;
        const auto shows = [&](const BlockDevice& each) { return &each == &device || each.viewOf == device.name; };
        for (const auto& mount : machine_.mounts)
            for (const auto& [name, each] : machine_.devices)
                if (shows(each) && isMountOf(machine_, mount, each)) {
                    found.push_back(&mount);
                    break;
                }
        return found;
    }

    // The disks that / is on belong to the machine, whatever they are plugged into.
    [[nodiscard]] bool isRemovable(const BlockDevice& top) const {
        const auto stack = deviceStack(machine_.devices, top);
        return std::any_of(stack.begin(), stack.end(), [&](const BlockDevice* each) {
            return each->detachable && std::find(rootDevices_.begin(), rootDevices_.end(), each) == rootDevices_.end();
        });
    }

    void addDevice(const BlockDevice& top) {
        const auto chain = deviceChain(machine_.devices, top);
        auto volume = volumeOn(chain);
        const auto& mounts = mounts_[top.name] = mountsOf(top);
        auto& evidence = evidence_[top.name];
        evidence.isImage = isOnImage(machine_.devices, top);
        evidence.isEncrypted = chain.size() > 1 && top.mapName == mappingName(chain[1]->name);
        if (!machine_.settings.includeRemovable && isRemovable(top))
            volume.exclusionReason = "removable or hot-pluggable";  // so it is never read: reading may wake a drive
        else if (!addContent(volume, top, *chain.back()) && mounts.empty())
            return;
        volumes_.push_back(std::move(volume));
    }

    // False when the device contains no volume.
    bool addContent(Volume& volume, const BlockDevice& top, const BlockDevice& group) {
        const auto answer = machine_.probe(top);
        const auto entry = &top == &group ? answer : machine_.probe(group);
        auto& evidence = evidence_[top.name];
        evidence.uuid = answer.uuid;
        evidence.partitionUuid = entry.partitionUuid;
        evidence.label = answer.label;
        evidence.partitionType = entry.partitionType;
        if (answer.type == "crypto_LUKS") evidence.isEncrypted = true;
        volume.uuid = answer.uuid;
        volume.fileSystem = answer.type;
        volume.locked = answer.content == Content::encrypted;
        volume.name = !answer.label.empty() ? answer.label : entry.partitionName;
        if (volume.name.empty()) volume.name = !top.mapName.empty() ? top.mapName : top.name;
        return answer.content != Content::nothing && answer.content != Content::member;
    }

    // A file system on several devices is one volume, named after the first of them.
    void joinSpanning() {
        std::vector<Volume> joined;
        for (auto& volume : volumes_) {
            const auto first = std::find_if(joined.begin(), joined.end(),
                                            [&](const Volume& other) { return areOneFileSystem(volume, other); });
            if (first != joined.end()) {
                addMember(*first, volume);
                continue;
            }
            if (areOneFileSystem(volume, volume)) volume.container = volume.group;
            joined.push_back(std::move(volume));
        }
        volumes_ = std::move(joined);
    }

    void addMember(Volume& volume, const Volume& member) {
        volume.size += member.size;
        volume.deviceNames.insert(volume.deviceNames.end(), member.deviceNames.begin(), member.deviceNames.end());
        auto& mounts = mounts_[volume.deviceIdentifier];
        for (const auto* mount : mounts_[member.deviceIdentifier])
            if (std::find(mounts.begin(), mounts.end(), mount) == mounts.end()) mounts.push_back(mount);
    }

    // Sets what depends on the mounts of the volume. Called when joinSpanning() has collected all of them.
    void addMounts(Volume& volume) {
        const auto& mounts = mounts_[volume.deviceIdentifier];
        if (const auto* best = chooseMount(volume, mounts)) {
            volume.mountPoint = best->target;
            if (volume.fileSystem.empty()) volume.fileSystem = best->type;
            volume.locked = false;
        }
        if (volume.name.empty()) volume.name = volume.deviceIdentifier;
        auto& evidence = evidence_[volume.deviceIdentifier];
        evidence.deviceNames = volume.deviceNames;
        evidence.fileSystem = volume.fileSystem;
        evidence.mountPoints = volume.mountPoints;
        evidence.atPrebootDirectory = !isRoot(volume) && isMountedAtPrebootDirectory(mounts);
        if (evidence.atPrebootDirectory) volume.mountPoint = prebootDirectory_;
    }

    // Adds the mount points to the volume, without those of single files, and returns the preferred mount or null.
    const Mount* chooseMount(Volume& volume, const std::vector<const Mount*>& mounts) const {
        const Mount* best = nullptr;
        for (const auto* mount : mounts) {
            if (mount->root != "/" && !machine_.isDirectory(mount->target)) continue;
            volume.mountPoints.push_back(mount->target);
            if (!best || preference(*mount) < preference(*best)) best = mount;
        }
        return best;
    }

    // A subvolume or bind mount at the PrebootDirectory does not count if the file system is also mounted at a data
    // folder: the folder that it shows is then only a small part of a data volume.
    [[nodiscard]] bool isMountedAtPrebootDirectory(const std::vector<const Mount*>& mounts) const {
        const bool hasData = std::any_of(mounts.begin(), mounts.end(), [&](const Mount* mount) {
            return mount->target != prebootDirectory_ && isBelowDataFolder(mount->target);
        });
        return std::any_of(mounts.begin(), mounts.end(), [&](const Mount* mount) {
            return mount->target == prebootDirectory_ && (mount->root == "/" || !hasData);
        });
    }

    // The volume at the PrebootDirectory is Preboot if no other one is.
    void assignRoles() {
        for (const auto* prebootDirectoryRole : {"Other", "Preboot"}) {
            for (auto& volume : volumes_)
                volume.role = roleOf(evidence_[volume.deviceIdentifier], machine_.settings, prebootDirectoryRole);
            if (std::any_of(volumes_.begin(), volumes_.end(),
                            [](const Volume& each) { return each.role == "Preboot"; }))
                return;
        }
    }

    // The name is the source of the mount. If that is empty, has special characters or is the name of another device,
    // the name is the device number.
    void addUnknownRoot() {
        if (std::any_of(volumes_.begin(), volumes_.end(), isRoot)) return;
        const auto root = std::find_if(machine_.mounts.begin(), machine_.mounts.end(),
                                       [](const Mount& mount) { return mount.target == "/"; });
        if (root == machine_.mounts.end()) return;
        auto name = root->source.starts_with("/dev/") ? root->source.substr(5) : root->source;
        if (name.empty() || !isPlainName(name) || machine_.devices.contains(name))
            name = std::to_string(major(root->device)) + ":" + std::to_string(minor(root->device));
        Volume volume;
        volume.deviceIdentifier = volume.container = volume.group = volume.name = name;
        volume.deviceNames = {name};
        volume.fileSystem = root->type;
        volume.mountPoint = "/";
        volume.mountPoints = {"/"};
        evidence_[name].deviceNames = volume.deviceNames;
        evidence_[name].mountPoints = volume.mountPoints;
        volumes_.push_back(std::move(volume));
    }

    static void excludeSpecialNames(Volume& volume) {
        if (!volume.exclusionReason.empty()) return;
        if (!isPlainName(volume.mountPoint))
            volume.exclusionReason = "its mount point has a special character";
        else if (!isPlainName(volume.deviceIdentifier))
            volume.exclusionReason = "its device name has a special character";
    }

    // The volume of / comes first: a capture searches the volumes from the last to the first, and keeps the files of
    // the one searched last.
    void sort() {
        std::stable_sort(volumes_.begin(), volumes_.end(), [](const Volume& left, const Volume& right) {
            const VersionOrder precedes;
            return left.container != right.container ? precedes(left.container, right.container)
                                                     : precedes(left.group, right.group);
        });
        const auto found = std::find_if(volumes_.begin(), volumes_.end(), isRoot);
        if (found == volumes_.end()) return;
        const auto root = *found;
        const auto moveFirst = [&](const auto& condition) {
            std::stable_partition(volumes_.begin(), volumes_.end(), condition);
        };
        moveFirst(isRoot);
        moveFirst([&](const Volume& each) { return each.group == root.group; });
        moveFirst([&](const Volume& each) { return each.container == root.container; });
    }

    const Machine& machine_;
    const std::string prebootDirectory_;
    std::vector<const BlockDevice*> rootDevices_;  // the device of / and all below it; empty: not known
    std::vector<Volume> volumes_;
    std::map<std::string, std::vector<const Mount*>> mounts_;  // by top device
    std::map<std::string, RoleEvidence> evidence_;             // by top device
};

}  // namespace

bool isMountedAt(const Volume& volume, const std::string& path) {
    return std::find(volume.mountPoints.begin(), volume.mountPoints.end(), path) != volume.mountPoints.end();
}

std::vector<Volume> findVolumes(const Machine& machine) { return VolumeFinder(machine).find(); }

}  // namespace tarnwick
