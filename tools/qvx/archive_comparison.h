// Compares the entries of two archives by what is stored about them: the index first, and the ENTRY and END records
// only of the entries whose type and size agree. Contents are not read.
#pragma once

#include <deque>
#include <string>
#include <vector>

#include "qvx/archive_reader.h"
#include "qvx/read/keyed_hash.h"

namespace tarnwick::qvx {

struct ComparedEntry {
    static constexpr std::uint32_t none = 0xffffffff;

    // Hashes. That of the content is of its digest or of the target of the link; until a reference to the content of
    // another entry is resolved, it is the number of that one.
    std::uint64_t path = 0;
    std::uint64_t content = 0;
    std::uint64_t attributes = 0;
    std::uint64_t accessLists = 0;
    std::uint64_t size = 0;
    std::int64_t modifiedSeconds = 0;
    std::uint32_t modifiedNanoseconds = 0;
    std::uint32_t userId = 0;
    std::uint32_t groupId = 0;
    std::uint32_t flags = 0;
    std::uint32_t partner = none;  // the number of the entry with this path in the other archive
    std::uint16_t mode = 0;
    EntryType type = EntryType::file;
    bool incomplete : 1 = false;
    bool replaced : 1 = false;  // a later entry of the archive has this path
    bool wanted : 1 = false;    // its metadata is to be read
    bool contentKnown : 1 = false;
    bool refersToContent : 1 = false;
};
static_assert(sizeof(ComparedEntry) == 72);

// What differs between two entries of one path.
struct Difference {
    const char* field;   // "size"
    std::string before;  // for people; empty if it has no short form
    std::string after;
};

class ComparedArchive {
public:
    // Both arguments must outlive this object.
    ComparedArchive(ArchiveReader& reader, const KeyedHash& hash) : reader_(reader), hash_(hash) {}

    Result<void, ReadFault> readIndex();

    // Of the entries that are wanted, and of those that contain their contents.
    Result<void, ReadFault> readMetadata();

    // The entries by number. Memory: 72 bytes for each, and 4 while pairs are sought.
    [[nodiscard]] std::deque<ComparedEntry>& entries() { return entries_; }
    [[nodiscard]] ArchiveReader& reader() { return reader_; }

    // The numbers of the entries in the order of their path hashes, without those that are replaced, which it marks.
    [[nodiscard]] std::vector<std::uint32_t> sortByPath();

private:
    void add(const IndexEntry& entry);
    void add(const StoredMetadata& metadata);
    Result<void, ReadFault> readWanted();
    bool wantReferences();
    void resolveReferences();
    [[nodiscard]] std::uint64_t hashOf(const std::vector<ExtendedAttribute>& attributes) const;

    ArchiveReader& reader_;
    const KeyedHash& hash_;
    std::deque<ComparedEntry> entries_;
};

// Finds the entries of the same path, and marks as wanted those whose type and size agree. Both indexes have been read.
void pairEntries(ComparedArchive& before, ComparedArchive& after);

// In the order in which messages name them.
std::vector<Difference> compareEntries(const ComparedEntry& before, const ComparedEntry& after);

// Whether the contents can be compared: not if one of two equally long ones has no digest.
bool contentsAreComparable(const ComparedEntry& before, const ComparedEntry& after);

}  // namespace tarnwick::qvx
