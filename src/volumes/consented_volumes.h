// Which files a run may take, by the file system that they are on.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "base/handle.h"
#include "platform/mount_table.h"

namespace tarnwick {

// The volumes whose owners consented in this run. A search below a mount point also finds what other volumes hold that
// are mounted further down, and the consent for the one does not cover the other. A volume may be mounted many times
// (subvolumes, binds), so mounts are compared by their file system and never by the form of a path.
class ConsentedVolumes {
public:
    // Adds the volume that is mounted at `mountPoint`, or that holds this directory.
    void add(const std::string& mountPoint);

    // Whether files on the mount may be taken: it shows a volume that was added, or it is the kernel's own memory.
    bool allows(std::uint64_t mountId);

    // What the mount table says of the mount; without names when it is not in there.
    MountEntry describe(std::uint64_t mountId);

private:
    bool mountsChanged();

    FileDescriptor changes_;  // the mount table, to be polled
    std::vector<MountEntry> mounts_;
    std::set<dev_t> fileSystems_;
};

}  // namespace tarnwick
