// Reads the intact entries of a damaged archive and reports the rest.
#pragma once

#include "qvx/read/entry_table.h"
#include "qvx/read/reread_contents.h"

namespace tarnwick::qvx {

// Reads blocks in ascending order, perhaps with gaps, and delivers the entries whose blocks are all intact.
class SalvageReader {
public:
    using FaultReport = std::function<void(const ReadFault&)>;

    SalvageReader(const ArchiveFile& file, const MessageKeys& keys, const BlockMap& map, EntrySink& sink,
                  FaultReport report)
        : contents_(file, keys, map), entry_(sink), report_(std::move(report)) {}

    // Reads a block, which may have a fault. Damage is reported and does not end the reading: the outcome is never a
    // fault.
    ReadOutcome consume(const OpenedBlock& block);

    // Call after the last block. Reports an entry that has no end. Returns the numbers of all entries that were
    // delivered or reported by name, ascending, each once.
    std::vector<std::uint32_t> finish();

private:
    ReadOutcome consumeRecord(const Record& record, const RecordPlace& place);
    ReadOutcome deliver();
    void addNumber();
    void removeRepeatedNumbers();
    void abandonEntry(std::string reason);
    void reportUnknownRest();
    void reportEntry(const Error& error, bool begun);
    void report(const ReadFault& fault);
    void reportBlock(const ReadFault& fault);
    void reportDamagedRun();

    RereadContents contents_;
    EntryReader entry_;
    RecordPlace entryPlace_;
    EntryTable table_;
    FaultReport report_;
    std::vector<std::uint32_t> numbers_;  // of the entries that were delivered or reported
    BlockPlace block_;
    std::uint64_t nextBlock_ = 0;
    unsigned reported_ = 0;                // faults of entries in this block
    std::optional<ReadFault> damagedRun_;  // a run of damaged blocks that is not reported yet
    std::uint64_t damagedRunEnd_ = 0;
};

}  // namespace tarnwick::qvx
