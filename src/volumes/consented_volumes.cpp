#include "volumes/consented_volumes.h"

#include <fcntl.h>

#include <algorithm>
#include <array>

#include "base/handle.h"

namespace tarnwick {

namespace {

// File systems without a volume, and so without an owner to ask: what they show is the kernel's own and gone at the
// next start.
bool isKernelMemory(const std::string& type) {
    static constexpr std::array types{"tmpfs", "ramfs", "proc", "sysfs", "pstore", "efivarfs"};
    return std::find(types.begin(), types.end(), type) != types.end();
}

}  // namespace

void ConsentedVolumes::add(const std::string& mountPoint) {
    const FileDescriptor directory(::open(mountPoint.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    const auto id = directory ? mountIdOf(directory.get(), "") : std::nullopt;
    if (!id) return;
    const auto mount = describe(*id);
    if (mount.id == *id) fileSystems_.insert(mount.fileSystem);
}

bool ConsentedVolumes::allows(std::uint64_t mountId) {
    const auto mount = describe(mountId);
    return mount.id == mountId && (isKernelMemory(mount.type) || fileSystems_.contains(mount.fileSystem));
}

// The table is read again for a mount that is not in it: a search may have had one made (automounts).
MountEntry ConsentedVolumes::describe(std::uint64_t mountId) {
    const auto find = [&] {
        return std::find_if(mounts_.begin(), mounts_.end(), [&](const auto& mount) { return mount.id == mountId; });
    };
    if (find() == mounts_.end()) mounts_ = readMountTable();
    const auto found = find();
    return found == mounts_.end() ? MountEntry{} : *found;
}

}  // namespace tarnwick
