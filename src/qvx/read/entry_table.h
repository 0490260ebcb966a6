// The entries that went by, for those that refer to them.
#pragma once

#include "qvx/read/block_reader.h"
#include "qvx/read/entry_reader.h"

namespace tarnwick::qvx {

struct EntryPlace {
    std::uint64_t number = 0;
    std::uint64_t block = 0;
    std::size_t offset = 0;
};

// Reads the content of the entry at `place`, which must hold it itself. False when it cannot be read, and when it is
// not what the tail of the entry that wants it says.
bool readContent(RandomBlocks& blocks, const EntryPlace& place, const EntryTail& wanted, EntrySink& sink);

// The regular files gone by, to which others may refer: about 100 bytes each.
class EntryTable {
public:
    void add(const EntryPlace& place, const EntryReader& entry);

    // Null, or what is wrong with the entry's references. An entry whose content another one holds is given that one's
    // digest and size.
    const char* resolve(EntryReader& entry) const;

    // Where the entry that holds its own content stands; null when there is no such.
    [[nodiscard]] const EntryPlace* placeOf(std::uint64_t number) const;

private:
    struct Known {
        EntryPlace place;
        std::uint64_t content = 0;  // number of the entry that holds it, this one's own or an earlier one's
        std::optional<Digest> digest;
        SparseSum sum;            // where the entry says nothing of holes: none
        bool unreadable = false;  // in part
    };

    [[nodiscard]] const Known* find(std::uint64_t number) const;

    std::vector<Known> files_;  // ascending
};

}  // namespace tarnwick::qvx
