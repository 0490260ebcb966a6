// Saving what can be saved of a damaged archive.
#pragma once

#include "qvx/read/entry_table.h"

namespace tarnwick::qvx {

// Finds every block that opens, also behind damage and out of order, in ascending order. Where headers
// lead from block to block this reads on from each to the next; elsewhere it tries whatever looks like a header.
BlockMap scanForBlocks(const ArchiveFile& file, const HpkeKeys& keys);

// Goes through blocks in ascending order with gaps, and gives the entries that stand between them.
class SalvageWalk {
public:
    using FaultReport = std::function<void(const ReadFault&)>;
    using LossReport = std::function<void(std::uint64_t firstEntry, std::uint64_t endEntry)>;

    SalvageWalk(const ArchiveFile& file, const HpkeKeys& keys, const BlockMap& map, EntrySink& sink, FaultReport report,
                LossReport reportLoss)
        : random_(file, keys, map), entry_(sink), report_(std::move(report)), reportLoss_(std::move(reportLoss)) {}

    // Takes a block, or the fault of one. False when the sink stops.
    bool take(const OpenedBlock& block);

    // Reports the entry that the end cut off. The number of the first entry that was not seen.
    std::uint64_t end();

private:
    bool takeRecord(const Record& record, const EntryPlace& place);
    bool deliver();
    void lose(std::string what);
    void tell(const ReadFault& fault);
    void tellOfBlock(const ReadFault& fault);
    void tellRun();

    RandomBlocks random_;
    EntryReader entry_;
    EntryPlace entryPlace_;
    EntryTable table_;
    FaultReport report_;
    LossReport reportLoss_;
    BlockPlace block_;
    std::uint64_t nextBlock_ = 0;
    std::uint64_t nextEntry_ = 0;
    std::optional<ReadFault> run_;  // of damaged blocks, not yet reported
    std::uint64_t runEnd_ = 0;
};

}  // namespace tarnwick::qvx
