// An entry of an archive: what its ENTRY and END records contain.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "qvx/format/format.h"

namespace tarnwick::qvx {

// Times are nanoseconds since 1970-01-01T00:00:00Z.
struct EntryHead {
    std::uint64_t number = 0;
    EntryType type = EntryType::file;
    std::string path;  // relative to "/", empty for "/" itself; never with an empty component, "." or ".."
    std::optional<std::uint32_t> userId;
    std::optional<std::uint32_t> groupId;
    std::optional<std::uint16_t> mode;  // 07777
    std::optional<std::uint32_t> flags;
    std::optional<std::int64_t> modified;
    std::optional<std::int64_t> changed;
    std::optional<std::int64_t> created;
};

struct SparseTotals {
    std::uint64_t size = 0;   // of the content
    std::uint64_t holes = 0;  // count of HOLE records
};

struct ExtendedAttribute {
    std::string name;
    std::string value;
};

struct AccessLists {
    std::string access;  // long text form with numeric ids; empty for none
    std::string defaultList;
};

// A range of bytes of the content.
struct Extent {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;

    [[nodiscard]] std::uint64_t end() const { return offset + length; }
};

struct EntryTail {
    std::optional<Digest> digest;
    std::optional<SparseTotals> totals;
    std::optional<std::uint64_t> contentOf;  // number of the earlier entry with the content
    std::optional<std::uint64_t> linkOf;     // number of the earlier entry that is the same inode
    std::optional<std::vector<ExtendedAttribute>> attributes;
    std::optional<AccessLists> accessLists;
    // Set when a part of the file could not be read. The extents are the parts of the content that are stored as zeros
    // instead, in ascending order and never adjacent. There are none when the missing part is metadata, the target of a
    // link, or the end of a content of unknown size.
    std::optional<std::vector<Extent>> unreadable;
    bool attributesOmitted = false;
};

}  // namespace tarnwick::qvx
