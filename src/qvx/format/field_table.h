// The fields of an entry: one row for each, with its key, its encoder and decoder, and its source on the disk.
//
// The position of a row in its table is the presence bit of the field, so a new field is a new row at the end. The
// table of the END record is full.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <span>
#include <string_view>

#include "qvx/format/entry.h"
#include "qvx/format/wire.h"

struct archive_entry;

namespace tarnwick::qvx {

// Data from the disk about a file that is captured.
struct CaptureSource {
    const struct statx& status;
    int descriptor = -1;              // of the open file; -1 when it is not open
    archive_entry* extras = nullptr;  // attributes and access lists of the file; null when it has none
};

// `Part` is EntryHead (fields of the ENTRY record) or EntryTail (fields of the END record).
template <typename Part>
struct FieldRow {
    std::string_view key;  // empty: the field is always stored
    bool (*isPresent)(const Part&);
    void (*clear)(Part&);
    void (*encode)(const Part&, WireWriter&);
    void (*decode)(WireReader&, Part&);            // calls in.fail() on an invalid value
    void (*capture)(const CaptureSource&, Part&);  // null: the field describes the content, and the encoder fills it in
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
    unsigned bits = 0;
    for (std::size_t i = 0; i < table.size(); ++i) bits |= static_cast<unsigned>(table[i].isPresent(part)) << i;
    out.byte(static_cast<std::uint8_t>(bits));
    for (const auto& row : table)
        if (row.isPresent(part)) row.encode(part, out);
}

// Calls in.fail() on a presence bit without a row.
template <typename Part>
void decodeFields(WireReader& in, Part& part) {
    const auto table = fieldTable<Part>();
    const unsigned bits = in.byte();
    if (bits >> table.size() != 0) in.fail();
    for (std::size_t i = 0; in.ok() && i < table.size(); ++i)
        if (bits >> i & 1) table[i].decode(in, part);
}

template <typename Part>
void captureFields(const CaptureSource& source, Part& part) {
    for (const auto& row : fieldTable<Part>())
        if (row.capture) row.capture(source, part);
}

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
