// Decides by its file system whether a file may be captured.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "base/handle.h"
#include "platform/mount_table.h"

namespace tarnwick {

// The volumes whose owners consented in this run. A search below a mount point also finds files of other volumes that
// are mounted further down, which the consent does not cover. A volume may be mounted many times (subvolumes, binds),
// so mounts are compared by their file system, never by their path.
class ConsentedVolumes {
public:
    // Adds the volume that is mounted at `mountPoint`, or that this directory is on.
    void add(const std::string& mountPoint);

    // Whether files on the mount may be captured: its volume was added, or it shows data of the kernel.
    bool allows(std::uint64_t mountId);

    // The entry of the mount in the mount table; without names when there is none.
    MountEntry describe(std::uint64_t mountId);

private:
    bool mountsChanged();
    const MountEntry* find(std::uint64_t mountId);

    FileDescriptor changes_;  // the mount table, to be polled
    std::vector<MountEntry> mounts_;
    std::set<dev_t> fileSystems_;
};

}  // namespace tarnwick
