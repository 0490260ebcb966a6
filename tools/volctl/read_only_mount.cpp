#include "read_only_mount.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace tarnwick {

namespace {

constexpr const char* baseFolder = "/run/tarnwick";
constexpr const char* volumesFolder = "/run/tarnwick/volumes";
constexpr int loopAttempts = 16;  // another program may take the free loop device first

struct MountOption {
    std::string_view type;
    const char* option;
};

// The option that keeps each file system from replaying its journal, so that a read-only mount changes nothing.
constexpr std::array replayOptions{
    MountOption{"ext3", "noload"},     MountOption{"ext4", "noload"},       MountOption{"xfs", "norecovery"},
    MountOption{"f2fs", "norecovery"}, MountOption{"nilfs2", "norecovery"}, MountOption{"btrfs", "rescue=nologreplay"},
    MountOption{"reiserfs", "nolog"},
};

std::string errorText(const std::string& what) { return what + ": " + std::strerror(errno); }

std::string optionsFor(const std::string& type) {
    const auto* found = std::find_if(replayOptions.begin(), replayOptions.end(),
                                     [&](const MountOption& known) { return known.type == type; });
    return found == replayOptions.end() ? std::string() : found->option;
}

bool isReadOnly(int descriptor) {
    int readOnly = 0;
    return ::ioctl(descriptor, BLKROGET, &readOnly) == 0 && readOnly != 0;
}

// Opens a loop device that shows `device` read-only and disappears with its last user. `path` becomes its path.
FileDescriptor readOnlyView(const FileDescriptor& device, std::string& path) {
    const FileDescriptor control(::open("/dev/loop-control", O_RDWR | O_CLOEXEC));
    for (int attempt = 0; control && attempt < loopAttempts; ++attempt) {
        const int number = ::ioctl(control.get(), LOOP_CTL_GET_FREE);
        if (number < 0) break;
        path = "/dev/loop" + std::to_string(number);
        FileDescriptor loop(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        struct loop_config settings {};
        settings.fd = static_cast<__u32>(device.get());
        settings.info.lo_flags = LO_FLAGS_READ_ONLY | LO_FLAGS_AUTOCLEAR;
        if (loop && ::ioctl(loop.get(), LOOP_CONFIGURE, &settings) == 0) return loop;
        if (errno != EBUSY) break;
    }
    return {};
}

// The mode keeps other users out of the folder, so the permissions on the volume itself do not matter.
bool makeFolder(const std::string& path) {
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return false;
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return false;
    if (S_ISDIR(status.st_mode) && status.st_uid == ::geteuid()) return true;
    errno = ENOTDIR;
    return false;
}

std::string mountAt(const std::string& source, const std::string& type, const std::string& folder,
                    const std::string& options) {
    for (const auto& path : {std::string(baseFolder), std::string(volumesFolder), folder})
        if (!makeFolder(path)) return errorText("cannot make " + path);
    constexpr unsigned long flags = MS_RDONLY | MS_NOSUID | MS_NODEV | MS_NOEXEC;
    // The driver of the running kernel has another name than the format.
    const std::string driver = type == "ntfs" ? "ntfs3" : type;
    if (::mount(source.c_str(), folder.c_str(), driver.c_str(), flags, options.c_str()) == 0) return {};
    auto problem = errorText("cannot mount " + source + " as " + type);
    ::rmdir(folder.c_str());
    return problem;
}

// btrfs writes nothing when it is mounted so. It identifies its devices by path, and a second path to one would confuse
// it.
std::string mountSpanning(const std::vector<const BlockDevice*>& devices, const std::string& folder) {
    auto options = optionsFor("btrfs");
    for (const auto* device : devices) {
        const auto path = devicePath(*device);
        if (path.empty()) return "no device node for " + device->name;
        options += ",device=" + path;
    }
    return mountAt(devicePath(*devices.front()), "btrfs", folder, options);
}

}  // namespace

std::string mountFolder(const std::string& deviceName) {
    auto name = deviceName;
    std::replace(name.begin(), name.end(), '/', '_');
    return std::string(volumesFolder) + "/" + name;
}

std::string mountReadOnly(const std::vector<const BlockDevice*>& devices, const std::string& type,
                          const std::string& folder) {
    if (type == "btrfs") return mountSpanning(devices, folder);
    const auto& device = *devices.front();
    const auto opened = openDevice(device);
    if (!opened) return errorText("cannot open " + device.name);
    auto path = devicePath(device);
    const bool wantsView = !isReadOnly(opened.get());
    const auto view = wantsView ? readOnlyView(opened, path) : FileDescriptor();
    if (wantsView && !view) return errorText("cannot make a read-only view of " + device.name);
    return mountAt(path, type, folder, optionsFor(type));
}

std::string unmount(const std::string& folder) {
    if (::umount2(folder.c_str(), UMOUNT_NOFOLLOW) != 0) return errorText("cannot unmount " + folder);
    return ::rmdir(folder.c_str()) != 0 ? errorText("cannot remove " + folder) : std::string();
}

}  // namespace tarnwick
