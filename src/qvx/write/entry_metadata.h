// The metadata of one file on the disk.
#pragma once

#include <sys/stat.h>

#include <string>
#include <vector>

#include "base/error.h"
#include "qvx/format/field_table.h"

namespace tarnwick::qvx {

// Reads the status of the file `name` in the open folder `descriptor`, without following a link; of the open file
// itself when `name` is empty. The birth time is included where the file system has it.
Status readStatus(int descriptor, const char* name, struct statx& status);

// A file whose attributes are read: an open one, or the symbolic link at `path`, which cannot be opened.
struct AttributeSource {
    int descriptor = -1;  // -1 for a link
    std::string path{};   // of a link
};

// Reads one file after another. For one thread at a time.
class MetadataReader {
public:
    MetadataReader() : names_(maxAttributeBuffer), value_(maxAttributeBuffer) {}

    // Fills the fields of `head`, whose type is set, and the attributes and access lists of `tail`. Leaves out what
    // cannot be read and what an archive cannot have, and fails: with E2BIG for attributes and lists that an archive
    // cannot have, with EOVERFLOW for times. Throws std::bad_alloc.
    Status read(const AttributeSource& source, const struct statx& status, EntryHead& head, EntryTail& tail);

private:
    static constexpr std::size_t maxAttributeBuffer =
        65536;  // bytes: the kernel gives no longer list of names or value

    Status readAttributes(const AttributeSource& source, DiskAttributes& attributes);
    Status readAttribute(const AttributeSource& source, const std::string& name, DiskAttributes& attributes);

    std::vector<char> names_;
    std::vector<char> value_;
    std::size_t bytesLeft_ = 0;  // of names and values
};

}  // namespace tarnwick::qvx
