// An entry of an archive: what its ENTRY and END records contain.
#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "qvx/format/format.h"

namespace tarnwick::qvx {

// Times are nanoseconds since 1970-01-01T00:00:00Z.
struct EntryHead {
    std::uint64_t number = 0;
    EntryType type = EntryType::file;
    bool digestAnnounced = false;  // never of a directory
    std::string path;              // relative to "/", empty for "/" itself; never with an empty component, "." or ".."
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

// An entry of a POSIX access list. The kinds have the order in which a list has its entries.
struct AccessRule {
    enum class Kind : std::uint8_t { owner, user, owningGroup, group, mask, others };
    Kind kind = Kind::owner;
    std::uint8_t permissions = 0;  // 4 read, 2 write, 1 execute
    std::uint32_t id = 0;          // of the user or the group; 0 in the other kinds
    bool operator==(const AccessRule&) const = default;
};

// Empty for none. access_list.h says which lists are valid.
using AccessList = std::vector<AccessRule>;

struct AccessLists {
    AccessList access;
    AccessList defaultList;  // of a directory only
};

// A range of bytes of the content.
struct Extent {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;

    [[nodiscard]] std::uint64_t end() const { return offset + length; }
};

// The first half of a SHA-256: it shows whether a content is the right one, but is not its digest.
using DigestCheck = std::array<std::uint8_t, 16>;

inline DigestCheck checkOf(const Digest& digest) {
    DigestCheck check{};
    std::copy_n(digest.begin(), check.size(), check.begin());
    return check;
}

// What a reader remembers of the content of an entry.
struct ContentCheck {
    std::uint64_t size = 0;
    std::optional<DigestCheck> digest;  // none if the entry has no digest
};

struct EntryTail {
    std::optional<Digest> digest = std::nullopt;
    std::optional<SparseTotals> totals = std::nullopt;
    std::optional<std::uint64_t> contentOf = std::nullopt;  // number of the earlier entry with the content
    bool hardLink = false;  // the entry is the same inode as `contentOf`, under another path
    std::optional<std::vector<ExtendedAttribute>> attributes = std::nullopt;
    std::optional<AccessLists> accessLists = std::nullopt;
    // Set when the entry is incomplete: a part of the file could not be read or stored. The extents are the parts of
    // the content that are stored as zeros instead, in ascending order and never adjacent. There are none when the
    // missing part is metadata, the target of a link, or the end of a content of unknown size.
    std::optional<std::vector<Extent>> unreadable = std::nullopt;

    // Not stored. If contentOf is set: of the entry with the content, if the reader has read that.
    std::optional<ContentCheck> content = std::nullopt;
};

}  // namespace tarnwick::qvx
