// Compares index, root and trailer with the entries and blocks that were read.
#pragma once

#include "qvx/format/index_codec.h"
#include "qvx/read/entry_table.h"

namespace tarnwick::qvx {

// Call the functions in the order of the archive, addBlock() before those for the records of the block.
class IndexAudit {
public:
    void addBlock(const OpenedBlock& block) { blocks_.push_back({block.place, block.header.sealedLength}); }

    // Each fails when the archive contradicts itself. A payload is that of a logical record.
    Status addEntry(const EntryPlace& place, const EntryReader& entry);
    Status checkPart(Bytes payload, const EntryPlace& place);
    Status checkRoot(Bytes payload, std::uint64_t block);  // where the record begins
    Status checkTrailer(Bytes payload);

private:
    struct CheckedBlock {
        BlockPlace place;
        std::uint32_t sealedLength = 0;
    };

    std::vector<CheckedBlock> blocks_;
    std::vector<IndexPartPlace> parts_;
    IndexPartEncoder pending_;  // the entries that no part has covered yet
    std::uint64_t covered_ = 0;
    std::uint64_t entries_ = 0;
    std::uint64_t rootBlock_ = 0;
};

}  // namespace tarnwick::qvx
