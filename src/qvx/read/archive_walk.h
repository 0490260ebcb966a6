// Reads the blocks of an archive in order and checks everything strictly.
#pragma once

#include "qvx/read/entry_table.h"
#include "qvx/read/index_audit.h"

namespace tarnwick::qvx {

class ArchiveWalk {
public:
    ArchiveWalk(const ArchiveFile& file, const HpkeKeys& keys, EntrySink& sink)
        : file_(file), random_(file, keys, map_), entry_(sink) {}

    // Reads the next block. False at damage and when the sink stops.
    bool take(const OpenedBlock& block);
    [[nodiscard]] bool complete() const { return phase_ == Phase::complete; }
    [[nodiscard]] bool stopped() const { return stopped_; }
    [[nodiscard]] const ReadFault& fault() const { return fault_; }
    void abandon() { entry_.abandon(); }

private:
    enum class Phase { entries, root, trailer, complete };

    bool takeRecord(const Record& record, const EntryPlace& place);
    bool takeEntryRecord(const Record& record, const EntryPlace& place);
    bool takeIndexRecord(const Record& record, const EntryPlace& place);
    bool deliver();
    bool refuse(const char* what);
    bool refuseEntry(const char* what);

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
    ReadFault fault_;
    std::uint64_t count_ = 0;
    bool needsLeader_ = false;  // the current block
    bool stopped_ = false;
};

}  // namespace tarnwick::qvx
