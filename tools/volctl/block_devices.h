// The block devices of the machine as sysfs shows them.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "base/handle.h"

namespace tarnwick {

struct BlockDevice {
    std::string name;  // below /dev: "sda2", "dm-0", "cciss/c0d0p1"
    dev_t number = 0;
    std::uint64_t size = 0;  // bytes
    std::string wholeDisk;   // of a partition: its disk; else empty
    std::string mapName;     // of a device-mapper device: its name and the identifier given by its maker
    std::string mapUuid;
    std::vector<std::string> lower;  // names of the devices that it stands on
    std::vector<std::string> upper;  // names of the devices that stand on it, its partitions not counted
    std::string viewOf;        // of a loop device that shows another device from end to end: that device; else empty
    bool detachable = false;   // a disk with a removable medium, or on a bus made for plugging
    bool partitioned = false;  // has partitions that the kernel knows of
};

// sda2 before sda10.
struct VersionOrder {
    bool operator()(const std::string& left, const std::string& right) const;
};

using BlockDevices = std::map<std::string, BlockDevice, VersionOrder>;

// Reads `sysfs`/class/block. Left out: hidden and empty devices, memory disks (ram, zram), loop devices without a
// backing file. A device that vanishes meanwhile is left out as well.
BlockDevices readBlockDevices(const std::filesystem::path& sysfs = "/sys");

// The device, its partition's disk and everything below it, each once, the device itself first.
std::vector<const BlockDevice*> deviceStack(const BlockDevices& devices, const BlockDevice& top);

// The path of the device's node: the first of /dev/NAME, /dev/mapper/MAPNAME and /dev/block/MAJOR:MINOR that is a
// block device of the right number; empty when there is none.
std::string devicePath(const BlockDevice& device);

// Opens the device read-only. No descriptor (errno set) when it refuses, or when the node is not of that number.
FileDescriptor openDevice(const BlockDevice& device);

}  // namespace tarnwick
