#include "qvx/write/entry_metadata.h"

#include <fcntl.h>
#include <sys/xattr.h>

#include <cerrno>
#include <new>

#include "qvx/format/field_table.h"

namespace tarnwick::qvx {

namespace {

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
Status probeAttributes(const std::string& path, int descriptor, std::size_t length) {
    std::string names(length, '\0');
    const ssize_t listed = listAttributes(path, descriptor, names.data(), names.size());
    if (listed < 0) return errno == ERANGE ? Status() : systemError(errno);
    names.resize(static_cast<std::size_t>(listed));
    for (std::size_t at = 0; at < names.size(); at += std::char_traits<char>::length(&names[at]) + 1)
        if (attributeLength(path, descriptor, &names[at]) < 0 && errno != ENODATA && errno != ENOTSUP)
            return systemError(errno);
    return {};
}

}  // namespace

Status readStatus(int descriptor, const char* name, struct statx& status) {
    constexpr int flags = AT_EMPTY_PATH | AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT;
    if (::statx(descriptor, name, flags, STATX_BASIC_STATS | STATX_BTIME, &status) == 0) return {};
    return systemError(errno);
}

Status MetadataReader::read(const std::string& path, int descriptor, const struct statx& status, EntryHead& head,
                            EntryTail& tail) {
    captureFields({status, descriptor}, head);
    // Most files have no attributes; this one call shows it.
    const ssize_t length = listAttributes(path, descriptor, nullptr, 0);
    if (length < 0) return errno == ENOTSUP || errno == ENOSYS ? Status() : systemError(errno);
    if (length == 0) return {};
    if (Status read = readAttributes(path, descriptor, status, tail); !read) return read;
    return probeAttributes(path, descriptor, static_cast<std::size_t>(length));
}

Status MetadataReader::readAttributes(const std::string& path, int descriptor, const struct statx& status,
                                      EntryTail& tail) {
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
        captureFields({status, descriptor, entry_.get()}, tail);
    }
    if (result >= ARCHIVE_OK) return {};
    return systemError(archive_errno(disk_.get()) > 0 ? archive_errno(disk_.get()) : EIO);
}

}  // namespace tarnwick::qvx
