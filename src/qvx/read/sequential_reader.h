// Reads the blocks of an archive in order and checks that all its parts agree.
#pragma once

#include "qvx/read/entry_table.h"
#include "qvx/read/index_audit.h"
#include "qvx/read/reread_contents.h"

namespace tarnwick::qvx {

class SequentialReader {
public:
    // All arguments must outlive the reader.
    SequentialReader(const ArchiveFile& file, const MessageKeys& keys, EntrySink& sink)
        : contents_(file, keys, map_), entry_(sink, EntryReader::Scope::everyEntry) {}

    // Reads the next block. If the outcome is not complete, call only abandon() after it.
    ReadOutcome consume(const OpenedBlock& block);

    // Call after the last block. Damaged when blocks are missing.
    [[nodiscard]] ReadOutcome finish() const;

    // Abandons the entry that was begun, if any.
    void abandon() { entry_.abandon(); }

private:
    enum class Phase { entries, trailer, complete };  // what comes next

    Status checkPlace(const OpenedBlock& block) const;
    ReadOutcome consumeRecord(const Record& record, const RecordPlace& place);
    ReadOutcome consumeEntryRecord(const Record& record, const RecordPlace& place);
    ReadOutcome consumeIndexRecord(const Record& record, const RecordPlace& place);
    ReadOutcome consumeTrailer(const Record& record, const RecordPlace& place);
    ReadOutcome deliver();
    ReadOutcome damaged(const char* text) const;
    ReadOutcome damagedUnless(const Status& checked) const;

    BlockMap map_;
    RereadContents contents_;
    EntryReader entry_;
    RecordPlace entryPlace_;
    EntryTable table_;
    IndexAudit audit_{map_};
    RecordJoiner joiner_;
    RecordPlace joinedPlace_;
    Phase phase_ = Phase::entries;
    BlockPlace block_;
    bool mayHaveRoot_ = true;  // the current block is no leader and needs none
};

}  // namespace tarnwick::qvx
