// Mounts a file system without changing a byte of its device.
#pragma once

#include <string>
#include <vector>

#include "block_devices.h"

namespace tarnwick {

// The folder where this program mounts a device.
std::string mountFolder(const std::string& deviceName);

// Creates `folder` and mounts the file system of type `type` there: read-only, nosuid, nodev, noexec. Some drivers
// delete orphaned inodes even then, so the device is mounted through a read-only loop device. Not so for btrfs, which
// writes nothing and may span several `devices`. Returns the problem, empty on success; on a problem nothing is left
// mounted.
std::string mountReadOnly(const std::vector<const BlockDevice*>& devices, const std::string& type,
                          const std::string& folder);

// Unmounts what mountReadOnly mounted and removes the folder. Returns the problem, empty on success.
std::string unmount(const std::string& folder);

}  // namespace tarnwick
