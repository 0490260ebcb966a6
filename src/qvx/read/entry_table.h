// The entries read so far, for the later entries that refer to them.
#pragma once

#include "qvx/read/block_reader.h"
#include "qvx/read/entry_reader.h"

namespace tarnwick::qvx {

struct EntryPlace {
    std::uint64_t number = 0;
    std::uint64_t block = 0;
    std::size_t offset = 0;
};

// Reads the content of the entry at `place`, which must have it itself. False when it cannot be read or does not match
// the digest and size in the tail of the entry that refers to it.
bool readContent(RandomBlocks& blocks, const EntryPlace& place, const EntryTail& expected, EntrySink& sink);

// The regular files read so far, to which later entries may refer. About 100 bytes each.
class EntryTable {
public:
    void add(const EntryPlace& place, const EntryReader& entry);

    // Fails when the references of the entry are wrong. An entry whose content is in another one gets the digest and
    // size of that one.
    Status resolve(EntryReader& entry) const;

    // The place of an entry that has its own content; null when there is no such entry.
    [[nodiscard]] const EntryPlace* placeOf(std::uint64_t number) const;

private:
    struct FileEntry {
        EntryPlace place;
        std::uint64_t content = 0;  // number of the entry with the content: this one or an earlier one
        std::optional<Digest> digest;
        SparseTotals totals;      // `holes` is 0 when the entry does not state it
        bool unreadable = false;  // a part of the content could not be read
    };

    [[nodiscard]] const FileEntry* find(std::uint64_t number) const;

    std::vector<FileEntry> files_;  // ascending
};

}  // namespace tarnwick::qvx
