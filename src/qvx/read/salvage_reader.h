// Reads the intact entries of a damaged archive and reports the rest.
#pragma once

#include "qvx/read/entry_table.h"

namespace tarnwick::qvx {

// Reads blocks in ascending order, perhaps with gaps, and delivers the entries whose blocks are all intact.
class SalvageReader {
public:
    using FaultReport = std::function<void(const ReadFault&)>;
    // The entries from `firstEntry` to `endEntry` - 1 are lost.
    using LossReport = std::function<void(std::uint64_t firstEntry, std::uint64_t endEntry)>;

    SalvageReader(const ArchiveFile& file, const MessageKeys& keys, const BlockMap& map, EntrySink& sink,
                  FaultReport report, LossReport reportLoss)
        : random_(file, keys, map), entry_(sink), report_(std::move(report)), reportLoss_(std::move(reportLoss)) {}

    // Reads a block, which may have a fault. Damage is reported and does not end the reading: the outcome is never a
    // fault.
    ReadOutcome consume(const OpenedBlock& block);

    // Call after the last block. Reports an entry that has no end. Returns one more than the number of the last entry
    // that was found: later ones may be lost, too.
    std::uint64_t finish();

private:
    ReadOutcome consumeRecord(const Record& record, const EntryPlace& place);
    void placeEntry(const EntryPlace& place);
    ReadOutcome deliver();
    void abandonEntry(std::string reason);
    void report(const ReadFault& fault);
    void reportBlock(const ReadFault& fault);
    void reportDamagedRun();

    RandomBlocks random_;
    EntryReader entry_;
    EntryPlace entryPlace_;
    EntryTable table_;
    FaultReport report_;
    LossReport reportLoss_;
    BlockPlace block_;
    std::uint64_t nextBlock_ = 0;
    std::uint64_t nextEntry_ = 0;
    std::optional<ReadFault> damagedRun_;  // a run of damaged blocks that is not reported yet
    std::uint64_t damagedRunEnd_ = 0;
};

}  // namespace tarnwick::qvx
