// Encodes and decodes records, and the payloads of those that make up an entry (the others are in index_codec.h). The
// input of a decoder is hostile: it returns nothing for malformed bytes, and never allocates more than a small
// multiple of its input.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "qvx/format/entry.h"
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

    // The next record; its type may be one for later additions. Padding is returned only if it is the whole block,
    // because a split record does not continue after it. None at the end of the block, and
    // where the bytes are not a record: damaged() is then true. The payload points into the block.
    std::optional<Record> next();
    [[nodiscard]] bool damaged() const { return damaged_; }
    [[nodiscard]] std::size_t offset() const { return offset_; }  // end of the last record returned

private:
    Bytes block_;
    std::size_t offset_;
    bool damaged_ = false;
};

// Append the payload to `bytes`.
void encodeEntryHead(const EntryHead& head, std::vector<std::uint8_t>& bytes);
void encodeEntryTail(const EntryTail& tail, std::vector<std::uint8_t>& bytes);

std::optional<EntryHead> decodeEntryHead(Bytes payload);
std::optional<EntryTail> decodeEntryTail(Bytes payload);

// Whether the payload of an ENTRY announces a digest. Reads no more of it than that.
bool announcesDigest(Bytes payload);

std::optional<std::uint64_t> decodeHole(Bytes payload);  // never 0

// Whether an entry may have this path, and an entry of this type.
bool isEntryPath(std::string_view path);
bool isPathOf(EntryType type, std::string_view path);

// The type with this number. Calls in.fail() when there is none.
EntryType readEntryType(WireReader& in, unsigned number);

}  // namespace tarnwick::qvx
