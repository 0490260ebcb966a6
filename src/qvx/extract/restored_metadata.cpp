#include "qvx/extract/restored_metadata.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>

#include "base/visible_text.h"
#include "qvx/format/access_list.h"
#include "qvx/format/field_table.h"

namespace tarnwick::qvx {

namespace {

using DiskEntry = std::unique_ptr<archive_entry, FreeWith<archive_entry_free>>;

constexpr std::int64_t nanosecondsPerSecond = 1000000000;

struct Privileges {
    bool owner = false;             // set owner and group
    bool systemAttributes = false;  // set attributes outside of "user."
};

// Decides which metadata is restored. Users other than root would get a message for each file.
Privileges privileges() {
    const bool root = geteuid() == 0;
    return {.owner = root, .systemAttributes = root};
}

bool isRestored(const ExtendedAttribute& attribute) {
    return attribute.name.starts_with("user.") || privileges().systemAttributes;
}

mode_t fileType(EntryType type) {
    switch (type) {
        case EntryType::directory: return AE_IFDIR;
        case EntryType::link: return AE_IFLNK;
        case EntryType::file: break;
    }
    return AE_IFREG;
}

void setModified(archive_entry* entry, std::int64_t modified) {
    std::int64_t seconds = modified / nanosecondsPerSecond;
    std::int64_t nanoseconds = modified % nanosecondsPerSecond;
    if (nanoseconds < 0) {
        nanoseconds += nanosecondsPerSecond;
        --seconds;
    }
    archive_entry_set_mtime(entry, seconds, nanoseconds);
}

DiskEntry makeEntry(const std::string& name, const EntryHead& head) {
    DiskEntry entry(archive_entry_new());
    if (!entry) throw std::bad_alloc();
    archive_entry_set_pathname(entry.get(), name.c_str());
    archive_entry_set_filetype(entry.get(), fileType(head.type));
    // If the archive has no mode or owner, the file belongs to this user, and nobody else has access.
    archive_entry_set_perm(entry.get(), head.mode.value_or(head.type == EntryType::file ? 0600 : 0700));
    archive_entry_set_uid(entry.get(), head.userId.value_or(geteuid()));
    archive_entry_set_gid(entry.get(), head.groupId.value_or(getegid()));
    if (head.modified) setModified(entry.get(), *head.modified);
    return entry;
}

// The attributes and access control lists of one open file.
class AttributeWriter {
public:
    // An O_PATH descriptor has no attribute calls. Its entry in /proc leads to the file itself, whatever has happened
    // to the name.
    AttributeWriter(ExtractionRun& run, const std::string& path, const FileDescriptor& file)
        : run_(run), path_(path), place_("/proc/self/fd/" + std::to_string(file.get())) {}

    void setAttribute(const ExtendedAttribute& attribute) {
        if (!set(attribute.name.c_str(), attribute.value)) warn(errno, "extended attribute ", attribute.name);
    }

    // A list that is not in the archive was inherited from the directory, and might allow more than the mode.
    void setList(const AccessList& list, const char* attribute) {
        if (list.empty()) return removeList(attribute);
        if (!set(attribute, kernelAccessList(list))) warn(errno, "access control list");
    }

private:
    bool set(const char* name, const std::string& value) {
        return setxattr(place_.c_str(), name, value.data(), value.size(), 0) == 0;
    }

    void removeList(const char* attribute) {
        if (removexattr(place_.c_str(), attribute) != 0 && errno != ENODATA && errno != ENOTSUP)
            warn(errno, "inherited access control list");
    }

    // `code` is evaluated before any text is built, which could change errno.
    void warn(int code, std::string_view what, const std::string& name = {}) {
        run_.warn({std::string(what) + visibleText(name) + ": " + std::strerror(code), code, path_});
    }

    ExtractionRun& run_;
    const std::string& path_;
    const std::string place_;
};

}  // namespace

void FreeDiskWriter::operator()(archive* writer) const noexcept { archive_write_free(writer); }

std::size_t attributeMemory(const EntryTail& tail) {
    std::size_t size = 0;
    if (tail.attributes)
        for (const auto& attribute : *tail.attributes)
            size += sizeof attribute + attribute.name.size() + attribute.value.size();
    if (tail.accessLists)
        size += (tail.accessLists->access.size() + tail.accessLists->defaultList.size()) * sizeof(AccessRule);
    return size;
}

DiskWriter newDiskWriter(int flags) {
    DiskWriter writer(archive_write_disk_new());
    if (!writer) throw std::bad_alloc();
    // The kernel allows only root to give a file away.
    const int owner = privileges().owner ? ARCHIVE_EXTRACT_OWNER : 0;
    archive_write_disk_set_options(writer.get(), flags | owner | ARCHIVE_EXTRACT_PERM | ARCHIVE_EXTRACT_TIME);
    return writer;
}

int writeHeader(archive* writer, const std::string& name, const EntryHead& head, const std::string* linkTarget) {
    const DiskEntry entry = makeEntry(name, head);
    if (linkTarget) archive_entry_set_symlink(entry.get(), linkTarget->c_str());
    return archive_write_header(writer, entry.get());
}

// The messages of the library contain file names unescaped.
Error writerError(archive* writer, const char* fallback, const std::string& path) {
    const char* text = archive_error_string(writer);
    return {text ? visibleText(text) : fallback, std::max(0, archive_errno(writer)), path};
}

void restoreAttributes(ExtractionRun& run, const EntryHead& head, const FileDescriptor& file, const EntryTail& tail) {
    AttributeWriter writer(run, head.path, file);
    if (tail.attributes)
        for (const auto& attribute : *tail.attributes)
            if (isRestored(attribute)) writer.setAttribute(attribute);
    // The kernel has no access control lists for links.
    if (head.type == EntryType::link) return;
    const auto lists = tail.accessLists.value_or(AccessLists{});
    writer.setList(lists.access, accessListAttribute);
    if (head.type == EntryType::directory) writer.setList(lists.defaultList, defaultListAttribute);
}

void restoreDirectory(ExtractionRun& run, const std::string& name, const EntryHead& head, const EntryTail& tail) {
    // A name that has become a link in the meantime is refused, not followed.
    const FileDescriptor file(open(name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!file) return run.warn(systemError(errno, head.path));
    restoreAttributes(run, head, file, tail);
    // The disk writer sets the times of directories when it is closed, so each directory has its own disk writer.
    const DiskWriter writer = newDiskWriter(ARCHIVE_EXTRACT_SECURE_SYMLINKS | ARCHIVE_EXTRACT_SECURE_NODOTDOT |
                                            ARCHIVE_EXTRACT_SECURE_NOABSOLUTEPATHS);
    if (writeHeader(writer.get(), name, head, nullptr) != ARCHIVE_OK ||
        archive_write_finish_entry(writer.get()) != ARCHIVE_OK || archive_write_close(writer.get()) != ARCHIVE_OK)
        run.warn(writerError(writer.get(), "metadata not restored", head.path));
}

}  // namespace tarnwick::qvx
