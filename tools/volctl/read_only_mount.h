// Mounts a file system without changing a byte of its device.
#pragma once

#include <string>
#include <vector>

#include "base/error.h"
#include "block_devices.h"

namespace tarnwick {

// The folder where this program mounts a device.
std::string mountFolder(const std::string& deviceName);

// Creates `folder` and mounts the file system of type `type` there: read-only, nosuid, nodev, noexec, where
// the driver has an option for it without a replay of its journal, and never with write access to the device unless the
// file system spans devices. `devices` has more than one only for a file system that spans devices. After a failure
// nothing is left mounted.
Status mountReadOnly(const std::vector<const BlockDevice*>& devices, const std::string& type,
                     const std::string& folder);

// Unmounts what mountReadOnly mounted and removes the folder.
Status unmount(const std::string& folder);

}  // namespace tarnwick
