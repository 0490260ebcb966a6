#include "read_only_mount.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "base/handle.h"
#include "file_systems.h"

namespace tarnwick {

namespace {

constexpr const char* baseFolder = "/run/tarnwick";
constexpr const char* volumesFolder = "/run/tarnwick/volumes";
constexpr int maxLoopAttempts = 16;  // another program may use the free loop device first

// The failure of the last call of the system.
Error callError(const std::string& what, const std::string& subject) {
    const int code = errno;
    return {what + ": " + std::strerror(code), code, subject};
}

bool isReadOnly(int descriptor) {
    int readOnly = 0;
    return ::ioctl(descriptor, BLKROGET, &readOnly) == 0 && readOnly != 0;
}

struct LoopDevice {
    std::string path;
    FileDescriptor opened;
};

// A loop device that shows `device` read-only and disappears with its last user.
Result<LoopDevice> readOnlyView(const FileDescriptor& device, const std::string& name) {
    const FileDescriptor control(::open("/dev/loop-control", O_RDWR | O_CLOEXEC));
    for (int attempt = 0; control && attempt < maxLoopAttempts; ++attempt) {
        const int number = ::ioctl(control.get(), LOOP_CTL_GET_FREE);
        if (number < 0) break;
        auto path = "/dev/loop" + std::to_string(number);
        FileDescriptor loop(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
        struct loop_config settings {};
        settings.fd = static_cast<__u32>(device.get());
        settings.info.lo_flags = LO_FLAGS_READ_ONLY | LO_FLAGS_AUTOCLEAR;
        if (loop && ::ioctl(loop.get(), LOOP_CONFIGURE, &settings) == 0)
            return LoopDevice{std::move(path), std::move(loop)};
        if (errno != EBUSY) break;
    }
    return callError("cannot make a read-only loop device for it", name);
}

// The mode keeps other users out of the folder, so the permissions on the volume itself do not matter.
Status makeFolder(const std::string& path) {
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return callError("cannot be created", path);
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return systemError(errno, path);
    if (S_ISDIR(status.st_mode) && status.st_uid == ::geteuid()) return {};
    return Error{"not a folder of this user", ENOTDIR, path};
}

Status makeFolders(const std::string& folder) {
    for (const auto& path : {std::string(baseFolder), std::string(volumesFolder), folder})
        if (auto made = makeFolder(path); !made) return made;
    return {};
}

Status mountAt(const std::string& source, const FileSystem& type, const std::string& folder,
               const std::string& options) {
    if (auto made = makeFolders(folder); !made) return made;
    constexpr unsigned long flags = MS_RDONLY | MS_NOSUID | MS_NODEV | MS_NOEXEC;
    const std::string driver(type.driver.empty() ? type.name : type.driver);
    if (::mount(source.c_str(), folder.c_str(), driver.c_str(), flags, options.c_str()) == 0) return {};
    auto error = callError("cannot be mounted as " + std::string(type.name), source);
    ::rmdir(folder.c_str());
    return error;
}

// The driver of such a file system identifies its devices by path, and a second path to one would confuse it, so there
// is no loop device.
Status mountSpanning(const std::vector<const BlockDevice*>& devices, const FileSystem& type,
                     const std::string& folder) {
    std::string options(type.noReplayOption), source;
    for (const auto* device : devices) {
        const auto path = devicePath(*device);
        if (!path) return path.error();
        if (source.empty()) source = *path;
        options += ",device=" + *path;
    }
    return mountAt(source, type, folder, options);
}

// Some drivers delete orphaned inodes even on a read-only mount, so a writable device gets a read-only loop device.
Status mountSingle(const BlockDevice& device, const FileSystem& type, const std::string& folder) {
    const auto opened = openDevice(device);
    if (!opened) return opened.error();
    const std::string options(type.noReplayOption);
    if (isReadOnly(opened->get())) {
        const auto path = devicePath(device);
        return path ? mountAt(*path, type, folder, options) : path.error();
    }
    const auto view = readOnlyView(*opened, device.name);
    return view ? mountAt(view->path, type, folder, options) : view.error();
}

}  // namespace

std::string mountFolder(const std::string& deviceName) {
    auto name = deviceName;
    std::replace(name.begin(), name.end(), '/', '_');
    return std::string(volumesFolder) + "/" + name;
}

Status mountReadOnly(const std::vector<const BlockDevice*>& devices, const std::string& type,
                     const std::string& folder) {
    const auto known = fileSystem(type);
    return known.spansDevices ? mountSpanning(devices, known, folder) : mountSingle(*devices.front(), known, folder);
}

Status unmount(const std::string& folder) {
    if (::umount2(folder.c_str(), UMOUNT_NOFOLLOW) != 0) return callError("cannot be unmounted", folder);
    if (::rmdir(folder.c_str()) != 0) return callError("cannot be removed", folder);
    return {};
}

}  // namespace tarnwick
