#include "platform/archive/disk_entry.h"

#include <fcntl.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace tarnwick::qvx {

namespace {

constexpr off_t fetchedAhead = 262144;  // bytes of a large file

FileDescriptor openListed(int folder, const char* name, const PathList::Entry& listed) {
    const int kind = listed.type == EntryType::directory ? O_DIRECTORY : O_NONBLOCK | O_NOCTTY;
    const int flags = O_RDONLY | O_NOFOLLOW | O_CLOEXEC | kind;
    FileDescriptor file(::openat(folder, name, flags | O_NOATIME));
    if (!file && errno == EPERM) file = FileDescriptor(::openat(folder, name, flags));
    return file;
}

// A name may have been given to something else since it was listed. Another file of the same kind on the same device
// is what a rotated log looks like, and is taken; anything else is not what was asked for.
int expectListed(const PathList::Entry& listed, const struct statx& status) {
    const dev_t device = ::makedev(status.stx_dev_major, status.stx_dev_minor);
    return entryTypeOf(status.stx_mode) == listed.type && device == listed.device ? 0 : -ESTALE;
}

}  // namespace

std::int64_t readAt(int file, MutableBytes room, std::uint64_t position) {
    for (;;) {
        const ssize_t count = ::pread(file, room.data(), room.size(), static_cast<off_t>(position));
        if (count >= 0) return count;
        if (errno != EINTR) return -errno;
    }
}

void DiskEntryReader::begin(DiskEntry& entry, MutableBytes room) {
    entry.error = open(entry);
    if (entry.error != 0) return;
    entry.error = metadata_.read(entry.listed.path, entry.file.get(), entry.status, entry.head, entry.tail);
    if (entry.error != 0) return;
    if (entry.listed.type == EntryType::directory) entry.file = FileDescriptor();
    if (entry.listed.type == EntryType::link) entry.error = readLink(entry, room);
    if (entry.listed.type == EntryType::file) entry.error = readSmall(entry, room);
}

void DiskEntryReader::finish(DiskEntry& entry) {
    if (!entry.awaited.empty()) entry.error = readWhole(entry, std::exchange(entry.awaited, {}));
}

int DiskEntryReader::hold(const std::string& folder) {
    if (folder_ && folder == folderPath_) return 0;
    folderPath_ = folder;
    folder_ = FileDescriptor(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    return folder_ ? 0 : -errno;
}

// The look comes before the opening, so that no device is ever opened, and again behind it.
int DiskEntryReader::open(DiskEntry& entry) {
    const std::string& path = entry.listed.path;
    const std::size_t nameAt = path.rfind('/') + 1;
    if (const int error = hold(path.substr(0, nameAt))) return error;
    const char* name = nameAt < path.size() ? path.c_str() + nameAt : ".";
    if (const int error = readStatus(folder_.get(), name, entry.status)) return error;
    if (const int error = expectListed(entry.listed, entry.status)) return error;
    entry.head.type = entry.listed.type;
    entry.head.path = path.substr(1);
    if (entry.listed.type == EntryType::link) return 0;
    entry.file = openListed(folder_.get(), name, entry.listed);
    if (!entry.file) return -errno;
    if (const int error = readStatus(entry.file.get(), "", entry.status)) return error;
    return expectListed(entry.listed, entry.status);
}

int DiskEntryReader::readLink(DiskEntry& entry, MutableBytes room) {
    const ssize_t length = ::readlink(entry.listed.path.c_str(), reinterpret_cast<char*>(room.data()), room.size());
    if (length < 0) return -errno;
    if (length == 0) return -EIO;  // only a broken file system has such a link, and no reader would take it
    take(entry, room.first(static_cast<std::size_t>(length)));
    return 0;
}

int DiskEntryReader::readSmall(DiskEntry& entry, MutableBytes room) {
    const std::uint64_t size = entry.status.stx_size;
    if (size <= room.size() && entry.status.stx_blocks * 512 < size) return 0;
    // A file that says it is empty is asked for one byte: pseudo file systems say so of what is not.
    if (size == 0) return room.empty() ? 0 : readWhole(entry, room.first(1));
    if (size <= room.size()) {
        entry.awaited = room.first(static_cast<std::size_t>(size));
        const iovec place{entry.awaited.data(), entry.awaited.size()};
        if (::preadv2(entry.file.get(), &place, 1, 0, RWF_NOWAIT) == static_cast<ssize_t>(size)) {
            take(entry, std::exchange(entry.awaited, {}));
            return 0;
        }
    }
    // The disk may begin, with many at a time; also with a larger one, which is read when its turn comes.
    ::posix_fadvise(entry.file.get(), 0, fetchedAhead, POSIX_FADV_WILLNEED);
    return 0;
}

int DiskEntryReader::readWhole(DiskEntry& entry, MutableBytes room) {
    std::size_t length = 0;
    while (length < room.size()) {
        const std::int64_t count = readAt(entry.file.get(), room.subspan(length), length);
        if (count < 0) return static_cast<int>(count);
        if (count == 0) break;
        length += static_cast<std::size_t>(count);
    }
    if (entry.status.stx_size > 0 || length == 0) take(entry, room.first(length));
    return 0;
}

void DiskEntryReader::take(DiskEntry& entry, Bytes content) {
    entry.content = content;
    entry.file = FileDescriptor();
    digest_.restart();
    digest_.add(content);
    entry.digest = digest_.finish();
}

}  // namespace tarnwick::qvx
