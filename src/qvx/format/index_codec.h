// Encodes and decodes the index, its root and the trailer. The input of a decoder is hostile, as in entry_codec.h.
#pragma once

#include <array>
#include <compare>
#include <optional>
#include <string>
#include <vector>

#include "qvx/format/wire.h"

namespace tarnwick::qvx {

// The position of a record: of its first part, if it is split.
struct RecordPlace {
    std::uint32_t block = 0;
    std::uint32_t offset = 0;  // in that block

    auto operator<=>(const RecordPlace&) const = default;
};

struct IndexEntry {
    std::uint64_t block = 0;   // of the ENTRY record
    std::uint64_t offset = 0;  // in that block
    std::uint64_t span = 0;    // count of blocks after that one, up to the one in which the END record ends
    EntryType type = EntryType::file;
    std::string path;
    std::uint16_t mode = 0;
    std::uint32_t userId = 0;
    std::uint32_t groupId = 0;
    std::uint64_t size = 0;
    std::int64_t modifiedSeconds = 0;
    bool incomplete = false;  // the entry's tail has `unreadable`
};

// Encodes index parts, one after the other. Entries are added by number, from 0.
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

// Reads the entries of one index part in order. A path is stored as its difference from the previous path, so the
// decoder keeps only one entry in memory.
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
    std::uint64_t returned_ = 0;
    IndexEntry entry_;
};

// Whether a part of the index at `part` comes after the END of the entry.
bool isBefore(const IndexEntry& entry, const RecordPlace& part);

// Small, because an archive may have 33 million of them.
struct IndexPartPlace {
    std::uint32_t first = 0;   // entry number of the first entry covered
    std::uint32_t block = 0;   // block of its INDEX record
    std::uint32_t offset = 0;  // in that block

    [[nodiscard]] RecordPlace place() const { return {block, offset}; }
    bool operator==(const IndexPartPlace&) const = default;
};

struct ArchiveRoot {
    std::uint64_t entries = 0;
    std::vector<IndexPartPlace> parts;
    std::vector<std::uint32_t> sealedLengths;  // of all blocks before the one where ROOT begins
};

void encodeRoot(const ArchiveRoot& root, std::vector<std::uint8_t>& bytes);

// The longest payload of a root for so many entries, and blocks before it.
constexpr std::size_t maxRootLength(std::uint64_t entries, std::uint64_t blocks) {
    constexpr std::size_t maxCountLength = 5;
    constexpr std::size_t maxPartLength = 12;
    constexpr std::size_t maxSealedLengthLength = 3;
    return 3 * maxCountLength + maxPartLength * static_cast<std::size_t>(entries / minIndexPartEntries + 1) +
           maxSealedLengthLength * static_cast<std::size_t>(blocks);
}

// Reads a root in order, without a copy of it in memory: first nextPart() until there is none, then nextLength().
class RootDecoder {
public:
    explicit RootDecoder(Bytes payload);

    [[nodiscard]] std::uint64_t entries() const { return entries_; }

    // None at the end, and at damage. The parts cover the entries without gap or overlap, in the order of their places.
    std::optional<IndexPartPlace> nextPart();

    // The length of the sealed bytes of the next block; none at the end, and at damage.
    std::optional<std::uint32_t> nextLength();

    // Everything was read, and nothing follows.
    [[nodiscard]] bool complete() const { return in_.ok() && in_.atEnd() && !inParts_ && left_ == 0; }

private:
    WireReader in_;
    std::uint64_t entries_;
    std::uint64_t left_;                    // parts, or lengths, not read yet
    std::optional<IndexPartPlace> before_;  // the part before
    bool inParts_ = true;
};

struct Trailer {
    std::uint64_t rootPosition = 0;  // bytes from the end of the file header to the block header
    std::uint64_t rootSequence = 0;
    std::uint64_t entries = 0;
    std::uint64_t blocks = 0;  // count, the last block included
};

std::array<std::uint8_t, trailerSize> encodeTrailer(const Trailer& trailer);
std::optional<Trailer> decodeTrailer(Bytes payload);

}  // namespace tarnwick::qvx
