#include "unlock.h"

#include <algorithm>
#include <cerrno>

#include "blocked_signals.h"
#include "encrypted_device.h"
#include "file_systems.h"
#include "read_only_mount.h"

namespace tarnwick {

namespace {

Error noDevice(const std::string& name) { return {"no such device", ENODEV, name}; }

const BlockDevice* findMapping(const BlockDevices& devices, const std::string& mapping) {
    for (const auto& [name, device] : devices)
        if (device.mapName == mapping) return &device;
    return nullptr;
}

Status mountPlain(const Volume& volume) {
    const auto type = fileSystem(volume.fileSystem);
    if (volume.role == "Swap" || type.usage == Usage::swap)
        return Error{"a swap area, which is never mounted", 0, volume.deviceIdentifier};
    if (volume.fileSystem.empty())
        return Error{"cannot be mounted: its file system is not known", 0, volume.deviceIdentifier};
    const auto devices = readBlockDevices();
    std::vector<const BlockDevice*> members;
    for (const auto& name : volume.deviceNames) {
        const auto* device = findDevice(devices, name);
        const bool spans = type.spansDevices && device && device->upper.empty();
        if (device && (members.empty() || spans)) members.push_back(device);
    }
    if (members.empty()) return noDevice(volume.deviceIdentifier);
    return mountReadOnly(members, volume.fileSystem, mountFolder(volume.deviceIdentifier));
}

Status mountOpened(const std::string& mapping, const std::string& folder) {
    const auto devices = readBlockDevices();
    const auto* device = findMapping(devices, mapping);
    if (!device) return noDevice(mapping);
    const auto answer = probeDevice(*device);
    if (answer.content == Content::member)
        return Error{"contains a part of a volume group, an array or a pool, not a file system: " + answer.type, 0,
                     mapping};
    if (answer.content != Content::fileSystem) return Error{"contains no known file system", 0, mapping};
    return mountReadOnly({device}, answer.type, folder);
}

Status openAndMount(const Volume& volume, int keyDescriptor) {
    const auto devices = readBlockDevices();
    const auto* device = findDevice(devices, volume.deviceIdentifier);
    if (!device) return noDevice(volume.deviceIdentifier);
    if (auto opened = openEncryptedDevice(*device, keyDescriptor); !opened) return opened;
    const auto mapping = mappingName(device->name);
    auto mounted = mountOpened(mapping, mountFolder(device->name));
    if (mounted) return mounted;
    Error error = mounted.error();
    if (const auto closed = closeEncryptedDevice(mapping); !closed)
        error.text += "; " + closed.error().subject + ": " + closed.error().text;
    return error;
}

// Whether there was something to unmount.
Result<bool> unmountAll(const Volume& volume) {
    bool undone = false;
    for (const auto& name : volume.deviceNames) {
        const auto folder = mountFolder(name);
        if (!isMountedAt(volume, folder)) continue;
        if (const auto unmounted = unmount(folder); !unmounted) return unmounted.error();
        undone = true;
    }
    return undone;
}

// Whether there was something to close.
Result<bool> closeAll(const Volume& volume) {
    bool undone = false;
    const auto devices = readBlockDevices();
    for (const auto& name : volume.deviceNames) {
        const auto* mapping = findMapping(devices, mappingName(name));
        if (!mapping || std::find(mapping->lower.begin(), mapping->lower.end(), name) == mapping->lower.end()) continue;
        if (const auto closed = closeEncryptedDevice(mapping->mapName); !closed) return closed.error();
        undone = true;
    }
    return undone;
}

}  // namespace

Status unlockVolume(const Volume& volume, int keyDescriptor) {
    if (!volume.mountPoint.empty()) return {};
    const BlockedSignals untilDone;
    return volume.locked ? openAndMount(volume, keyDescriptor) : mountPlain(volume);
}

Result<bool> lockVolume(const Volume& volume) {
    const BlockedSignals untilDone;
    auto unmounted = unmountAll(volume);
    if (!unmounted) return unmounted;
    auto closed = closeAll(volume);
    return closed ? Result<bool>(*unmounted || *closed) : closed;
}

}  // namespace tarnwick
