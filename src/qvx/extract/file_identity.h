// What shows that a path still leads to the file that was extracted there.
#pragma once

#include <cstdint>

#include "base/error.h"
#include "qvx/format/wire.h"

namespace tarnwick::qvx {

// An inode number alone is not enough: it is used again after the file is removed.
struct FileIdentity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::uint64_t size = 0;
    std::int64_t modified = 0;  // nanoseconds since 1970
    std::int64_t created = 0;   // 0 where the file system does not record it
    bool operator==(const FileIdentity&) const = default;
};

// Of an open file; O_PATH is enough. Not a regular file is an error.
Result<FileIdentity> identityOf(int file);

void encodeIdentity(const FileIdentity& identity, WireWriter& out);
FileIdentity decodeIdentity(WireReader& in);

}  // namespace tarnwick::qvx
