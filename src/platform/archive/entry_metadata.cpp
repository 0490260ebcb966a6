#include "platform/archive/entry_metadata.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdlib>
#include <new>

namespace tarnwick::qvx {

namespace {

std::int64_t nanoseconds(std::int64_t seconds, std::int64_t rest) {
    return wrappingAdd(static_cast<std::int64_t>(static_cast<std::uint64_t>(seconds) * 1'000'000'000u), rest);
}

// Not every file system knows when a file was born, and libarchive does not ask on Linux.
std::optional<std::int64_t> birthTime(const std::string& path, int descriptor) {
    struct statx extended {};
    const int flags = AT_SYMLINK_NOFOLLOW | (descriptor >= 0 ? AT_EMPTY_PATH : 0);
    const char* name = descriptor >= 0 ? "" : path.c_str();
    if (::statx(descriptor >= 0 ? descriptor : AT_FDCWD, name, flags, STATX_BTIME, &extended) != 0 ||
        !(extended.stx_mask & STATX_BTIME))
        return std::nullopt;
    return nanoseconds(extended.stx_btime.tv_sec, extended.stx_btime.tv_nsec);
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

MetadataReader::MetadataReader() : disk_(archive_read_disk_new()), entry_(archive_entry_new()) {
    if (!disk_ || !entry_) throw std::bad_alloc();
    archive_read_disk_set_symlink_physical(disk_.get());
    archive_read_disk_set_behavior(disk_.get(), ARCHIVE_READDISK_NO_SPARSE);  // holes are found while reading
}

int MetadataReader::read(const std::string& path, int descriptor, const struct stat& status, EntryHead& head,
                         EntryTail& tail) {
    archive_entry_clear(entry_.get());
    archive_entry_copy_pathname(entry_.get(), path.c_str());
    archive_entry_copy_sourcepath(entry_.get(), path.c_str());
    // Attributes or lists that cannot be read are a warning there, and no reason to lose the file.
    if (archive_read_disk_entry_from_file(disk_.get(), entry_.get(), descriptor, &status) < ARCHIVE_WARN)
        return archive_errno(disk_.get()) > 0 ? -archive_errno(disk_.get()) : -EIO;
    head.userId = status.st_uid;
    head.groupId = status.st_gid;
    head.mode = static_cast<std::uint16_t>(status.st_mode & 07777);
    head.modified = nanoseconds(status.st_mtim.tv_sec, status.st_mtim.tv_nsec);
    head.changed = nanoseconds(status.st_ctim.tv_sec, status.st_ctim.tv_nsec);
    head.born = birthTime(path, descriptor);
    unsigned long set = 0, clear = 0;
    archive_entry_fflags(entry_.get(), &set, &clear);
    if (set != 0) head.flags = static_cast<std::uint32_t>(set);
    takeAttributes(entry_.get(), tail);
    takeAccessLists(entry_.get(), tail);
    return 0;
}

}  // namespace tarnwick::qvx
