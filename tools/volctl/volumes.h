// The volumes of the machine: containers (a disk, a volume group, an array, a btrfs file system) contain groups (a
// partition, a logical volume), and groups contain volumes (a file system, a swap area, a locked encrypted device).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "machine.h"

namespace tarnwick {

struct Volume {
    std::string deviceIdentifier;  // name of the topmost device that contains it
    std::string container;
    std::string group;
    std::string name;        // label, else partition name, else name of the mapping, else device; bytes as on the disk
    std::string uuid;        // empty: not known
    std::string fileSystem;  // type; empty: not known
    std::string role;
    // Of several mount points: /, else the PrebootDirectory (unless it shows only a part of a file system that is also
    // mounted at or below /home, /srv or /var), else the shortest at or below /home, /srv or /var, else the shortest
    // that shows the file system from its top, else the shortest. Empty: not mounted.
    std::string mountPoint;
    std::vector<std::string> mountPoints;  // all of them
    std::vector<std::string> deviceNames;  // of all devices that contain this volume and no other, the top one first
    std::uint64_t size = 0;                // bytes; 0: not known
    bool locked = false;
    std::string exclusionReason;  // why the volume is left out (volctl(8)); empty: it is not
};

// Every volume, ordered by container and group. The container of / is first, in it the group of /, and in that the
// volume of /. Each volume appears once, however many layers are between it and the disk. The file system at / is a
// volume even if its device is not known here (a pool, a network file system, an overlay); it then gets a separate
// container.
std::vector<Volume> findVolumes(const Machine& machine);

// Whether `path` is one of the mount points of the volume.
bool isMountedAt(const Volume& volume, const std::string& path);

}  // namespace tarnwick
