// One entry of a path list with what is on the disk for it: its metadata and, when it is small, its content.
#pragma once

#include "base/error.h"
#include "base/handle.h"
#include "qvx/format/content_digest.h"
#include "qvx/format/entry_codec.h"
#include "qvx/write/entry_metadata.h"
#include "qvx/write/path_list.h"

namespace tarnwick::qvx {

struct DiskEntry {
    PathList::Entry listed;
    int error = 0;          // errno value: the file has vanished or was replaced, or memory or descriptors ran out
    int unreadable = 0;     // errno value: the file is there, but a part of it could not be read or stored
    bool unopened = false;  // the file could not be opened: at most its size is known; `unreadable` is set
    struct statx status {};
    EntryHead head;  // all but the number
    EntryTail tail;
    FileDescriptor file;   // open when the content of a regular file is still to be read
    Bytes content;         // otherwise the content of the file, or the target of the link
    Digest digest{};       // of `content`
    MutableBytes awaited;  // where the content goes that was requested from the disk but has not arrived
};

// Reads one entry after another. For one thread at a time.
class DiskEntryReader {
public:
    // Fills `entry`, whose `listed` is set. A content of at most `buffer.size()` bytes is read into the front of
    // `buffer`, unless the file has holes, reports size 0 but has content, or cannot be read. A content that is not in
    // the page cache is only requested from the disk; finish() reads it. Throws std::bad_alloc.
    void begin(DiskEntry& entry, MutableBytes buffer);

    // Reads the content that begin() only requested.
    void finish(DiskEntry& entry);

private:
    static void record(const Status& status, DiskEntry& entry);
    static void describeUnopened(DiskEntry& entry);
    Status openFolder(const PathList::Entry& listed);
    Status open(DiskEntry& entry);
    Status readLink(DiskEntry& entry, MutableBytes buffer);
    Status readSmall(DiskEntry& entry, MutableBytes buffer);
    Status readWhole(DiskEntry& entry, MutableBytes buffer);
    void setContent(DiskEntry& entry, Bytes content);

    // The folder of the previous entry. The next one is mostly in the same folder, so its path need not be resolved
    // again.
    std::string folderPath_;
    bool folderGuarded_ = false;
    FileDescriptor folder_;
    struct statx folderStatus_ {};
    MetadataReader metadata_;
    ContentDigest digest_;
};

// Bytes that requestContent() requests: 0 if the content has been read.
std::uint64_t requestSize(const DiskEntry& entry);

// Requests the first 4 MiB of the content from the disk. begin() has requested only 256 KiB, because many entries are
// read ahead.
void requestContent(const DiskEntry& entry);

// Whether an errno value of an open or a read means that the file is there but cannot be read. False when the file has
// vanished or was replaced, and when memory or descriptors ran out.
bool isUnreadable(int error);

}  // namespace tarnwick::qvx
