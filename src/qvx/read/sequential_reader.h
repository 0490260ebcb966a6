// Reads the blocks of an archive in order and checks that all its parts agree.
#pragma once

#include "qvx/read/entry_table.h"
#include "qvx/read/index_audit.h"

namespace tarnwick::qvx {

class SequentialReader {
public:
    // All arguments must outlive the reader.
    SequentialReader(const ArchiveFile& file, const MessageKeys& keys, EntrySink& sink)
        : file_(file), random_(file, keys, map_), entry_(sink, EntryReader::Scope::everyEntry) {}

    // Reads the next block. If the outcome is not complete, call only abandon() after it.
    ReadOutcome consume(const OpenedBlock& block);

    // Call after the last block. Damaged when blocks are missing.
    [[nodiscard]] ReadOutcome finish() const;

    // Abandons the entry that was begun, if any.
    void abandon() { entry_.abandon(); }

private:
    enum class Phase { entries, trailer, complete };  // what comes next

    Status checkPlace(const OpenedBlock& block) const;
    ReadOutcome consumeRecord(const Record& record, const EntryPlace& place);
    ReadOutcome consumeEntryRecord(const Record& record, const EntryPlace& place);
    ReadOutcome consumeIndexRecord(const Record& record, const EntryPlace& place);
    ReadOutcome consumeTrailer(const Record& record, const EntryPlace& place);
    ReadOutcome deliver();
    ReadOutcome damaged(const char* text) const;
    ReadOutcome damagedUnless(const Status& checked) const;

    const ArchiveFile& file_;
    BlockMap map_;
    RandomBlocks random_;
    EntryReader entry_;
    EntryPlace entryPlace_;
    EntryTable table_;
    IndexAudit audit_;
    RecordJoiner joiner_;
    EntryPlace joinedPlace_;
    Phase phase_ = Phase::entries;
    BlockPlace block_;
    std::uint64_t count_ = 0;  // of the entries delivered
    bool mayHaveRoot_ = true;  // the current block is no leader and needs none
};

}  // namespace tarnwick::qvx
