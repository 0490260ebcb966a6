#include "volumes/consented_volumes.h"

#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <array>

namespace tarnwick {

namespace {

// File systems without a volume, and so without an owner to ask: they show data of the kernel or the firmware.
bool isKernelMemory(const std::string& type) {
    static constexpr std::array types{"tmpfs", "ramfs", "proc", "sysfs", "pstore", "efivarfs"};
    return std::find(types.begin(), types.end(), type) != types.end();
}

}  // namespace

void ConsentedVolumes::add(const std::string& mountPoint) {
    const FileDescriptor directory(::open(mountPoint.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory) return;
    const auto id = mountIdOf(directory.get(), "");
    if (!id) return;
    if (const auto* mount = find(*id)) fileSystems_.insert(mount->fileSystem);
}

bool ConsentedVolumes::allows(std::uint64_t mountId) {
    const auto* mount = find(mountId);
    return mount && (isKernelMemory(mount->type) || fileSystems_.contains(mount->fileSystem));
}

// The kernel reuses the number of a mount that is gone, so the table is read again after each change.
bool ConsentedVolumes::mountsChanged() {
    if (!changes_) {
        changes_ = FileDescriptor(::open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
        return true;
    }
    pollfd change{changes_.get(), POLLPRI, 0};
    return ::poll(&change, 1, 0) != 0;
}

// The result is valid until the next call.
const MountEntry* ConsentedVolumes::find(std::uint64_t mountId) {
    if (mountsChanged()) mounts_ = readMountTable();
    const auto found =
        std::find_if(mounts_.begin(), mounts_.end(), [&](const auto& mount) { return mount.id == mountId; });
    return found == mounts_.end() ? nullptr : &*found;
}

MountEntry ConsentedVolumes::describe(std::uint64_t mountId) {
    const auto* mount = find(mountId);
    return mount ? *mount : MountEntry{};
}

}  // namespace tarnwick
