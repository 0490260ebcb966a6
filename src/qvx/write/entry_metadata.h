// The metadata of one file on the disk.
#pragma once

#include <archive.h>
#include <archive_entry.h>
#include <sys/stat.h>

#include <memory>
#include <string>

#include "base/handle.h"
#include "qvx/format/entry_codec.h"

namespace tarnwick::qvx {

// Of what has the name in an open folder, which is not followed, or, where the name is empty, of an open file. Birth
// time is in it where the file system knows it. Returns 0 or a negative errno value.
int readStatus(int descriptor, const char* name, struct statx& status);

// Fills the fields of `head` that the status knows.
void takeStatus(const struct statx& status, EntryHead& head);

// Reads one file after the other. One thread at a time.
class MetadataReader {
public:
    // Fills the fields of `head` and the attributes and access lists of `tail` for the file that is open as
    // `descriptor`; a symbolic link is not open (-1) and read by its path. Attributes past their limit are left out and
    // marked so. Returns 0 or a negative errno value, after filling in what could be read; throws std::bad_alloc.
    int read(const std::string& path, int descriptor, const struct statx& status, EntryHead& head, EntryTail& tail);

private:
    int readAttributes(const std::string& path, int descriptor, EntryTail& tail);

    std::unique_ptr<archive, FreeWith<archive_read_free>> disk_;
    std::unique_ptr<archive_entry, FreeWith<archive_entry_free>> entry_;
};

}  // namespace tarnwick::qvx
