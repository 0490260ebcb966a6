#include "qvx/extract/temporary_file.h"

#include <archive.h>
#include <archive_entry.h>
#include <fcntl.h>
#include <sys/acl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/handle.h"
#include "base/random_name.h"
#include "base/visible_text.h"
#include "base/write_piece.h"

namespace tarnwick::qvx {

namespace {

using Entry = std::unique_ptr<archive_entry, FreeWith<archive_entry_free>>;
using Acl = std::unique_ptr<std::remove_pointer_t<acl_t>, FreeWith<acl_free>>;

constexpr std::int64_t nanosecondsPerSecond = 1000000000;

int diskFlags() {
    const int owner = geteuid() == 0 ? ARCHIVE_EXTRACT_OWNER : 0;
    return owner | ARCHIVE_EXTRACT_PERM | ARCHIVE_EXTRACT_TIME;
}

Entry makeEntry(const std::string& name, const EntryHead& head) {
    Entry entry(archive_entry_new());
    if (!entry) throw std::bad_alloc();
    const mode_t type = head.type == EntryType::directory ? AE_IFDIR
                        : head.type == EntryType::link    ? AE_IFLNK
                                                          : AE_IFREG;
    archive_entry_set_pathname(entry.get(), name.c_str());
    archive_entry_set_filetype(entry.get(), type);
    archive_entry_set_perm(entry.get(), head.mode.value_or(head.type == EntryType::file ? 0600 : 0700));
    archive_entry_set_uid(entry.get(), head.userId ? *head.userId : geteuid());
    archive_entry_set_gid(entry.get(), head.groupId ? *head.groupId : getegid());
    if (head.modified) {
        std::int64_t nanoseconds = *head.modified % nanosecondsPerSecond;
        std::int64_t seconds = *head.modified / nanosecondsPerSecond;
        if (nanoseconds < 0) {
            nanoseconds += nanosecondsPerSecond;
            --seconds;
        }
        archive_entry_set_mtime(entry.get(), seconds, nanoseconds);
    }
    return entry;
}

std::string randomName() { return ".qvx-" + randomDigits(); }

// The messages of the library contain file names unescaped.
std::string problemOf(archive* disk, const char* otherwise) {
    const char* text = archive_error_string(disk);
    return text ? visibleText(text) : otherwise;
}

// Only root can set system and trusted attributes; another user would get a message for each file.
bool mayRestore(const std::string& attribute) { return geteuid() == 0 || attribute.starts_with("user."); }

// In an archive these come after the content, but the disk writer needs them before it; so they are set here. The
// descriptor is opened with O_PATH; its entry in /proc leads to the file itself, whatever has happened to the name.
void restoreExtras(ExtractionRun& run, const std::string& path, const FileDescriptor& file, EntryType type,
                   const EntryTail& tail) {
    const std::string place = "/proc/self/fd/" + std::to_string(file.get());
    if (tail.attributes)
        for (const auto& [attribute, value] : *tail.attributes)
            if (mayRestore(attribute) && setxattr(place.c_str(), attribute.c_str(), value.data(), value.size(), 0) != 0)
                run.warn({"extended attribute " + visibleText(attribute) + ": " + std::strerror(errno), 0, path});
    const auto setList = [&](const std::string& text, acl_type_t kind) {
        const Acl list(acl_from_text(text.c_str()));
        if (!list || acl_set_file(place.c_str(), kind, list.get()) != 0)
            run.warn({std::string("access control list: ") + std::strerror(errno), 0, path});
    };
    // A list that is not in the archive was inherited from the directory, and might allow more than the mode.
    const auto restoreList = [&](const std::string& text, acl_type_t kind, const char* attribute) {
        if (!text.empty()) return setList(text, kind);
        if (removexattr(place.c_str(), attribute) != 0 && errno != ENODATA && errno != ENOTSUP)
            run.warn({std::string("inherited access control list: ") + std::strerror(errno), 0, path});
    };
    if (type == EntryType::link) return;
    const auto lists = tail.accessLists.value_or(AccessLists{});
    restoreList(lists.access, ACL_TYPE_ACCESS, "system.posix_acl_access");
    if (type == EntryType::directory) restoreList(lists.defaultList, ACL_TYPE_DEFAULT, "system.posix_acl_default");
}

}  // namespace

std::size_t extrasSize(const EntryTail& tail) {
    std::size_t size = 0;
    if (tail.attributes)
        for (const auto& attribute : *tail.attributes)
            size += sizeof attribute + attribute.name.size() + attribute.value.size();
    if (tail.accessLists) size += tail.accessLists->access.size() + tail.accessLists->defaultList.size();
    return size;
}

void restoreDirectory(ExtractionRun& run, const std::string& name, const EntryHead& head, const EntryTail& tail) {
    const FileDescriptor file(open(name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!file) return run.warn({std::strerror(errno), 0, head.path});
    restoreExtras(run, head.path, file, EntryType::directory, tail);
    // The disk writer sets the times of directories when it is closed, so each directory has its own disk writer.
    const std::unique_ptr<archive, FreeWith<archive_write_free>> disk(archive_write_disk_new());
    if (!disk) throw std::bad_alloc();
    archive_write_disk_set_options(disk.get(), diskFlags() | ARCHIVE_EXTRACT_SECURE_SYMLINKS |
                                                   ARCHIVE_EXTRACT_SECURE_NODOTDOT |
                                                   ARCHIVE_EXTRACT_SECURE_NOABSOLUTEPATHS);
    const Entry entry = makeEntry(name, head);
    if (archive_write_header(disk.get(), entry.get()) != ARCHIVE_OK ||
        archive_write_finish_entry(disk.get()) != ARCHIVE_OK || archive_write_close(disk.get()) != ARCHIVE_OK)
        run.warn({problemOf(disk.get(), "metadata not restored"), 0, head.path});
}

void TemporaryFile::Free::operator()(archive* disk) const noexcept { archive_write_free(disk); }

bool TemporaryFile::create(int directory, const EntryHead& head, const std::string* linkTarget) {
    drop();
    offset_ = written_ = 0;
    linked_ = false;
    directory_ = directory;
    path_ = head.path;
    type_ = head.type;
    if (fchdir(directory) != 0) return refuseWithErrno();
    if (!disk_) {
        disk_.reset(archive_write_disk_new());
        if (!disk_) throw std::bad_alloc();
        // The name contains no directory that could be a link.
        archive_write_disk_set_options(disk_.get(), diskFlags() | ARCHIVE_EXTRACT_NO_OVERWRITE);
    }
    name_ = randomName();
    const Entry entry = makeEntry(name_, head);
    if (linkTarget) archive_entry_set_symlink(entry.get(), linkTarget->c_str());
    const int result = archive_write_header(disk_.get(), entry.get());
    if (result < ARCHIVE_WARN) {
        name_.clear();
        return refuse();
    }
    open_ = true;
    return hold();
}

// Other users may be able to write in the directory and put their own file under this name. It must not get rights that
// only root can grant.
bool TemporaryFile::hold() {
    struct stat status {};
    file_ = FileDescriptor(open(name_.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!file_) return refuseWithErrno();
    if (fstat(file_.get(), &status) != 0 || status.st_uid != geteuid() || status.st_nlink != 1) file_ = {};
    return true;
}

bool TemporaryFile::data(Bytes bytes) {
    while (!bytes.empty()) {
        const Bytes piece = bytes.first(std::min(bytes.size(), writePiece));
        const auto position = static_cast<la_int64_t>(offset_);
        if (archive_write_data_block(disk_.get(), piece.data(), piece.size(), position) < ARCHIVE_OK) return refuse();
        offset_ += piece.size();
        written_ = offset_;
        bytes = bytes.subspan(piece.size());
    }
    return true;
}

bool TemporaryFile::hole(std::uint64_t length) {
    offset_ += length;
    return true;
}

bool TemporaryFile::finish(const EntryTail& tail) {
    static constexpr std::uint8_t zero = 0;
    // The disk writer knows the size only from the last byte written.
    if (offset_ > written_) {
        --offset_;
        if (!data(Bytes(&zero, 1))) return false;
    }
    open_ = false;
    const int result = archive_write_finish_entry(disk_.get());
    if (result < ARCHIVE_WARN) return refuse();
    if (result < ARCHIVE_OK) run_.warn({problemOf(disk_.get(), "metadata not restored"), 0, path_});
    if (file_) {
        restoreExtras(run_, path_, file_, type_, tail);
    } else {
        run_.warn({"attributes and access control lists are not restored: the file has another owner", 0, path_});
    }
    return true;
}

bool TemporaryFile::rename(const std::string& name, bool replace) {
    int result = renameat2(directory_, name_.c_str(), directory_, name.c_str(), replace ? 0 : RENAME_NOREPLACE);
    if (result != 0 && errno == EISDIR && unlinkat(directory_, name.c_str(), AT_REMOVEDIR) == 0)
        result = renameat(directory_, name_.c_str(), directory_, name.c_str());
    if (result != 0) return refuseWithErrno();
    // When both names belong to the same file already, rename(2) does nothing.
    if (linked_) unlinkat(directory_, name_.c_str(), 0);
    name_.clear();
    return true;
}

bool TemporaryFile::link(int directory, int source) {
    drop();
    linked_ = true;
    directory_ = directory;
    name_ = randomName();
    const std::string place = "/proc/self/fd/" + std::to_string(source);
    if (linkat(AT_FDCWD, place.c_str(), directory, name_.c_str(), AT_SYMLINK_FOLLOW) == 0) return true;
    name_.clear();
    return refuseWithErrno();
}

void TemporaryFile::drop() {
    if (open_) archive_write_finish_entry(disk_.get());
    open_ = false;
    if (exists()) unlinkat(directory_, name_.c_str(), 0);
    name_.clear();
    file_ = {};
}

bool TemporaryFile::refuse() {
    const int error = archive_errno(disk_.get());
    what_ = problemOf(disk_.get(), "cannot be written");
    if (error > 0) what_ += std::string(": ") + std::strerror(error);
    return false;
}

bool TemporaryFile::refuseWithErrno() {
    const int error = errno;
    what_ = std::strerror(error);
    errno = error;
    return false;
}

}  // namespace tarnwick::qvx
