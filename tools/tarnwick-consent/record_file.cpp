#include "record_file.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>
#include <vector>

#include "base/file_reading.h"
#include "base/handle.h"
#include "base/random_name.h"
#include "platform/consent_record.h"
#include "plist/xml_property_list.h"
#include "volctl/blocked_signals.h"

namespace tarnwick {

namespace {

constexpr mode_t folderMode = 0755;
constexpr mode_t recordMode = 0644;

// A failed call of the system on the file or folder `name`.
Error callError(const std::string& name, int code) {
    switch (code) {
        case ELOOP: return {name + " is a symbolic link", code};
        case EXDEV: return {name + " is the mount point of another file system", code};
        case ENOTDIR: return {name + " is not a folder", code};
        case EROFS: return {"the volume is read-only: mount it for writing and try again", code};
        default: return {name + ": " + std::strerror(code), code};
    }
}

FileDescriptor openWithRules(int folder, const std::string& path, int flags, std::uint64_t rules) {
    open_how how{};
    how.flags = static_cast<unsigned>(flags | O_CLOEXEC);
    how.mode = (flags & O_CREAT) != 0 ? recordMode : 0;
    how.resolve = rules | RESOLVE_NO_SYMLINKS;
    return FileDescriptor(static_cast<int>(::syscall(SYS_openat2, folder, path.c_str(), &how, sizeof how)));
}

FileDescriptor openBelow(const FileDescriptor& folder, const std::string& name, int flags) {
    return openWithRules(folder.get(), name, flags, RESOLVE_BENEATH | RESOLVE_NO_XDEV);
}

// In a chroot, "/" need not be a mount point.
Status requireMountRoot(const FileDescriptor& folder, const std::string& mountPoint) {
    struct statx status {};
    if (::statx(folder.get(), "", AT_EMPTY_PATH, 0, &status) != 0) return callError(mountPoint, errno);
    const bool isKnown = (status.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0;
    if (mountPoint != "/" && isKnown && (status.stx_attributes & STATX_ATTR_MOUNT_ROOT) == 0)
        return Error{"no longer mounted; mount it and try again"};
    return {};
}

Result<FileDescriptor> openMountPoint(const std::string& mountPoint) {
    auto folder = openWithRules(AT_FDCWD, mountPoint, O_RDONLY | O_DIRECTORY, 0);
    if (!folder) return callError(mountPoint, errno);
    if (const auto mounted = requireMountRoot(folder, mountPoint); !mounted) return mounted.error();
    return folder;
}

// Syncs a file or folder.
Status sync(const FileDescriptor& file, const std::string& name) {
    return ::fsync(file.get()) == 0 ? Status() : callError(name, errno);
}

// The folders from the mount point to the record. The destructor removes those that were made unless keep() was called.
class RecordFolders {
public:
    explicit RecordFolders(FileDescriptor mountPoint) { open_.push_back(std::move(mountPoint)); }
    RecordFolders(const RecordFolders&) = delete;
    RecordFolders& operator=(const RecordFolders&) = delete;
    ~RecordFolders() {
        for (; !made_.empty(); made_.pop_back())
            ::unlinkat(made_.back().parent, made_.back().name.c_str(), AT_REMOVEDIR);
    }

    // Opens the folders one below the other. False when one is missing; with `make`, it is made.
    Result<bool> open(bool make) {
        for (const auto& name : std::filesystem::path(consentRecordPath).parent_path()) {
            auto folder = openBelow(last(), name, O_RDONLY | O_DIRECTORY);
            if (!folder && errno == ENOENT) {
                if (!make) return false;
                if (const auto made = this->make(name); !made) return made.error();
                folder = openBelow(last(), name, O_RDONLY | O_DIRECTORY);
            }
            if (!folder) return callError(name, errno);
            open_.push_back(std::move(folder));
        }
        return true;
    }

    // Syncs the folders into which a new one was made.
    Status keep() {
        for (auto folder = open_.rbegin(); folder != open_.rend() && !made_.empty(); ++folder)
            if (auto synced = sync(*folder, "folder"); !synced) return synced;
        made_.clear();
        return {};
    }

    [[nodiscard]] const FileDescriptor& last() const { return open_.back(); }

private:
    struct Made {
        int parent;
        std::string name;
    };

    Status make(const std::string& name) {
        if (::mkdirat(last().get(), name.c_str(), folderMode) == 0) {
            made_.push_back({last().get(), name});
        } else if (errno != EEXIST) {
            return callError(name, errno);
        }
        return {};
    }

    std::vector<FileDescriptor> open_;  // the mount point first
    std::vector<Made> made_;
};

std::string recordName() { return std::filesystem::path(consentRecordPath).filename(); }

Status requireRegular(const struct stat& status) {
    return S_ISREG(status.st_mode) ? Status() : Error{"the record is not a regular file"};
}

// No descriptor when there is no record. fstatat before the open, so that no device is opened; fstat again after it,
// since the name may have changed.
Result<FileDescriptor> openRecord(const FileDescriptor& folder) {
    struct stat status {};
    if (::fstatat(folder.get(), recordName().c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? Result<FileDescriptor>(FileDescriptor()) : callError("the record", errno);
    if (const auto regular = requireRegular(status); !regular) return regular.error();
    auto file = openBelow(folder, recordName(), O_RDONLY | O_NONBLOCK | O_NOCTTY);
    if (!file || ::fstat(file.get(), &status) != 0) return callError("the record", errno);
    if (const auto regular = requireRegular(status); !regular) return regular.error();
    if (status.st_size > static_cast<off_t>(maxPropertyListFile))
        return Error{"the record is larger than 16 MiB", EFBIG};
    return file;
}

Result<std::optional<PropertyListDictionary>> readFrom(const FileDescriptor& folder) {
    const auto file = openRecord(folder);
    if (!file) return file.error();
    if (!*file) return std::optional<PropertyListDictionary>();
    const auto bytes = readToEnd(*file, maxPropertyListFile);
    if (!bytes) return callError("the record", bytes.error().code);
    auto record = parsePropertyListText(*bytes);
    if (!record) return Error{"the record is not a property list with a dictionary as its root"};
    return record;
}

// A new file with a random name. The destructor removes it unless it was renamed.
class TemporaryFile {
public:
    explicit TemporaryFile(const FileDescriptor& folder) : folder_(folder) {}
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile() {
        if (!name_.empty()) ::unlinkat(folder_.get(), name_.c_str(), 0);
    }

    Status create() {
        const auto name = ".tarnwick-consent-" + randomDigits();
        file_ = openBelow(folder_, name, O_WRONLY | O_CREAT | O_EXCL);
        if (!file_) return failure(errno);
        name_ = name;
        return {};
    }

    Status write(std::string_view bytes) {
        while (!bytes.empty()) {
            const auto count = ::write(file_.get(), bytes.data(), bytes.size());
            if (count < 0 && errno == EINTR) continue;
            if (count < 0) return failure(errno);
            bytes.remove_prefix(static_cast<std::size_t>(count));
        }
        return {};
    }

    // A file system without owners and modes refuses every change, so nothing is changed without need.
    Status setOwnerAndMode() {
        struct stat status {};
        bool done = ::fstat(file_.get(), &status) == 0;
        if (done && (status.st_uid != 0 || status.st_gid != 0)) done = ::fchown(file_.get(), 0, 0) == 0;
        if (done && (status.st_mode & 07777) != recordMode) done = ::fchmod(file_.get(), recordMode) == 0;
        return done ? Status() : failure(errno);
    }

    Status close() {
        if (auto synced = sync(file_, "the new record"); !synced) return synced;
        return ::close(file_.release()) == 0 ? Status() : failure(errno);
    }

    Status rename(const std::string& name) {
        if (::renameat(folder_.get(), name_.c_str(), folder_.get(), name.c_str()) != 0)
            return callError("the record", errno);
        name_.clear();
        return {};
    }

private:
    static Error failure(int code) { return callError("the new record", code); }

    const FileDescriptor& folder_;
    std::string name_;
    FileDescriptor file_;
};

Status replaceRecord(const FileDescriptor& folder, std::string_view text) {
    TemporaryFile file(folder);
    if (auto created = file.create(); !created) return created;
    if (auto written = file.write(text); !written) return written;
    if (auto set = file.setOwnerAndMode(); !set) return set;
    if (auto closed = file.close(); !closed) return closed;
    if (auto renamed = file.rename(recordName()); !renamed) return renamed;
    return sync(folder, "folder");
}

}  // namespace

Result<std::optional<PropertyListDictionary>> readConsentRecord(const std::string& mountPoint) {
    auto opened = openMountPoint(mountPoint);
    if (!opened) return opened.error();
    RecordFolders folders(std::move(*opened));
    const auto found = folders.open(false);
    if (!found) return found.error();
    return *found ? readFrom(folders.last()) : std::optional<PropertyListDictionary>();
}

Status changeConsentRecord(const std::string& mountPoint, const std::function<void(PropertyListDictionary&)>& change) {
    const BlockedSignals untilDone;  // so that no temporary file remains
    ::umask(0777 & ~folderMode);
    auto opened = openMountPoint(mountPoint);
    if (!opened) return opened.error();
    RecordFolders folders(std::move(*opened));
    if (const auto found = folders.open(true); !found) return found.error();
    auto old = readFrom(folders.last());
    if (!old) return old.error();
    auto record = std::move(*old).value_or(PropertyListDictionary{});
    change(record);
    const auto text = writeXmlPropertyList(PropertyListValue{std::move(record)});
    if (text.size() > maxPropertyListFile)
        return Error{"the XML form of the record would be larger than 16 MiB", EFBIG};
    if (auto replaced = replaceRecord(folders.last(), text); !replaced) return replaced;
    return folders.keep();
}

}  // namespace tarnwick
