// Mounting a file system so that not a byte of its device changes.
#pragma once

#include <string>
#include <vector>

#include "block_devices.h"

namespace tarnwick {

// Where this program mounts a device.
std::string mountFolder(const std::string& deviceName);

// Mounts the file system of type `type` at `folder`, which is made: read-only, nosuid, nodev, noexec. Since some would
// clear their orphans even then, a read-only loop device stands in between; not for btrfs, which writes nothing and
// may span several `devices`. Returns the problem; then nothing is left mounted.
std::string mountReadOnly(const std::vector<const BlockDevice*>& devices, const std::string& type,
                          const std::string& folder);

// Takes away what mountReadOnly mounted, and the folder. Returns the problem.
std::string unmount(const std::string& folder);

}  // namespace tarnwick
