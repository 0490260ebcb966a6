// One entry of a path list as it stands on the disk: opened, looked at and, when it is small, read.
#pragma once

#include "qvx/format/content_digest.h"
#include "qvx/write/entry_metadata.h"
#include "qvx/write/path_list.h"

namespace tarnwick::qvx {

struct DiskEntry {
    PathList::Entry listed;
    int error = 0;       // a negative errno value: it is not there any more, or is something else, or we lack resources
    int unreadable = 0;  // a negative errno value: it is there, and a part of it could not be read
    bool unopened = false;  // of its content only the size is known, if that; then `unreadable` is set
    struct statx status {};
    EntryHead head;  // without its number
    EntryTail tail;
    FileDescriptor file;   // a regular file whose content is still to be read
    Bytes content;         // when it is not: the content of a file, the target of a link
    Digest digest{};       // of `content`
    MutableBytes awaited;  // room for a content that the disk was asked for
};

// Reads one entry after the other. One thread at a time.
class DiskEntryReader {
public:
    // Fills all but `listed`. A content of at most `room.size()` bytes is read into the front of `room`, unless it has
    // holes, is of a file that says it is empty and is not, or cannot be read; where the disk keeps us waiting, it will
    // be by finish(). Throws std::bad_alloc.
    void begin(DiskEntry& entry, MutableBytes room);

    // Waits for what begin() left to be awaited.
    void finish(DiskEntry& entry);

private:
    static void note(DiskEntry& entry, int error);
    static void describeUnopened(DiskEntry& entry, int error);
    int hold(const PathList::Entry& listed);
    int open(DiskEntry& entry);
    int readLink(DiskEntry& entry, MutableBytes room);
    int readSmall(DiskEntry& entry, MutableBytes room);
    int readWhole(DiskEntry& entry, MutableBytes room);
    void take(DiskEntry& entry, Bytes content);

    // Of the entry before and mostly of this one, too: the kernel need not resolve the path again for each.
    std::string folderPath_;
    bool folderGuarded_ = false;
    FileDescriptor folder_;
    struct statx folderStatus_ {};
    MetadataReader metadata_;
    ContentDigest digest_;
};

// Whether a negative errno value of an open or a read means that the file is there and cannot be read: it has neither
// vanished nor become another, and we do not lack memory or descriptors.
bool isUnreadable(int error);

// As pread(), but tried again when a signal came in between; a negative errno value on failure.
std::int64_t readAt(int file, MutableBytes room, std::uint64_t position);

}  // namespace tarnwick::qvx
