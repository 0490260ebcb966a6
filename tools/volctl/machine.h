// What volumes are found from: the devices, mounts and settings of a machine. A test gives a recorded one.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

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
    std::function<bool(const std::string&)> isDirectory;  // asked of mount points that show part of a file system
    std::function<dev_t(const std::string&)> nodeNumber;  // of a path below /dev, links followed; 0: no block device
    // Why volumes.plist cannot be followed, and how to correct it; empty: no problem. Volumes are found nevertheless,
    // so that they can be listed for people. A program that decides by their roles must refuse, as lookUpVolume does.
    std::string settingsProblem;
};

// The machine that this program runs on, with /etc/tarnwick/volumes.plist.
Machine thisMachine();

}  // namespace tarnwick
