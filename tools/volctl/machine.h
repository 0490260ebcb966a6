// The facts about a machine from which volumes are found: devices, mounts and settings. A test supplies recorded ones.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "base/error.h"
#include "block_devices.h"
#include "mounts.h"
#include "probe.h"
#include "volume_settings.h"

namespace tarnwick {

struct Machine {
    BlockDevices devices;
    std::vector<Mount> mounts;
    VolumeSettings settings;
    Prober probe;
    std::function<bool(const std::string&)> isDirectory;  // called for mount points that show part of a file system
    std::function<dev_t(const std::string&)> nodeNumber;  // of a path below /dev, links followed; 0: no block device
    // Whether volumes.plist can be used; the error says how to correct it. Volumes are found all the same, so that they
    // can be listed for people. A program that acts on their roles must refuse, as lookUpVolume does.
    Status settingsStatus;
};

// This machine, with /etc/tarnwick/volumes.plist. Fails when the mounts cannot be read.
Result<Machine> thisMachine();

}  // namespace tarnwick
