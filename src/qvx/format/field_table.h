// The fields of an entry: one row for each, with its key, its encoder and decoder, and its source on the disk.
//
// The position of a row in its table is the presence bit of the field, so a new field is a new row at the end.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <span>
#include <string_view>

#include "base/error.h"
#include "qvx/format/entry.h"
#include "qvx/format/wire.h"

namespace tarnwick::qvx {

// The attributes of a file on the disk.
struct DiskAttributes {
    std::vector<ExtendedAttribute> extended;  // those that an archive can have, ascending by name
    std::string accessList, defaultList;      // as the kernel keeps them; empty for none
};

// Data from the disk about a file that is captured.
struct CaptureSource {
    const struct statx& status;
    EntryType type = EntryType::file;
    int descriptor = -1;                   // of the open file; -1 when it is not open
    DiskAttributes* attributes = nullptr;  // null when the file has none
};

// `Part` is EntryHead (fields of the ENTRY record) or EntryTail (fields of the END record).
template <typename Part>
struct FieldRow {
    std::string_view key;  // empty: the field is always stored
    bool (*isPresent)(const Part&);
    void (*clear)(Part&);
    void (*encode)(const Part&, WireWriter&);
    void (*decode)(WireReader&, Part&);  // calls in.fail() on an invalid value
    // Leaves a value out that an archive cannot have, and fails. Null: the field describes the content, and the encoder
    // fills it in.
    Status (*capture)(const CaptureSource&, Part&);
};

// The rows of EntryHead and of EntryTail.
template <typename Part>
std::span<const FieldRow<Part>> fieldTable();
template <>
std::span<const FieldRow<EntryHead>> fieldTable();
template <>
std::span<const FieldRow<EntryTail>> fieldTable();

// Presence bits, then the fields that are present.
template <typename Part>
void encodeFields(const Part& part, WireWriter& out) {
    const auto table = fieldTable<Part>();
    std::uint64_t bits = 0;
    for (std::size_t i = 0; i < table.size(); ++i) bits |= std::uint64_t{table[i].isPresent(part)} << i;
    out.varint(bits);
    for (const auto& row : table)
        if (row.isPresent(part)) row.encode(part, out);
}

// Calls in.fail() on a presence bit without a row.
template <typename Part>
void decodeFields(WireReader& in, Part& part) {
    const auto table = fieldTable<Part>();
    const std::uint64_t bits = in.varint();
    if (bits >> table.size() != 0) in.fail();
    for (std::size_t i = 0; in.ok() && i < table.size(); ++i)
        if (bits >> i & 1) table[i].decode(in, part);
}

// Captures all fields that it can. The error is that of the first field that it cannot.
template <typename Part>
Status captureFields(const CaptureSource& source, Part& part) {
    Status first;
    for (const auto& row : fieldTable<Part>()) {
        if (!row.capture) continue;
        if (Status captured = row.capture(source, part); first && !captured) first = std::move(captured);
    }
    return first;
}

// Whether an extended attribute of an entry may have this name.
bool isAttributeName(std::string_view name);

// The attributes of the kernel that are the field ACL.
inline constexpr const char* accessListAttribute = "system.posix_acl_access";
inline constexpr const char* defaultListAttribute = "system.posix_acl_default";

// A set of fields, one bit for each key. The content has a key ("DAT") as well, although it is not a field of a record.
using FieldMask = std::uint32_t;

inline constexpr FieldMask allFields = ~FieldMask{0};

// 0 for a key that does not exist.
FieldMask fieldBit(std::string_view key);

// Parses keys separated by commas. None when a key does not exist or is given twice.
std::optional<FieldMask> parseFieldKeys(std::string_view keys);

// Removes the fields whose key is not in `kept`; those without a key stay.
void removeOtherFields(FieldMask kept, EntryHead& head);
void removeOtherFields(FieldMask kept, EntryTail& tail);

}  // namespace tarnwick::qvx
