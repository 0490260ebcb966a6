// The entries that went by, for those that refer to them.
#pragma once

#include "platform/archive/block_reader.h"
#include "platform/archive/entry_reader.h"

namespace tarnwick::qvx {

struct EntryPlace {
    std::uint64_t number = 0;
    std::uint64_t block = 0;
    std::size_t offset = 0;
};

// Reads the content of the entry at `place` for another entry that refers to it. False when it cannot be read, or is
// not what `expected`, the other's tail, says.
bool readContent(RandomBlocks& blocks, const EntryPlace& place, const EntryTail& expected, EntrySink& sink);

// The entries gone by that others may refer to: 40 bytes each.
class EntryTable {
public:
    struct Known {
        EntryPlace place;
        std::uint64_t size = 0;
        std::uint64_t digestBegin = 0;
        EntryType type = EntryType::file;
        bool holdsContent = false;
    };

    void add(const EntryPlace& place, const EntryReader& entry);
    [[nodiscard]] const Known* find(std::uint64_t number) const;

    // Null when the entry refers to nothing, or to what fits it; otherwise what is wrong.
    [[nodiscard]] const char* faultOfReferences(const EntryReader& entry) const;

private:
    std::vector<Known> entries_;  // ascending
};

}  // namespace tarnwick::qvx
