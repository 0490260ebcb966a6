// Encodes and decodes the payloads of records. The input of a decoder is hostile: it returns nothing for bytes that our
// encoder would not write, and never allocates more than a small multiple of its input.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qvx/format/wire.h"

namespace tarnwick::qvx {

struct RecordHeader {
    RecordType type = RecordType::pad;
    bool continues = false;  // the payload continues in the next block
    std::uint32_t length = 0;
};

void encodeRecordHeader(const RecordHeader& header, std::uint8_t* out);

struct Record {
    RecordType type = RecordType::pad;
    bool continues = false;
    Bytes payload;
    std::optional<Digest> contentDigest = std::nullopt;  // of an ENTRY, when it is known in advance
};

// Reads the records of one plain block in order.
class RecordCursor {
public:
    explicit RecordCursor(Bytes block, std::size_t offset = 0);

    // The next record that is not padding. None at the end of the block, and where the bytes are not a record:
    // damaged() is then true. The payload points into the block.
    std::optional<Record> next();
    [[nodiscard]] bool damaged() const { return damaged_; }
    [[nodiscard]] std::size_t offset() const { return offset_; }  // end of the last record returned

private:
    Bytes block_;
    std::size_t offset_;
    bool damaged_ = false;
};

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
    std::optional<std::uint64_t> contentOf;  // number of the earlier entry that holds the content
    std::optional<std::uint64_t> linkOf;     // number of the earlier entry that is the same inode
    std::optional<std::vector<ExtendedAttribute>> attributes;
    std::optional<AccessLists> accessLists;
    // Set when a part of the file could not be read. The extents are the parts of the content that are stored as zeros
    // instead, in ascending order and never adjacent. There are none when the missing part is metadata, the target of a
    // link, or the end of a content of unknown size.
    std::optional<std::vector<Extent>> unreadable;
    bool attributesOmitted = false;
};

// Append the payload to `bytes`.
void encodeEntryHead(const EntryHead& head, std::vector<std::uint8_t>& bytes);
void encodeEntryTail(const EntryTail& tail, std::vector<std::uint8_t>& bytes);

std::optional<EntryHead> decodeEntryHead(Bytes payload);
std::optional<EntryTail> decodeEntryTail(Bytes payload);
std::optional<std::uint64_t> decodeHole(Bytes payload);  // never 0

// Whether an entry may have this path.
bool isEntryPath(std::string_view path);

struct IndexEntry {
    std::uint64_t block = 0;   // of the ENTRY record
    std::uint64_t offset = 0;  // in that block
    EntryType type = EntryType::file;
    std::string path;
    std::uint16_t mode = 0;
    std::uint32_t userId = 0;
    std::uint32_t groupId = 0;
    std::uint64_t size = 0;
    std::int64_t modifiedSeconds = 0;
    bool incomplete = false;  // the entry's tail has `unreadable`
};

// Builds index parts, one after the other.
class IndexPartEncoder {
public:
    void add(const IndexEntry& entry);
    [[nodiscard]] std::size_t size() const { return body_.size(); }  // bytes of the part so far, roughly
    [[nodiscard]] std::uint64_t count() const { return count_; }

    // Appends the payload of the part to `bytes` and begins the next part.
    void finish(std::vector<std::uint8_t>& bytes);

private:
    std::vector<std::uint8_t> body_;
    std::uint64_t first_ = 0;
    std::uint64_t count_ = 0;
    IndexEntry before_;
};

// Reads the entries of one index part in order. A path is stored as its difference from the path before, so only one
// entry is in memory at a time.
class IndexPartDecoder {
public:
    explicit IndexPartDecoder(Bytes payload);

    [[nodiscard]] std::uint64_t first() const { return first_; }  // entry number of the first
    [[nodiscard]] std::uint64_t count() const { return count_; }

    // The next entry, valid until the next call. Null at the end, and at damage.
    const IndexEntry* next();
    [[nodiscard]] bool damaged() const { return !in_.ok(); }

private:
    WireReader in_;
    std::uint64_t first_;
    std::uint64_t count_;
    std::uint64_t given_ = 0;
    IndexEntry entry_;
};

struct IndexPartPlace {
    std::uint64_t first = 0;   // entry number of the first entry covered
    std::uint64_t block = 0;   // block of its INDEX record
    std::uint64_t offset = 0;  // in that block
};

struct ArchiveRoot {
    std::uint64_t entries = 0;
    std::vector<IndexPartPlace> parts;
    std::vector<std::uint32_t> sealedLengths;  // of all blocks before the root's
};

void encodeRoot(const ArchiveRoot& root, std::vector<std::uint8_t>& bytes);
std::optional<ArchiveRoot> decodeRoot(Bytes payload);

struct Trailer {
    std::uint64_t rootPosition = 0;  // in the file, of the block header
    std::uint64_t rootSequence = 0;
    std::uint64_t entries = 0;
    std::uint64_t blocks = 0;  // count, the last block included
};

std::array<std::uint8_t, trailerSize> encodeTrailer(const Trailer& trailer);
std::optional<Trailer> decodeTrailer(Bytes payload);

}  // namespace tarnwick::qvx
