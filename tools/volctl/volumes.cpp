#include "volumes.h"

#include <sys/sysmacros.h>

#include <algorithm>
#include <map>
#include <tuple>
#include <utility>

#include "base/visible_text.h"
#include "encrypted_device.h"
#include "roles.h"

namespace tarnwick {

namespace {

constexpr std::string_view logicalVolumePrefix = "LVM-";
constexpr std::size_t logicalVolumeUuidSize = 4 + 32 + 32;  // prefix, volume group, volume; hidden layers add a suffix

const BlockDevice* find(const BlockDevices& devices, const std::string& name) {
    const auto found = devices.find(name);
    return found == devices.end() ? nullptr : &found->second;
}

bool isLogicalVolume(const BlockDevice& device) { return device.mapUuid.starts_with(logicalVolumePrefix); }

bool isHiddenLayer(const BlockDevice& device) {
    return isLogicalVolume(device) && device.mapUuid.size() > logicalVolumeUuidSize;
}

// Whether the device shows all of the single device below it and nothing else.
const BlockDevice* shownBelow(const BlockDevices& devices, const BlockDevice& device) {
    const bool shows = device.mapUuid.starts_with("CRYPT-") || !device.viewOf.empty();
    return shows && device.lower.size() == 1 ? find(devices, device.lower.front()) : nullptr;
}

// The partition, logical volume or disk that `top` is built on, and every device between them, `top` first.
std::vector<const BlockDevice*> downToGroup(const BlockDevices& devices, const BlockDevice& top) {
    std::vector<const BlockDevice*> chain{&top};
    while (const auto* below = shownBelow(devices, *chain.back())) {
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

// Mounts of a file system that spans devices have a device number of their own; their source names the device.
bool isMountOf(const Machine& machine, const Mount& mount, const BlockDevice& device) {
    if (mount.device == device.number) return true;
    if (mount.type != "btrfs" || !mount.source.starts_with("/dev/")) return false;
    const auto name = mount.source.substr(5);
    return name == device.name || (!device.mapName.empty() && name == "mapper/" + device.mapName) ||
           machine.nodeNumber(mount.source) == device.number;
}

// Whether the device, or one below it, shows a file. A loop device that shows another device does not count.
bool isOnImage(const BlockDevices& devices, const BlockDevice& top) {
    const auto stack = deviceStack(devices, top);
    return std::any_of(stack.begin(), stack.end(),
                       [](const auto* each) { return each->name.starts_with("loop") && each->viewOf.empty(); });
}

bool contains(const std::vector<std::string>& list, const std::string& text) {
    return std::find(list.begin(), list.end(), text) != list.end();
}

bool holdsRoot(const Volume& volume) { return contains(volume.mountPoints, "/"); }

std::string withoutEndingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

// Of several mounts of one file system, the smallest in this order is used.
std::tuple<int, std::size_t, std::string> preference(const Mount& mount) {
    const int kind = mount.target == "/" ? 0 : isBelowDataFolder(mount.target) ? 1 : mount.root == "/" ? 2 : 3;
    return {kind, mount.target.size(), mount.target};
}

class VolumeFinder {
public:
    explicit VolumeFinder(const Machine& machine)
        : machine_(machine), prebootDirectory_(withoutEndingSlashes(machine.settings.prebootDirectory)) {
        for (const auto& [name, device] : machine_.devices)
            for (const auto* mount : mountsOf(device))
                if (mount->target == "/") rootDevices_ = deviceStack(machine_.devices, device);
    }

    std::vector<Volume> find() {
        for (const auto& [name, device] : machine_.devices)
            if (isCandidate(device)) addDevice(device);
        joinSpanning();
        for (auto& volume : volumes_) settle(volume);
        addUnknownRoot();
        assignRoles();
        for (auto& volume : volumes_) judge(volume);
        sort();
        return std::move(volumes_);
    }

private:
    // The topmost device of every stack, and every device that is mounted although others are built on it.
    [[nodiscard]] bool isCandidate(const BlockDevice& device) const {
        if (isHiddenLayer(device) || isViewOfDevice(device)) return false;
        return (device.upper.empty() && !device.partitioned) || !mountsOf(device).empty();
    }

    // A loop device that shows another device is ignored here: the volume keeps the name of the device shown.
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
    [[nodiscard]] bool comesAndGoes(const BlockDevice& top) const {
        const auto stack = deviceStack(machine_.devices, top);
        return std::any_of(stack.begin(), stack.end(), [&](const BlockDevice* each) {
            return each->detachable && std::find(rootDevices_.begin(), rootDevices_.end(), each) == rootDevices_.end();
        });
    }

    void addDevice(const BlockDevice& top) {
        const auto chain = downToGroup(machine_.devices, top);
        const auto& group = *chain.back();
        Volume volume;
        volume.deviceIdentifier = top.name;
        volume.group = group.name;
        volume.container = containerName(group);
        volume.size = top.size;
        for (const auto* device : chain) {
            volume.deviceNames.push_back(device->name);
            if (!device->mapName.empty()) volume.deviceNames.push_back("mapper/" + device->mapName);
        }
        const auto mounts = mountsOf(top);
        for (const auto* mount : mounts) mounts_[top.name].push_back(mount);
        auto& evidence = evidence_[top.name];
        evidence.isImage = isOnImage(machine_.devices, top);
        evidence.isEncrypted = chain.size() > 1 && top.mapName == mappingName(chain[1]->name);
        if (!machine_.settings.includeRemovable && comesAndGoes(top))
            volume.exclusionReason = "removable or hot-pluggable";  // so it is never read: reading may wake a drive
        else if (!addContent(volume, top, group) && mounts.empty())
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

    // btrfs: a file system on several devices is one volume, named after the first of them.
    void joinSpanning() {
        std::vector<Volume> joined;
        for (auto& volume : volumes_) {
            const bool isBtrfs = volume.fileSystem == "btrfs" && !volume.uuid.empty();
            const auto same = std::find_if(joined.begin(), joined.end(), [&](const Volume& other) {
                return isBtrfs && other.fileSystem == "btrfs" && other.uuid == volume.uuid;
            });
            if (same == joined.end()) {
                if (isBtrfs) volume.container = volume.group;
                joined.push_back(std::move(volume));
                continue;
            }
            same->size += volume.size;
            same->deviceNames.insert(same->deviceNames.end(), volume.deviceNames.begin(), volume.deviceNames.end());
            auto& mounts = mounts_[same->deviceIdentifier];
            for (const auto* mount : mounts_[volume.deviceIdentifier])
                if (std::find(mounts.begin(), mounts.end(), mount) == mounts.end()) mounts.push_back(mount);
        }
        volumes_ = std::move(joined);
    }

    // Decides what requires all mounts of the volume to be known.
    void settle(Volume& volume) {
        const auto& mounts = mounts_[volume.deviceIdentifier];
        const Mount* best = nullptr;
        for (const auto* mount : mounts) {
            if (mount->root != "/" && !machine_.isDirectory(mount->target)) continue;  // a bind mount of a single file
            volume.mountPoints.push_back(mount->target);
            if (!best || preference(*mount) < preference(*best)) best = mount;
        }
        if (best) volume.mountPoint = best->target;
        if (best && volume.fileSystem.empty()) volume.fileSystem = best->type;
        if (best) volume.locked = false;
        if (volume.name.empty()) volume.name = volume.deviceIdentifier;
        auto& evidence = evidence_[volume.deviceIdentifier];
        evidence.deviceNames = volume.deviceNames;
        evidence.fileSystem = volume.fileSystem;
        evidence.mountPoints = volume.mountPoints;
        evidence.atPrebootDirectory = !holdsRoot(volume) && isMountedAtPrebootDirectory(mounts);
        if (evidence.atPrebootDirectory) volume.mountPoint = prebootDirectory_;
    }

    // A subvolume or bind mount there is only a folder of a file system that is also mounted at /home.
    [[nodiscard]] bool isMountedAtPrebootDirectory(const std::vector<const Mount*>& mounts) const {
        const bool holdsData = std::any_of(mounts.begin(), mounts.end(), [&](const Mount* mount) {
            return mount->target != prebootDirectory_ && isBelowDataFolder(mount->target);
        });
        return std::any_of(mounts.begin(), mounts.end(), [&](const Mount* mount) {
            return mount->target == prebootDirectory_ && (mount->root == "/" || !holdsData);
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

    // Named by its source if that can be found from the devices, else by its number.
    void addUnknownRoot() {
        if (std::any_of(volumes_.begin(), volumes_.end(), holdsRoot)) return;
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

    static void judge(Volume& volume) {
        if (!volume.exclusionReason.empty()) return;
        if (!isPlainName(volume.mountPoint))
            volume.exclusionReason = "its mount point holds a character that is not passed on";
        else if (!isPlainName(volume.deviceIdentifier))
            volume.exclusionReason = "its device name holds a character that is not passed on";
    }

    // A capture searches the volumes from the last to the first, and keeps the files of the one searched last; so the
    // volume of / comes first.
    void sort() {
        std::stable_sort(volumes_.begin(), volumes_.end(), [](const Volume& left, const Volume& right) {
            const VersionOrder before;
            return left.container != right.container ? before(left.container, right.container)
                                                     : before(left.group, right.group);
        });
        const auto found = std::find_if(volumes_.begin(), volumes_.end(), holdsRoot);
        if (found == volumes_.end()) return;
        const auto root = *found;
        const auto bringForward = [&](const auto& condition) {
            std::stable_partition(volumes_.begin(), volumes_.end(), condition);
        };
        bringForward(holdsRoot);
        bringForward([&](const Volume& each) { return each.group == root.group; });
        bringForward([&](const Volume& each) { return each.container == root.container; });
    }

    const Machine& machine_;
    const std::string prebootDirectory_;
    std::vector<const BlockDevice*> rootDevices_;  // the device of / and all below it; empty: not known
    std::vector<Volume> volumes_;
    std::map<std::string, std::vector<const Mount*>> mounts_;  // by top device
    std::map<std::string, RoleEvidence> evidence_;             // by top device
};

Lookup found(const Volume& volume) {
    if (volume.exclusionReason.empty()) return {volume, {}};
    return {std::nullopt, volume.deviceIdentifier + " is left out: " + volume.exclusionReason};
}

Lookup prebootFromDirectory(const Machine& machine, const std::vector<Volume>& volumes) {
    const auto folder = withoutEndingSlashes(machine.settings.prebootDirectory);
    if (!folder.starts_with('/') || !isPlainName(folder))
        return {std::nullopt, "PrebootDirectory is no plain absolute path: " + folder};
    if (!machine.isDirectory(folder))
        return {std::nullopt, "no volume has the role Preboot, and no directory " + folder};
    const auto* mount = mountHolding(machine.mounts, folder);
    if (!mount) return {std::nullopt, "cannot tell which file system holds " + folder};
    Volume answer;
    answer.fileSystem = mount->type;
    answer.deviceIdentifier = isPlainName(mount->source) ? mount->source : std::string();
    for (const auto& volume : volumes) {
        if (!contains(volume.mountPoints, mount->target)) continue;
        if (!volume.exclusionReason.empty()) return found(volume);
        answer = volume;
    }
    // A user-space driver is recognised by the content of its device.
    const auto& type = mount->type == "fuseblk" && answer.fileSystem != "fuseblk" ? answer.fileSystem : mount->type;
    if (!allowsColons(type) || !allowsColons(answer.fileSystem))
        return {std::nullopt, folder + " is on a " + type + " file system, whose file names cannot hold a colon"};
    answer.role = "Preboot";
    answer.mountPoint = folder;
    return {answer, {}};
}

// The first Preboot volume that is mounted, else the first one.
Lookup lookUpPreboot(const Machine& machine, const std::vector<Volume>& volumes) {
    const Volume* best = nullptr;
    for (const auto& volume : volumes) {
        const bool answers =
            volume.role == "Preboot" && volume.exclusionReason.empty() && allowsColons(volume.fileSystem);
        if (answers && (!best || (best->mountPoint.empty() && !volume.mountPoint.empty()))) best = &volume;
    }
    return best ? found(*best) : prebootFromDirectory(machine, volumes);
}

const Volume* findByDevice(const Machine& machine, const std::vector<Volume>& volumes, const std::string& identifier) {
    const bool isPath = identifier.starts_with("/dev/");
    const auto name = isPath ? identifier.substr(5) : identifier;
    for (const auto& volume : volumes)
        if (contains(volume.deviceNames, name)) return &volume;
    const auto number = isPath ? machine.nodeNumber(identifier) : 0;
    for (const auto& volume : volumes)
        for (const auto& device : volume.deviceNames)
            if (const auto* known = find(machine.devices, device); number != 0 && known && known->number == number)
                return &volume;
    return nullptr;
}

}  // namespace

std::vector<Volume> findVolumes(const Machine& machine) { return VolumeFinder(machine).find(); }

Lookup lookUpVolume(const Machine& machine, const std::vector<Volume>& volumes, const std::string& identifier) {
    if (!machine.settingsProblem.empty()) return {std::nullopt, machine.settingsProblem};
    if (identifier == "Preboot") return lookUpPreboot(machine, volumes);
    if (const auto* volume = findByDevice(machine, volumes, identifier)) return found(*volume);
    const auto path = withoutEndingSlashes(identifier);
    const Volume* named = nullptr;
    for (const auto& volume : volumes) {
        if (contains(volume.mountPoints, path)) return found(volume);
        if (identifier.empty() || (volume.name != identifier && visibleText(volume.name) != identifier)) continue;
        if (named && !volume.exclusionReason.empty()) continue;  // a USB stick must not make a name ambiguous
        if (named && named->exclusionReason.empty())
            return {std::nullopt, "more than one volume has this name: " + identifier};
        named = &volume;
    }
    if (named) return found(*named);
    return {std::nullopt, "no such volume: " + identifier};
}

}  // namespace tarnwick
