#include "qvx/write/entry_metadata.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/xattr.h>

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <new>

namespace tarnwick::qvx {

namespace {

// Out of range becomes the nearest value: a file may have a time in the year 2400, which 64 bits of nanoseconds cannot
// express.
std::int64_t nanoseconds(const struct statx_timestamp& time) {
    using Limits = std::numeric_limits<std::int64_t>;
    std::int64_t result = 0;
    if (!__builtin_mul_overflow(time.tv_sec, 1'000'000'000, &result) &&
        !__builtin_add_overflow(result, time.tv_nsec, &result))
        return result;
    return time.tv_sec < 0 ? Limits::min() : Limits::max();
}

std::optional<std::uint32_t> inodeFlags(int descriptor) {
    int flags = 0;  // the kernel writes an int, although the call is declared for a long
    if (descriptor < 0 || ::ioctl(descriptor, FS_IOC_GETFLAGS, &flags) != 0) return std::nullopt;
    return static_cast<std::uint32_t>(flags);
}

// The length of all names, each with a zero byte. The names include those of access lists, which the kernel keeps as
// attributes.
ssize_t listAttributes(const std::string& path, int descriptor, char* names, std::size_t size) {
    return descriptor >= 0 ? ::flistxattr(descriptor, names, size) : ::llistxattr(path.c_str(), names, size);
}

ssize_t attributeLength(const std::string& path, int descriptor, const char* name) {
    return descriptor >= 0 ? ::fgetxattr(descriptor, name, nullptr, 0) : ::lgetxattr(path.c_str(), name, nullptr, 0);
}

// libarchive silently skips attributes and lists that it cannot read, so each one is tried here. When the list of names
// has grown in the meantime, this is not checked.
int probeAttributes(const std::string& path, int descriptor, std::size_t length) {
    std::string names(length, '\0');
    const ssize_t listed = listAttributes(path, descriptor, names.data(), names.size());
    if (listed < 0) return errno == ERANGE ? 0 : -errno;
    names.resize(static_cast<std::size_t>(listed));
    for (std::size_t at = 0; at < names.size(); at += std::char_traits<char>::length(&names[at]) + 1)
        if (attributeLength(path, descriptor, &names[at]) < 0 && errno != ENODATA && errno != ENOTSUP) return -errno;
    return 0;
}

void takeAttributes(archive_entry* entry, EntryTail& tail) {
    std::vector<ExtendedAttribute> attributes;
    std::size_t total = 0;
    archive_entry_xattr_reset(entry);
    const char* name = nullptr;
    const void* value = nullptr;
    std::size_t size = 0;
    while (archive_entry_xattr_next(entry, &name, &value, &size) == ARCHIVE_OK) {
        total += std::char_traits<char>::length(name) + size;
        if (total > maxAttributeBytes) {
            tail.attributesOmitted = true;
            return;
        }
        attributes.push_back({name, std::string(static_cast<const char*>(value), size)});
    }
    if (!attributes.empty()) tail.attributes = std::move(attributes);
}

std::string accessListText(archive_entry* entry, int type) {
    if (!(archive_entry_acl_types(entry) & type)) return {};
    const std::unique_ptr<char, FreeWith<std::free>> text(archive_entry_acl_to_text(entry, nullptr, type));
    return text ? text.get() : "";
}

void takeAccessLists(archive_entry* entry, EntryTail& tail) {
    AccessLists lists{accessListText(entry, ARCHIVE_ENTRY_ACL_TYPE_ACCESS),
                      accessListText(entry, ARCHIVE_ENTRY_ACL_TYPE_DEFAULT)};
    if (!lists.access.empty() || !lists.defaultList.empty()) tail.accessLists = std::move(lists);
}

}  // namespace

int readStatus(int descriptor, const char* name, struct statx& status) {
    constexpr int flags = AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;
    return ::statx(descriptor, name, flags, STATX_BASIC_STATS | STATX_BTIME, &status) == 0 ? 0 : -errno;
}

void takeStatus(const struct statx& status, EntryHead& head) {
    head.userId = status.stx_uid;
    head.groupId = status.stx_gid;
    head.mode = static_cast<std::uint16_t>(status.stx_mode & 07777);
    head.modified = nanoseconds(status.stx_mtime);
    head.changed = nanoseconds(status.stx_ctime);
    if (status.stx_mask & STATX_BTIME) head.created = nanoseconds(status.stx_btime);
}

int MetadataReader::read(const std::string& path, int descriptor, const struct statx& status, EntryHead& head,
                         EntryTail& tail) {
    takeStatus(status, head);
    head.flags = inodeFlags(descriptor);
    // Most files have no attributes; this one call shows it.
    const ssize_t length = listAttributes(path, descriptor, nullptr, 0);
    if (length < 0) return errno == ENOTSUP || errno == ENOSYS ? 0 : -errno;
    if (length == 0) return 0;
    if (const int error = readAttributes(path, descriptor, tail)) return error;
    return probeAttributes(path, descriptor, static_cast<std::size_t>(length));
}

int MetadataReader::readAttributes(const std::string& path, int descriptor, EntryTail& tail) {
    if (!disk_) {
        disk_.reset(archive_read_disk_new());
        entry_.reset(archive_entry_new());
        if (!disk_ || !entry_) throw std::bad_alloc();
        archive_read_disk_set_symlink_physical(disk_.get());
        // The encoder finds holes while it reads, and the flags are read already.
        archive_read_disk_set_behavior(disk_.get(), ARCHIVE_READDISK_NO_SPARSE | ARCHIVE_READDISK_NO_FFLAGS);
    }
    archive_entry_clear(entry_.get());
    archive_entry_copy_pathname(entry_.get(), path.c_str());
    archive_entry_copy_sourcepath(entry_.get(), path.c_str());
    const int result = archive_read_disk_entry_from_file(disk_.get(), entry_.get(), descriptor, nullptr);
    // A warning means that some attributes or lists could not be read; the others are there.
    if (result >= ARCHIVE_WARN) {
        takeAttributes(entry_.get(), tail);
        takeAccessLists(entry_.get(), tail);
    }
    if (result >= ARCHIVE_OK) return 0;
    return archive_errno(disk_.get()) > 0 ? -archive_errno(disk_.get()) : -EIO;
}

}  // namespace tarnwick::qvx
