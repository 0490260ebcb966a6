// The block devices of the machine, as sysfs describes them.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "base/error.h"
#include "base/handle.h"

namespace tarnwick {

struct BlockDevice {
    std::string name;  // below /dev: "sda2", "dm-0", "cciss/c0d0p1"
    dev_t number = 0;
    std::uint64_t size = 0;  // bytes
    std::string wholeDisk;   // of a partition: its disk; else empty
    std::string mapName;     // of a device-mapper device: its name and the identifier given by its maker
    std::string mapUuid;
    std::vector<std::string> lower;  // names of the devices that it is built on
    std::vector<std::string> upper;  // names of the devices that are built on it, except its partitions
    std::string viewOf;              // of a loop device that shows all of another device: that device; else empty
    bool detachable = false;         // a disk with a removable medium, or on a hot-pluggable bus
    bool partitioned = false;        // the kernel has found partitions on it
};

// Orders sda2 before sda10.
struct VersionOrder {
    bool operator()(const std::string& left, const std::string& right) const;
};

using BlockDevices = std::map<std::string, BlockDevice, VersionOrder>;

// Reads `sysfs`/class/block. Leaves out hidden and empty devices, memory disks (ram, zram), loop devices without a
// backing file, and devices that vanish in the meantime.
BlockDevices readBlockDevices(const std::filesystem::path& sysfs = "/sys");

// The device of this name, or null.
const BlockDevice* findDevice(const BlockDevices& devices, const std::string& name);

// The device, the disk of its partition and everything below it, each once, the device itself first.
std::vector<const BlockDevice*> deviceStack(const BlockDevices& devices, const BlockDevice& top);

// The path of the device node: the first of /dev/NAME, /dev/mapper/MAPNAME and /dev/block/MAJOR:MINOR that is a block
// device with the right number. Fails when there is none.
Result<std::string> devicePath(const BlockDevice& device);

// Opens the device read-only. Fails also when the node has another number by then.
Result<FileDescriptor> openDevice(const BlockDevice& device);

}  // namespace tarnwick
