#include "unlock.h"

#include <algorithm>
#include <csignal>

#include "encrypted_device.h"
#include "read_only_mount.h"

namespace tarnwick {

namespace {

// While an object exists, a signal cannot end the program between two steps that belong together.
class BlockedSignals {
public:
    BlockedSignals() {
        sigset_t ending;
        sigemptyset(&ending);
        for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) sigaddset(&ending, signal);
        sigprocmask(SIG_BLOCK, &ending, &before_);
    }
    ~BlockedSignals() { sigprocmask(SIG_SETMASK, &before_, nullptr); }
    BlockedSignals(const BlockedSignals&) = delete;
    BlockedSignals& operator=(const BlockedSignals&) = delete;

private:
    sigset_t before_{};
};

const BlockDevice* find(const BlockDevices& devices, const std::string& name) {
    const auto found = devices.find(name);
    return found == devices.end() ? nullptr : &found->second;
}

const BlockDevice* findMapping(const BlockDevices& devices, const std::string& mapping) {
    for (const auto& [name, device] : devices)
        if (device.mapName == mapping) return &device;
    return nullptr;
}

std::string mountPlain(const Volume& volume) {
    if (volume.role == "Swap" || volume.fileSystem == "swap") return volume.deviceIdentifier + " is a swap area";
    if (volume.fileSystem.empty())
        return "cannot tell what file system is on " + volume.deviceIdentifier + ", so it is not mounted";
    const auto devices = readBlockDevices();
    std::vector<const BlockDevice*> members;
    for (const auto& name : volume.deviceNames) {
        const auto* device = find(devices, name);
        const bool spans = volume.fileSystem == "btrfs" && device && device->upper.empty();
        if (device && (members.empty() || spans)) members.push_back(device);
    }
    if (members.empty()) return "no device " + volume.deviceIdentifier;
    return mountReadOnly(members, volume.fileSystem, mountFolder(volume.deviceIdentifier));
}

std::string mountOpened(const std::string& mapping, const std::string& folder) {
    const auto devices = readBlockDevices();
    const auto* device = findMapping(devices, mapping);
    if (!device) return "the opened volume " + mapping + " does not show up";
    const auto answer = probeDevice(*device);
    if (answer.content == Content::member)
        return "the opened volume holds a part of something larger (" + answer.type + "), not a file system";
    if (answer.content != Content::fileSystem) return "the opened volume holds no file system that can be told";
    return mountReadOnly({device}, answer.type, folder);
}

std::string openAndMount(const Volume& volume, int keyDescriptor) {
    const auto devices = readBlockDevices();
    const auto* device = find(devices, volume.deviceIdentifier);
    if (!device) return "no device " + volume.deviceIdentifier;
    auto problem = openEncryptedDevice(*device, keyDescriptor);
    if (!problem.empty()) return problem;
    const auto mapping = mappingName(device->name);
    problem = mountOpened(mapping, mountFolder(device->name));
    if (problem.empty()) return {};
    const auto second = closeEncryptedDevice(mapping);
    return second.empty() ? problem : problem + "; " + second;
}

}  // namespace

std::string unlockVolume(const Volume& volume, int keyDescriptor) {
    if (!volume.mountPoint.empty()) return {};
    const BlockedSignals steps;
    return volume.locked ? openAndMount(volume, keyDescriptor) : mountPlain(volume);
}

std::string lockVolume(const Volume& volume, bool& undone) {
    const BlockedSignals steps;
    const auto devices = readBlockDevices();
    for (const auto& name : volume.deviceNames) {
        const auto folder = mountFolder(name);
        if (std::find(volume.mountPoints.begin(), volume.mountPoints.end(), folder) == volume.mountPoints.end())
            continue;
        if (auto problem = unmount(folder); !problem.empty()) return problem;
        undone = true;
    }
    for (const auto& name : volume.deviceNames) {
        const auto* mapping = findMapping(devices, mappingName(name));
        if (!mapping || std::find(mapping->lower.begin(), mapping->lower.end(), name) == mapping->lower.end()) continue;
        if (auto problem = closeEncryptedDevice(mapping->mapName); !problem.empty()) return problem;
        undone = true;
    }
    return {};
}

}  // namespace tarnwick
