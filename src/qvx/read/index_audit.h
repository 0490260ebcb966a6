// Compares index, root and trailer with the entries and blocks that were read.
#pragma once

#include <optional>
#include <vector>

#include "qvx/read/block_reader.h"
#include "qvx/read/entry_reader.h"
#include "qvx/read/entry_sum.h"

namespace tarnwick::qvx {

// Call the functions in the order of the archive. Memory: 12 bytes for each part of the index, none for an entry.
class IndexAudit {
public:
    // `blocks` has the blocks read so far, and must outlive this object.
    explicit IndexAudit(const BlockMap& blocks) : blocks_(blocks) {}

    [[nodiscard]] std::uint64_t entries() const { return entries_; }

    // The entry at `place` ends in `endBlock`.
    void addEntry(const RecordPlace& place, std::uint64_t endBlock, const EntryReader& entry);

    // Each fails when the archive contradicts itself. A payload is that of a logical record, which begins at `place`.
    // Whether the entries are those of the index is known only after checkRoot().
    Status checkPart(Bytes payload, const RecordPlace& place);
    Status checkRoot(Bytes payload, std::uint64_t block);  // where the record begins
    Status checkTrailer(Bytes payload) const;

private:
    Status checkEntries(IndexPartDecoder& decoder, const RecordPlace& part);
    bool matchesParts(RootDecoder& root) const;
    bool matchesBlocks(RootDecoder& root, std::uint64_t end) const;

    const BlockMap& blocks_;
    EntrySum read_{KeyedHash()};  // of the entries
    EntrySum indexed_{read_};     // of the entries in the index
    std::vector<IndexPartPlace> parts_;
    std::uint64_t covered_ = 0;  // by the index
    std::uint64_t entries_ = 0;
    std::uint64_t rootBlock_ = 0;
};

}  // namespace tarnwick::qvx
