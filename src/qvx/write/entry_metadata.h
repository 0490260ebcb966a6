// The metadata of one file on the disk.
#pragma once

#include <archive.h>
#include <archive_entry.h>
#include <sys/stat.h>

#include <memory>
#include <string>

#include "base/error.h"
#include "base/handle.h"
#include "qvx/format/entry_codec.h"

namespace tarnwick::qvx {

// Reads the status of the file `name` in the open folder `descriptor`, without following a link; of the open file
// itself when `name` is empty. The birth time is included where the file system has it.
Status readStatus(int descriptor, const char* name, struct statx& status);

// Reads one file after another. For one thread at a time.
class MetadataReader {
public:
    // Fills the fields of `head` and the attributes and access lists of `tail` for the open file `descriptor`. A
    // symbolic link is not open (-1) and is read by its path. Attributes past their size limit are left out, and the
    // tail says so. On a failure, what could be read is filled in. Throws std::bad_alloc.
    Status read(const std::string& path, int descriptor, const struct statx& status, EntryHead& head, EntryTail& tail);

private:
    Status readAttributes(const std::string& path, int descriptor, const struct statx& status, EntryTail& tail);

    std::unique_ptr<archive, FreeWith<archive_read_free>> disk_;
    std::unique_ptr<archive_entry, FreeWith<archive_entry_free>> entry_;
};

}  // namespace tarnwick::qvx
