#include "qvx/write/disk_entry.h"

#include <fcntl.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

#include "base/file_reading.h"
#include "base/guarded_open.h"
#include "qvx/format/field_table.h"

namespace tarnwick::qvx {

namespace {

// Bytes of a large file that are requested when it is opened, and before the encoder reads it.
constexpr off_t firstRequest = 262144;
constexpr off_t secondRequest = 4194304;

FileDescriptor openListed(int folder, const char* name, const PathList::Entry& listed) {
    const int kind = listed.type == EntryType::directory ? O_DIRECTORY : O_NONBLOCK | O_NOCTTY;
    const int flags = O_RDONLY | O_NOFOLLOW | O_CLOEXEC | kind;
    // Reading must not change access times. The kernel allows O_NOATIME only to the owner and to root.
    FileDescriptor file(::openat(folder, name, flags | O_NOATIME));
    if (!file && errno == EPERM) file = FileDescriptor(::openat(folder, name, flags));
    return file;
}

dev_t deviceOf(const struct statx& status) { return ::makedev(status.stx_dev_major, status.stx_dev_minor); }

// The name may belong to another file by now. Another file of the same kind on the same device is accepted: a log was
// rotated. Anything else was not asked for. A rotated log has one link; a file with more may be another person's file
// that a user has linked under this name.
Status expectListed(const PathList::Entry& listed, const struct statx& status) {
    const bool same = deviceOf(status) == listed.device && entryTypeOf(status.stx_mode) == listed.type;
    const bool rotated = status.stx_ino != listed.inode;
    if (same && !(listed.isGuarded() && rotated && status.stx_nlink > 1)) return {};
    return systemError(ESTALE);
}

Status expectAt(int descriptor, const char* name, DiskEntry& entry) {
    if (Status read = readStatus(descriptor, name, entry.status); !read) return read;
    return expectListed(entry.listed, entry.status);
}

}  // namespace

bool isUnreadable(int error) {
    // The file is gone or replaced, or memory or descriptors are missing. Every other error makes the entry incomplete.
    constexpr int others[] = {ENOENT, ENOTDIR, ELOOP, ESTALE, ENOMEM, EMFILE, ENFILE};
    return std::ranges::find(others, error) == std::end(others);
}

std::uint64_t requestSize(const DiskEntry& entry) {
    return entry.file ? std::min<std::uint64_t>(entry.status.stx_size, secondRequest) : 0;
}

void requestContent(const DiskEntry& entry) {
    if (requestSize(entry) > firstRequest) ::posix_fadvise(entry.file.get(), 0, secondRequest, POSIX_FADV_WILLNEED);
}

void DiskEntryReader::begin(DiskEntry& entry, MutableBytes buffer) {
    if (const Status opened = open(entry); !opened) {
        record(opened, entry);
        return describeUnopened(entry);
    }
    // A symbolic link is not opened. Its attributes are read through the path of the open folder.
    AttributeSource source{entry.file.get()};
    if (!entry.file) source.path = "/proc/self/fd/" + std::to_string(folder_.get()) + '/' + nameOf(entry.listed.path);
    record(metadata_.read(source, entry.status, entry.head, entry.tail), entry);
    // A directory has no content that is read later.
    if (entry.listed.type == EntryType::directory) entry.file = FileDescriptor();
    if (entry.listed.type == EntryType::link) record(readLink(entry, buffer), entry);
    if (entry.listed.type == EntryType::file) record(readSmall(entry, buffer), entry);
}

void DiskEntryReader::finish(DiskEntry& entry) {
    if (!entry.awaited.empty()) record(readWhole(entry, std::exchange(entry.awaited, {})), entry);
}

void DiskEntryReader::record(const Status& status, DiskEntry& entry) {
    if (status) return;
    const int code = status.error().code != 0 ? status.error().code : EIO;
    (isUnreadable(code) ? entry.unreadable : entry.error) = code;
}

void DiskEntryReader::describeUnopened(DiskEntry& entry) {
    entry.unopened = true;
    entry.file = FileDescriptor();
    entry.head.type = entry.listed.type;
    entry.head.path = entry.listed.path.substr(1);
    // The entry is incomplete already, so a field that is left out needs no further mark.
    if (entry.status.stx_mask != 0) static_cast<void>(captureFields({entry.status, entry.head.type}, entry.head));
}

Status DiskEntryReader::openFolder(const PathList::Entry& listed) {
    const auto path = folderOf(listed.path);
    if (!folder_ || path != folderPath_ || listed.isGuarded() != folderGuarded_) {
        folderPath_ = path;
        folderGuarded_ = listed.isGuarded();
        auto opened = folderGuarded_ ? openDirectoryGuarded(folderPath_) : openDirectory(folderPath_);
        folder_ = opened ? std::move(*opened) : FileDescriptor();
        if (!opened) return opened.error();
        Status read = folderGuarded_ ? readStatus(folder_.get(), "", folderStatus_) : Status();
        if (!read) folder_ = FileDescriptor();
        if (!read) return read;
    }
    const auto same = [&] {
        return deviceOf(folderStatus_) == listed.folderDevice && folderStatus_.stx_ino == listed.folderInode;
    };
    return !folderGuarded_ || same() ? Status() : systemError(ESTALE);
}

Status DiskEntryReader::open(DiskEntry& entry) {
    if (Status opened = openFolder(entry.listed); !opened) return opened;
    entry.head.type = entry.listed.type;
    entry.head.path = entry.listed.path.substr(1);
    const char* name = nameOf(entry.listed.path);
    // Other users may replace a guarded file with a device, whose opening has effects. The list was made long ago.
    if (entry.listed.isGuarded() || entry.listed.type == EntryType::link) {
        if (Status found = expectAt(folder_.get(), name, entry); !found) return found;
    }
    if (entry.listed.type == EntryType::link) return {};
    entry.file = openListed(folder_.get(), name, entry.listed);
    if (entry.file) return expectAt(entry.file.get(), "", entry);
    const int error = errno;
    const Status found = expectAt(folder_.get(), name, entry);
    return found ? systemError(error) : found;
}

Status DiskEntryReader::readLink(DiskEntry& entry, MutableBytes buffer) {
    const ssize_t length =
        ::readlinkat(folder_.get(), nameOf(entry.listed.path), reinterpret_cast<char*>(buffer.data()), buffer.size());
    if (length < 0) return systemError(errno);
    const MutableBytes target = buffer.first(static_cast<std::size_t>(length));
    // Only on a damaged file system; readers refuse such a target.
    if (target.empty() || target.size() > maxTargetLength || std::ranges::count(target, 0) > 0) return systemError(EIO);
    setContent(entry, target);
    return {};
}

Status DiskEntryReader::readSmall(DiskEntry& entry, MutableBytes buffer) {
    const std::uint64_t size = entry.status.stx_size;
    // A file with holes is left to the encoder, which stores the holes.
    if (size <= buffer.size() && entry.status.stx_blocks * 512 < size) return {};
    // Pseudo file systems report size 0 for files that have content. One byte shows whether the file is really empty.
    if (size == 0) return buffer.empty() ? Status() : readWhole(entry, buffer.first(1));
    if (size <= buffer.size()) {
        entry.awaited = buffer.first(static_cast<std::size_t>(size));
        // RWF_NOWAIT reads only what is in the page cache, so that one slow file does not delay the batch.
        const iovec place{entry.awaited.data(), entry.awaited.size()};
        if (::preadv2(entry.file.get(), &place, 1, 0, RWF_NOWAIT) == static_cast<ssize_t>(size)) {
            setContent(entry, std::exchange(entry.awaited, {}));
            return {};
        }
    }
    // Requests the file, or the beginning of a large one that the encoder reads later, so that the disk works on many
    // requests at a time.
    ::posix_fadvise(entry.file.get(), 0, firstRequest, POSIX_FADV_WILLNEED);
    return {};
}

Status DiskEntryReader::readWhole(DiskEntry& entry, MutableBytes buffer) {
    std::size_t length = 0;
    while (length < buffer.size()) {
        const auto count = readAt(entry.file.get(), buffer.subspan(length), length);
        // The encoder reads such a file again and skips only the parts that fail.
        if (!count && isUnreadable(count.error().code)) return {};
        if (!count) return count.error();
        if (*count == 0) break;
        length += *count;
    }
    if (entry.status.stx_size > 0 || length == 0) setContent(entry, buffer.first(length));
    return {};
}

// Closes the file: many entries wait in a batch, and the number of open files is limited.
void DiskEntryReader::setContent(DiskEntry& entry, Bytes content) {
    entry.content = content;
    entry.file = FileDescriptor();
    digest_.restart();
    digest_.add(content);
    entry.digest = digest_.finish();
}

}  // namespace tarnwick::qvx
